#include "qor_common/restart.h"

#include "qor_common/product_paths.h"
#include "qor_common/spawn.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor {

zym::result_t ProductRestart(zym::ITracer* tracer) try {
  ZYM_TRACE(tracer, zym::trace::kCall, __func__ << "() ");
  SpawnContext spawnContext;
  spawnContext.program = product_paths::GetLauncher();
  spawnContext.arguments = {"--restart"};
  ZYM_CHECK_RESULT(tracer, SecureDaemonSpawn(spawnContext),
                   "can not initialize asynchronous product restart");
  ZYM_TRACE(tracer, zym::trace::kCall, __func__ << "() <- asynchronous product restart initialized");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

}  // namespace qor
