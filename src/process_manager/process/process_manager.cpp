#include "process_manager/process/process_manager.h"

#include "process_manager/process/process_control.h"
#include "process_manager/process/process_information.h"
#include "process_manager/process/process_snapshot.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {

using zym::trace::kCall;
using zym::trace::kFailure;

ProcessManager::ProcessManager(zym::IServiceLocator* locator) : ServiceProvider(locator) {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
}

zym::result_t ProcessManager::Enumerate(
    system_interceptors::process_manager::IProcessInformationEnumerator** enumerator) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  *enumerator = zym::CreateObject<ProcessSnapshot>(GetServiceLocator()).Detach();
  return zym::ZYM_OK;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure, "Failed to gain IProcessInformationEnumeration");
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessManager::GetInformation(
    PidType pid, system_interceptors::process_manager::IProcessInformation** information) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " pid: " << pid);
  *information = zym::CreateObject<ProcessInformation>(GetServiceLocator(), pid, false).Detach();
  return zym::ZYM_OK;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure, "Failed to gain IProcessInformation for pid=" << pid);
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessManager::GetInformationByUniqueId(
    const UniquePidType& id, system_interceptors::process_manager::IProcessInformation** information) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " uniqueId: " << id << " (" << PidOf(id) << ")");
  *information = zym::CreateObject<ProcessInformation>(GetServiceLocator(), id, false).Detach();
  return zym::ZYM_OK;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure,
            "Failed to gain IProcessInformation for uniqueId=" << id << " (" << PidOf(id) << ")");
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessManager::GetControl(
    PidType pid, system_interceptors::process_manager::IProcessControl** control) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " pid: " << pid);
  *control = zym::CreateObject<ProcessControl>(GetServiceLocator(), pid).Detach();
  return zym::ZYM_OK;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure, "Failed to gain IProcessControl for pid=" << pid);
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcessManager::GetControlByUniqueId(
    const UniquePidType& id, system_interceptors::process_manager::IProcessControl** control) try {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " uniqueId: " << id << " (" << PidOf(id) << ")");
  *control = zym::CreateObject<ProcessControl>(GetServiceLocator(), id).Detach();
  return zym::ZYM_OK;
} catch (...) {
  ZYM_TRACE(GetTracer(), kFailure,
            "Failed to gain IProcessControl for uniqueId=" << id << " (" << PidOf(id) << ")");
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
