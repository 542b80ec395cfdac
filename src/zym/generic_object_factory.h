// The factory of a class: makes host-allocated objects of it.
#pragma once

#include "zym/exception_to_result.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace zym {

inline constexpr std::string_view kConstructionPrefix = "Exception during object construction: ";

// Says, in the name of a factory's type, where the object takes its services from: a factory from nowhere. It
// has no content.
template <class Strategy>
class ObjectRootEx : private Strategy {};

// Translates the exception in flight with the locator's tracer, if it has one that takes a failure.
inline result_t ConstructionExceptionToResult(IServiceLocator* locator, std::string_view prefix) noexcept {
  intrusive_ptr<ITracer> tracer;
  if (locator != nullptr) static_cast<void>(GetInterface(locator, tracer.Ref()));
  if (trace::kFailure > *trace::CeilingOf(tracer.get())) tracer.Reset();
  return ExceptionToResult(tracer.get(), prefix);
}

namespace detail {

template <class T, class Instance, class... Args>
result_t CreateHostAllocated(IServiceLocator* locator, T** out, Args&&... args) try {
  intrusive_ptr<IAllocator> allocator;
  if (const result_t result = GetInterface(locator, allocator.Ref()); !ZYM_SUCCEEDED(result)) return result;
  auto object = intrusive_ptr<T>::Attach(new (allocator.get())
                                             Instance(locator, allocator.get(), std::forward<Args>(args)...));
  if constexpr (HasFinalConstruct<T>) {
    if (const result_t result = object->FinalConstruct(); !ZYM_SUCCEEDED(result)) return result;
  }
  *out = object.Detach();
  return ZYM_OK;
} catch (...) {
  return ConstructionExceptionToResult(locator, kConstructionPrefix);
}

}  // namespace detail

// Makes a host-allocated object of the class of a smart pointer, as a factory does, for an owner within the
// module: zym::CreateInstance(locator, x.Ref()). `args` are what the class is made of beside the locator. On
// failure, which is traced, `*out` is as it was.
template <class T, class... Args>
result_t CreateInstance(IServiceLocator* locator, T** out, Args&&... args) {
  return detail::CreateHostAllocated<T, Object<T, LocatorObjectFactory>>(locator, out,
                                                                         std::forward<Args>(args)...);
}

template <class T, class Instance>
class GenericObjectFactory : public ObjectRootEx<NoServiceStrategy>, public object::Ifaces<IObjectFactory> {
 public:
  result_t CreateInstance(IServiceLocator* locator, iid_t iid, void** out) override {
    intrusive_ptr<T> object;
    if (const result_t result = detail::CreateHostAllocated<T, Instance>(locator, object.Ref());
        !ZYM_SUCCEEDED(result))
      return result;
    return object->QueryInterface(iid, out);
  }

 protected:
  ~GenericObjectFactory() = default;
};

template <class T>
using Factory = Object<GenericObjectFactory<T, Object<T, LocatorObjectFactory>>, SimpleObjectFactory>;

}  // namespace zym
