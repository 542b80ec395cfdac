// Handle to the interceptor of the locator.
#pragma once

#include "process_manager/application_manager.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

class Application : public zym::object::Ifaces<system_interceptors::application_manager_facade::IApplication>,
                    public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
                    public zym::NonCopyable {
 public:
  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit Application(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  zym::result_t GetInterceptor(system_interceptors::interceptor_facade::IInterceptor** interceptor) override;
};

}  // namespace qor::process_manager
