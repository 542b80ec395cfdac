#include "process_manager/memory/process_module_enumerator.h"

#include <algorithm>

#include "process_manager/memory/process_module.h"
#include "zym/exception.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

// The protections above are those with the permission to execute. A mapping with write and execute only has
// "no access", 0x01, and is no module: that is meant.
constexpr std::uint32_t kLastWithoutExecution = 15;

using Module = detail::ObjectInfo<FromEnumeratorModuleInfoProvider, ProcessModuleInfoBase, IProcessModule>;

}  // namespace

ProcessModuleEnumerator::ProcessModuleEnumerator(zym::IServiceLocator* locator, PidType pid)
    : ServiceProvider(locator) {
  zym::intrusive_ptr<procfs::IParser> procfs;
  ZYM_CHECK_RESULT_OR_THROW(zym::GetInterface(locator, procfs.Ref()), "Failed to load procfs::IParser");
  ZYM_CHECK_RESULT_OR_THROW(procfs->GetMaps(pid, m_maps), "Failed procfs->GetMaps(" << pid << ", maps)");
  m_cursor = m_maps.begin();
}

zym::result_t ProcessModuleEnumerator::Next(IProcessModule** module) try {
  m_cursor = std::find_if(m_cursor, m_maps.cend(), [](const procfs::Maps::value_type& mapping) {
    return mapping.second->protection > kLastWithoutExecution;
  });
  if (m_cursor == m_maps.cend()) return zym::ZYM_FALSE;
  *module = zym::CreateObject<Module>(InterfaceProvider<zym::ITracer>::Service(), *m_cursor->second).Detach();
  ++m_cursor;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessModuleEnumerator::Reset() {
  m_cursor = m_maps.begin();
  return zym::ZYM_OK;
}

}  // namespace qor::process_manager
