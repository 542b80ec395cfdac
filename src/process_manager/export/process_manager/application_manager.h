// Applications: components of the host that want events, by name (class id class_ids::kApplicationManager).
// On Linux an application is a named handle to the one interceptor that all share.
#pragma once

#include <cstdint>

#include "process_manager/interceptor.h"
#include "zym/iobject.h"

namespace system_interceptors {
namespace application_manager {

// Chosen by the host.
using ApplicationId = std::uint32_t;

namespace application_priority {

// The host's own order of its applications. The module doesn't keep it. Any number may be passed.
enum Type : std::uint32_t { kLow = 0, kNormal = 1, kHigh = 2 };

}  // namespace application_priority
}  // namespace application_manager

namespace application_manager_facade {

// Any thread.
struct IApplication : zym::IObject {
  static constexpr zym::iid_t kIid =
      zym::IidOf("system_interceptors::application_manager_facade::IApplication");

  // The interceptor that the host has put into its locator. Without one the result is the locator's code, and
  // `interceptor` is left alone.
  virtual zym::result_t GetInterceptor(interceptor_facade::IInterceptor** interceptor) = 0;

 protected:
  ~IApplication() = default;
};

// Any thread. On a failure `application` is left alone.
struct IApplicationManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x9a38dcf8;

  // Of callers that race for one id, one wins. ZYM_E_ALREADY_DONE: there is an application of this id, of
  // whatever priority; OpenApplication returns it.
  virtual zym::result_t CreateApplication(const application_manager::ApplicationId& id,
                                          application_manager::application_priority::Type priority,
                                          IApplication** application) = 0;
  // Existing references stay valid. ZYM_E_NOT_FOUND: there is no application of this id.
  virtual zym::result_t DeleteApplication(const application_manager::ApplicationId& id) = 0;
  // ZYM_E_NOT_FOUND: there is no application of this id.
  virtual zym::result_t OpenApplication(const application_manager::ApplicationId& id,
                                        IApplication** application) = 0;

 protected:
  ~IApplicationManager() = default;
};

}  // namespace application_manager_facade
}  // namespace system_interceptors
