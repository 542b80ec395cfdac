// How a class gets at what it doesn't own: services from the locator, and a tracer of its own.
#pragma once

#include <string_view>

#include "zym/ceiling_tracer.h"
#include "zym/exception.h"
#include "zym/intrusive_ptr.h"
#include "zym/iobject.h"
#include "zym/prefix_tracer.h"
#include "zym/tracer.h"

namespace zym {

// Asks the locator for the interface of a smart pointer: zym::GetInterface(locator, x.Ref()).
template <class I>
result_t GetInterface(IServiceLocator* locator, I** out) {
  void* found = nullptr;
  const result_t result = locator->GetInterface(I::kIid, 0, &found);
  if (ZYM_SUCCEEDED(result)) *out = static_cast<I*>(found);
  return ZYM_SUCCEEDED(result) && found == nullptr ? ZYM_E_NO_INTERFACE : result;
}

// Asks an object for another of its interfaces.
template <class I, class J>
result_t QueryInterface(const intrusive_ptr<J>& object, I** out) {
  void* found = nullptr;
  const result_t result = object->QueryInterface(I::kIid, &found);
  if (ZYM_SUCCEEDED(result)) *out = static_cast<I*>(found);
  return result;
}

// Asks a factory for an object with the interface of a smart pointer:
// zym::CreateInstance(factory, locator, x.Ref()). On failure `*out` is as it was.
template <class I>
result_t CreateInstance(IObjectFactory* factory, IServiceLocator* locator, I** out) {
  void* made = nullptr;
  const result_t result = factory->CreateInstance(locator, I::kIid, &made);
  if (ZYM_SUCCEEDED(result)) *out = static_cast<I*>(made);
  return result;
}

// The interface, or zym::GetInterfaceException.
template <class I>
[[nodiscard]] intrusive_ptr<I> RequireInterface(IServiceLocator* locator) {
  intrusive_ptr<I> service;
  const result_t result = GetInterface(locator, service.Ref());
  if (!ZYM_SUCCEEDED(result)) throw GetInterfaceException(__FILE__, __LINE__, I::kIid, 0, result);
  return service;
}

namespace detail {

// Holds a service that the object can't do without: construction throws when it is missing.
template <class I>
class RequiredInterfaceHolder {
 protected:
  explicit RequiredInterfaceHolder(IServiceLocator* locator) : m_service(RequireInterface<I>(locator)) {}
  explicit RequiredInterfaceHolder(intrusive_ptr<I> service) : m_service(std::move(service)) {}
  ~RequiredInterfaceHolder() = default;

  [[nodiscard]] const intrusive_ptr<I>& Get() const noexcept { return m_service; }

 private:
  intrusive_ptr<I> m_service;
};

}  // namespace detail

// Gives a class the service I; two services of one class are told apart by their interface.
template <class I, class Holder = detail::RequiredInterfaceHolder<I>>
class InterfaceProvider : private Holder {
 public:
  [[nodiscard]] const intrusive_ptr<I>& Service() const noexcept { return Holder::Get(); }

 protected:
  using Holder::Holder;
  ~InterfaceProvider() = default;
};

// A tracer goes by its usual name too. The locator's is kept behind its ceiling; one that is given has been
// put there by whoever gives it.
template <>
class InterfaceProvider<ITracer> : private detail::RequiredInterfaceHolder<ITracer> {
 public:
  [[nodiscard]] const intrusive_ptr<ITracer>& Service() const noexcept { return Get(); }
  [[nodiscard]] ITracer* GetTracer() const noexcept { return Get().get(); }

 protected:
  explicit InterfaceProvider(IServiceLocator* locator)
      : RequiredInterfaceHolder(trace::WithCeiling(RequireInterface<ITracer>(locator))) {}
  explicit InterfaceProvider(intrusive_ptr<ITracer> tracer) : RequiredInterfaceHolder(std::move(tracer)) {}
  ~InterfaceProvider() = default;
};

// Keeps the locator.
class ServiceLocatorProvider {
 public:
  [[nodiscard]] IServiceLocator* GetServiceLocator() const noexcept { return m_locator.get(); }

 protected:
  explicit ServiceLocatorProvider(IServiceLocator* locator) : m_locator(locator) {}
  ~ServiceLocatorProvider() = default;

 private:
  intrusive_ptr<IServiceLocator> m_locator;
};

// Keeps a tracer, for a class of the given name, which becomes the prefix of its records.
class TracerProvider {
 public:
  [[nodiscard]] ITracer* GetTracer() const noexcept { return m_tracer.get(); }

 protected:
  TracerProvider(IServiceLocator* locator, std::string_view name)
      : TracerProvider(RequireInterface<ITracer>(locator), name) {}
  TracerProvider(const intrusive_ptr<ITracer>& tracer, std::string_view name)
      : m_tracer(trace::WithPrefix(tracer, name)) {}
  ~TracerProvider() = default;

 private:
  intrusive_ptr<ITracer> m_tracer;
};

// Keeps the locator and the services Is, each required. The tracer among them has no prefix.
template <class Locator, class... Is>
class ServiceProvider : public ServiceLocatorProvider, public InterfaceProvider<Is>... {
 protected:
  explicit ServiceProvider(IServiceLocator* locator)
      : ServiceLocatorProvider(locator), InterfaceProvider<Is>(locator)... {}
  ~ServiceProvider() = default;
};

}  // namespace zym
