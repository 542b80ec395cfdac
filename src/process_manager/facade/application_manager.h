// Registry of applications by id.
#pragma once

#include <map>
#include <mutex>

#include "process_manager/application_manager.h"
#include "process_manager/facade/application.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Applications are made and let go outside the lock.
class ApplicationManager
    : public zym::object::Ifaces<system_interceptors::application_manager_facade::IApplicationManager>,
      public zym::ServiceProvider<zym::IServiceLocator, zym::IAllocator, zym::ITracer>,
      public zym::NonCopyable {
 public:
  using ApplicationId = system_interceptors::application_manager::ApplicationId;
  using Priority = system_interceptors::application_manager::application_priority::Type;
  using IApplication = system_interceptors::application_manager_facade::IApplication;

  // Throws zym::GetInterfaceException without an allocator or a tracer.
  explicit ApplicationManager(zym::IServiceLocator* locator) : ServiceProvider(locator) {}

  zym::result_t CreateApplication(const ApplicationId& id, Priority priority,
                                  IApplication** application) override;
  zym::result_t DeleteApplication(const ApplicationId& id) override;
  zym::result_t OpenApplication(const ApplicationId& id, IApplication** application) override;

 private:
  std::mutex m_mutex;  // guards m_applications
  std::map<ApplicationId, zym::intrusive_ptr<Application>> m_applications;
};

}  // namespace qor::process_manager
