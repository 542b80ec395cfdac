// Holder of the settings that may change while the module runs. It reports each change to every subscriber.
#pragma once

#include <mutex>
#include <vector>

#include "process_manager/interceptor_settings.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Every operation runs under the one mutex, the subscribers' calls included: two changes reach all of them in
// one order, and a subscriber must not call back.
class InterceptorSettingsSubscription
    : public zym::object::Ifaces<IInterceptorSettingsSubscription, IInterceptorSettingsHolder>,
      public zym::TracerProvider,
      public zym::NonCopyable {
 public:
  InterceptorSettingsSubscription(const zym::intrusive_ptr<zym::ITracer>& tracer,
                                  const InterceptorSettings& settings);

  zym::result_t Subscribe(IInterceptorSettings* subscriber) override;
  zym::result_t Unsubscribe(IInterceptorSettings* subscriber) override;
  zym::result_t SetSettings(const InterceptorSettings& settings) override;
  zym::result_t GetSettings(InterceptorSettings& settings) override;

 private:
  // Traces a subscriber's refusal, which changes nothing: it isn't asked again until the next change.
  void Notify(IInterceptorSettings* subscriber, const char* function);

  std::mutex m_mutex;  // guards all below
  InterceptorSettings m_settings;
  std::vector<zym::objptr_t<IInterceptorSettings>> m_subscribers;  // in the order of subscription
};

}  // namespace qor::process_manager
