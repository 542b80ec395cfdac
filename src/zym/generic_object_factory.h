// The factory of a class: makes host-allocated objects of it.
#pragma once

#include "zym/exception_to_result.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace zym {

inline constexpr std::string_view kConstructionPrefix = "Exception during object construction: ";

// A root of an object that takes its services from somewhere, or from nowhere.
template <class Strategy>
class ObjectRootEx : private Strategy {};

// Translates the exception in flight with the locator's tracer, if it has one.
inline result_t ConstructionExceptionToResult(IServiceLocator* locator, std::string_view prefix) noexcept {
  intrusive_ptr<ITracer> tracer;
  if (locator != nullptr) static_cast<void>(GetInterface(locator, tracer.Ref()));
  return ExceptionToResult(tracer.get(), prefix);
}

template <class T, class Instance>
class GenericObjectFactory : public ObjectRootEx<NoServiceStrategy>, public object::Ifaces<IObjectFactory> {
 public:
  result_t CreateInstance(IServiceLocator* locator, iid_t iid, void** out) override try {
    intrusive_ptr<IAllocator> allocator;
    if (const result_t result = GetInterface(locator, allocator.Ref()); !ZYM_SUCCEEDED(result)) return result;
    auto* const object = new (allocator.get()) Instance(locator, allocator.get());
    const auto creationReference = intrusive_ptr<Instance>::Attach(object);
    if constexpr (detail::HasFinalConstruct<T>) {
      if (const result_t result = object->FinalConstruct(); !ZYM_SUCCEEDED(result)) return result;
    }
    return object->QueryInterface(iid, out);
  } catch (...) {
    return ConstructionExceptionToResult(locator, kConstructionPrefix);
  }
};

template <class T>
using Factory = Object<GenericObjectFactory<T, Object<T, LocatorObjectFactory>>, SimpleObjectFactory>;

}  // namespace zym
