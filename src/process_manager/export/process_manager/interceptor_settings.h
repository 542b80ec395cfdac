// Settings that the host may change while the permission path runs (class id
// class_ids::kInterceptorSettingsSubscription). One object holds the value for the host, and reports each
// change to the subscribers.
#pragma once

#include "process_manager/types.h"
#include "zym/iobject.h"

namespace qor::process_manager {

struct InterceptorSettings {
  // Mount patterns that the permission path leaves alone; they go unchanged to the host's mount matcher.
  zym::types::vector_t<NativePath> excluded;
};

// Subscriber. Called on the thread of Subscribe or SetSettings, with the subscription's mutex held: it must
// not call back. A failure is traced; the subscriber is called again at the next change.
struct IInterceptorSettings : zym::IObject {
  static constexpr zym::iid_t kIid = 0x4f299e8f;

  virtual zym::result_t OnInterceptorSettingsChanged(const InterceptorSettings& settings) = 0;

 protected:
  ~IInterceptorSettings() = default;
};

// Any thread. A subscriber is kept alive until it is unsubscribed.
struct IInterceptorSettingsSubscription : zym::IObject {
  static constexpr zym::iid_t kIid = 0x90a67124;

  // Calls the subscriber at once with the current value, whatever it returns. ZYM_E_ALREADY_DONE: it is
  // subscribed.
  virtual zym::result_t Subscribe(IInterceptorSettings* subscriber) = 0;
  // ZYM_E_NOT_FOUND: it is not subscribed.
  virtual zym::result_t Unsubscribe(IInterceptorSettings* subscriber) = 0;

 protected:
  ~IInterceptorSettingsSubscription() = default;
};

// Side of the host. Any thread.
struct IInterceptorSettingsHolder : zym::IObject {
  static constexpr zym::iid_t kIid = 0xf62878be;

  // Keeps a copy, and calls every subscriber in the order of subscription. Whatever a subscriber returns, the
  // value stays and the result is ZYM_OK. When there is no memory for the copy, the old value stays.
  virtual zym::result_t SetSettings(const InterceptorSettings& settings) = 0;
  virtual zym::result_t GetSettings(InterceptorSettings& settings) = 0;

 protected:
  ~IInterceptorSettingsHolder() = default;
};

}  // namespace qor::process_manager
