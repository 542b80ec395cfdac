#include "process_manager/memory/process_memory_factory.h"

#include <utility>

#include "process_manager/memory/process_memory_object.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_memory_manager {
namespace {

using zym::trace::kCall;

// The first kernel that needs no suspender: mem_open of fs/proc/base.c checks the right at open, and a read
// no longer wants a stopped tracee. Patch and build of a 3.3 are 0 or more, above these, and don't decide.
constexpr KernelVersion kFirstWithoutSuspender{.major = 3, .minor = 3, .patch = -1, .build = -1};

}  // namespace

ProcessMemoryFactorySurroundings ProcessMemoryFactorySurroundings::Real() {
  return {.kernelVersion = [](zym::ITracer* tracer) {
    static const KernelVersion version = GetLinuxKernelRelease(tracer);
    return version;
  }};
}

ProcessMemoryFactory::ProcessMemoryFactory(zym::IServiceLocator* locator,
                                           ProcessMemoryFactorySurroundings surroundings)
    : ServiceProvider(locator), m_surroundings(std::move(surroundings)) {}

zym::result_t ProcessMemoryFactory::FinalConstruct() try {
  m_suspenderRequired = m_surroundings.kernelVersion(GetTracer()) < kFirstWithoutSuspender;
  ZYM_TRACE(GetTracer(), kCall, "Suspender required: " << (m_suspenderRequired ? 1 : 0));
  if (!m_suspenderRequired) return zym::ZYM_OK;
  ZYM_CHECK_RESULT(GetTracer(), zym::GetInterface(GetServiceLocator(), m_suspender.Ref()),
                   "Failed to obtain IQorProcessSuspender interface");
  ZYM_CHECK_RESULT(GetTracer(), m_suspender->Start(), "Failed to start IQorProcessSuspender");
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

// After a FinalConstruct that failed, too: a suspender that didn't start is stopped all the same. That is
// meant: whether its start left something behind, the suspender knows best.
void ProcessMemoryFactory::FinalRelease() {
  if (!m_suspender) return;
  if (!ZYM_SUCCEEDED(m_suspender->Stop()))
    ZYM_TRACE(GetTracer(), kCall, "Failed to stop IQorProcessSuspender");
  m_suspender.Reset();
}

zym::result_t ProcessMemoryFactory::Create(
    system_interceptors::process_manager::IProcessControl* control,
    system_interceptors::process_memory_manager::IProcessMemory** memory) try {
  *memory = ProcessMemory::Create(GetServiceLocator(), control, m_suspenderRequired).Detach();
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_memory_manager
