// The factory of the memory objects of processes.
#pragma once

#include <functional>

#include "process_manager/process_memory.h"
#include "process_manager/services/process_suspender.h"
#include "qor_common/os_info.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_memory_manager {

// What the factory takes from the machine; a test puts its own in.
struct ProcessMemoryFactorySurroundings {
  std::function<KernelVersion(zym::ITracer*)> kernelVersion;

  // The running kernel's, found out once in the life of the process.
  static ProcessMemoryFactorySurroundings Real();
};

// Kernels below 3.3 let the memory of a stopped process only be read: there the factory needs the host's
// IQorProcessSuspender, started from its construction to its last release. Stateless beyond that.
class ProcessMemoryFactory
    : public zym::object::Ifaces<system_interceptors::process_memory_manager::IProcessMemoryFactory>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  explicit ProcessMemoryFactory(zym::IServiceLocator* locator, ProcessMemoryFactorySurroundings surroundings =
                                                                   ProcessMemoryFactorySurroundings::Real());

  // Fails with the code of a suspender that is needed and is missing or doesn't start. One that doesn't start
  // is stopped, as FinalRelease runs then as well.
  zym::result_t FinalConstruct();
  void FinalRelease();

  zym::result_t Create(system_interceptors::process_manager::IProcessControl* control,
                       system_interceptors::process_memory_manager::IProcessMemory** memory) override;

 private:
  const ProcessMemoryFactorySurroundings m_surroundings;
  bool m_suspenderRequired = false;
  zym::intrusive_ptr<IQorProcessSuspender> m_suspender;  // null unless required
};

}  // namespace qor::process_memory_manager
