#include "process_manager/memory/process_module_manager.h"

#include <cstdio>

#include "process_manager/memory/process_module.h"
#include "process_manager/memory/process_module_enumerator.h"
#include "zym/exception_to_result.h"

namespace qor::process_manager {
namespace {

using Module = detail::ObjectInfo<ByAddressModuleInfoProvider, ProcessModuleInfoBase, IProcessModule>;

}  // namespace

zym::result_t ProcessModuleManager::EnumerateModules(
    PidType pid, system_interceptors::process_manager::IProcessModuleEnumerator** enumerator) try {
  if (pid == 0) return zym::ZYM_E_NOT_SUPPORTED;
  *enumerator = zym::CreateObject<ProcessModuleEnumerator>(GetServiceLocator(), pid).Detach();
  return zym::ZYM_OK;
} catch (...) {
  char prefix[96];
  std::snprintf(prefix, sizeof(prefix), "Failed to create process module enumerator error for pid %u: ", pid);
  return zym::ExceptionToResult(GetTracer(), prefix);
}

zym::result_t ProcessModuleManager::GetModule(PidType pid, const std::uint64_t& address,
                                              IProcessModule** module) try {
  *module =
      zym::CreateObject<Module>(InterfaceProvider<zym::ITracer>::Service(), GetServiceLocator(), pid, address)
          .Detach();
  return zym::ZYM_OK;
} catch (...) {
  // The name isn't quite that of this operation; that is meant.
  return zym::ExceptionToResult(GetTracer(), "ProcessModuleManager::GetModuleModules error: ");
}

}  // namespace qor::process_manager
