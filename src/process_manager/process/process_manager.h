// The manager that makes the objects of processes.
#pragma once

#include "process_manager/process_manager.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Keeps nothing but its services. Any thread.
class ProcessManager : public zym::object::Ifaces<system_interceptors::process_manager::IProcessManager>,
                       public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
                       public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit ProcessManager(zym::IServiceLocator* locator);

  zym::result_t Enumerate(
      system_interceptors::process_manager::IProcessInformationEnumerator** enumerator) override;
  zym::result_t GetInformation(
      PidType pid, system_interceptors::process_manager::IProcessInformation** information) override;
  zym::result_t GetInformationByUniqueId(
      const UniquePidType& id,
      system_interceptors::process_manager::IProcessInformation** information) override;
  zym::result_t GetControl(PidType pid,
                           system_interceptors::process_manager::IProcessControl** control) override;
  zym::result_t GetControlByUniqueId(
      const UniquePidType& id, system_interceptors::process_manager::IProcessControl** control) override;
};

}  // namespace qor::process_manager
