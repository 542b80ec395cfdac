// The manager of the code that is loaded in a process.
#pragma once

#include <cstdint>

#include "process_manager/process_modules.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Keeps nothing but its services. Any thread.
class ProcessModuleManager
    : public zym::object::Ifaces<system_interceptors::process_manager::IProcessModuleManager>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit ProcessModuleManager(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  zym::result_t EnumerateModules(
      PidType pid, system_interceptors::process_manager::IProcessModuleEnumerator** enumerator) override;
  zym::result_t GetModule(PidType pid, const std::uint64_t& address,
                          system_interceptors::process_manager::IProcessModule** module) override;
};

}  // namespace qor::process_manager
