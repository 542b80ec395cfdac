#include "process_manager/interception/interceptor_settings_subscription.h"

#include <algorithm>
#include <utility>

#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

}  // namespace

InterceptorSettingsSubscription::InterceptorSettingsSubscription(
    const zym::intrusive_ptr<zym::ITracer>& tracer, const InterceptorSettings& settings)
    : TracerProvider(tracer, "InterceptorSettingsSubscription"), m_settings(settings) {}

void InterceptorSettingsSubscription::Notify(IInterceptorSettings* subscriber, const char* function) {
  const zym::result_t result = subscriber->OnInterceptorSettingsChanged(m_settings);
  if (!ZYM_SUCCEEDED(result))
    ZYM_TRACE(GetTracer(), zym::trace::kFailure,
              function << ": subscriber->OnInterceptorSettingsChanged(m_settings) "
                       << zym::trace::Code{result} << " Cannot update InterceptorSettings");
}

zym::result_t InterceptorSettingsSubscription::Subscribe(IInterceptorSettings* subscriber) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  const std::scoped_lock lock(m_mutex);
  if (std::ranges::find(m_subscribers, subscriber, &zym::objptr_t<IInterceptorSettings>::get) !=
      m_subscribers.end())
    return zym::ZYM_E_ALREADY_DONE;
  m_subscribers.emplace_back(subscriber);
  Notify(subscriber, __func__);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t InterceptorSettingsSubscription::Unsubscribe(IInterceptorSettings* subscriber) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  const std::scoped_lock lock(m_mutex);
  const auto found = std::ranges::find(m_subscribers, subscriber, &zym::objptr_t<IInterceptorSettings>::get);
  if (found == m_subscribers.end()) return zym::ZYM_E_NOT_FOUND;
  m_subscribers.erase(found);
  return zym::ZYM_OK;
}

zym::result_t InterceptorSettingsSubscription::SetSettings(const InterceptorSettings& settings) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  const std::scoped_lock lock(m_mutex);
  InterceptorSettings copy = settings;  // whole, before the old value goes
  std::swap(m_settings, copy);
  for (const zym::objptr_t<IInterceptorSettings>& subscriber : m_subscribers)
    Notify(subscriber.get(), __func__);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t InterceptorSettingsSubscription::GetSettings(InterceptorSettings& settings) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() ");
  const std::scoped_lock lock(m_mutex);
  settings = m_settings;
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::process_manager
