// How a class becomes an object: the interface list that it inherits, and the three templates that alone know
// about memory, the reference count and the module object counter.
//
//   zym::Object<T, LocatorObjectFactory>      made by a factory, memory from the host's allocator
//   zym::Object<F, SimpleObjectFactory>       a factory itself, from the ordinary heap
//   zym::detail::ObjectImpl<T, ...>           made inside the module or by zymCreateObject, from malloc
//
// A class T names its interfaces with object::Ifaces<...>, leaves IObject's operations alone, and may declare
// FinalConstruct (result_t, no argument) and FinalRelease, which undoes it.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

#include "zym/intrusive_ptr.h"
#include "zym/iobject.h"
#include "zym/module_counter.h"

namespace zym {
namespace object {
namespace detail {

// Another interface of the list extends I on the same pointer, so that I needs no base of its own.
template <class I, class... All>
inline constexpr bool kExtendedByAnother = ((!std::is_same_v<I, All> && std::is_base_of_v<I, All>) || ...);

template <class I>
struct NoBase {};

template <class First, class...>
struct FirstOf {
  using type = First;
};

}  // namespace detail

// The interface list of a class. It is the interface table too: the search folds over the list in its order.
template <class... Is>
struct Ifaces : std::conditional_t<detail::kExtendedByAnother<Is, Is...>, detail::NoBase<Is>, Is>... {
  std::uint32_t AddRef() override = 0;
  std::uint32_t Release() override = 0;
  result_t QueryInterface(iid_t iid, void** out) override = 0;

  // The pointer for `iid`, with no reference added; null if the class has no such interface.
  void* FindInterface(iid_t iid) noexcept {
    if (iid == IObject::kIid) return static_cast<typename detail::FirstOf<Is...>::type*>(this);
    void* found = nullptr;
    static_cast<void>(((Is::kIid == iid && (found = static_cast<Is*>(this), true)) || ...));
    return found;
  }

 protected:
  ~Ifaces() = default;
};

template <>
struct Ifaces<> : IObject {
  void* FindInterface(iid_t iid) noexcept { return iid == IObject::kIid ? this : nullptr; }

 protected:
  ~Ifaces() = default;
};

}  // namespace object

// The strategies of the object templates. They have no content, nor have the two tags below: they are there
// for the names of the types, which symbols, debuggers and __PRETTY_FUNCTION__ show.
struct LocatorObjectFactory;
struct SimpleObjectFactory;
struct NoServiceStrategy {};
class abi_v2_allocator;  // says that the memory comes from malloc

namespace detail {

struct ObjectLifetimeBase;  // says that the object is counted by the module and by its references

class RefCounter {
 public:
  std::uint32_t Increment() noexcept { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Decrement() noexcept { return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1; }

 private:
  std::atomic<std::uint32_t> m_count{1};
};

template <class T>
concept HasFinalConstruct = requires(T& t) {
  { t.FinalConstruct() } -> std::same_as<result_t>;
};

template <class T>
concept HasFinalRelease = requires(T& t) {
  t.FinalRelease();
};

// Finds `iid` in `object` and adds a reference to what it gives.
template <class T>
result_t QueryInterfaceOf(T& object, iid_t iid, void** out) noexcept {
  void* const found = object.FindInterface(iid);
  if (found == nullptr) return ZYM_E_NO_INTERFACE;
  object.AddRef();
  *out = found;
  return ZYM_OK;
}

// Bases from first to last, as with multiple inheritance by hand: the last is destroyed first.
template <class T, class Allocator, class Lifetime>
class ObjectImpl final : private ObjectModuleAutoLockTyped<T>, public T, private RefCounter {
 public:
  template <class... Args>
  explicit ObjectImpl(Args&&... args) : T(std::forward<Args>(args)...) {}

  std::uint32_t AddRef() noexcept override { return Increment(); }

  std::uint32_t Release() noexcept override {
    const std::uint32_t count = Decrement();
    if (count != 0) return count;
    if constexpr (HasFinalRelease<T>) this->FinalRelease();
    delete this;
    return 0;
  }

  // An unknown interface leaves `out` as it was.
  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    return QueryInterfaceOf(*this, iid, out);
  }

  static void* operator new(std::size_t size) {
    void* const memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
  static void operator delete(void* memory) noexcept { std::free(memory); }

 private:
  ~ObjectImpl() = default;
};

}  // namespace detail

template <class T, class Strategy>
class Object;

// Made from a locator and what else T asks for. Keeps the allocator, so that it can free itself after its own
// destructor has run.
template <class T>
class Object<T, LocatorObjectFactory> final : private ObjectModuleAutoLockTyped<T>,
                                              public T,
                                              private detail::RefCounter {
 public:
  template <class... Args>
  Object(IServiceLocator* locator, IAllocator* allocator, Args&&... args)
      : T(locator, std::forward<Args>(args)...), m_allocator(allocator) {}

  std::uint32_t AddRef() noexcept override { return Increment(); }

  std::uint32_t Release() noexcept override {
    const std::uint32_t count = Decrement();
    if (count != 0) return count;
    const intrusive_ptr<IAllocator> allocator = m_allocator;
    if constexpr (detail::HasFinalRelease<T>) this->FinalRelease();
    this->~Object();
    allocator->Free(this);
    return 0;
  }

  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    *out = nullptr;
    return detail::QueryInterfaceOf(*this, iid, out);
  }

  static void* operator new(std::size_t size, IAllocator* allocator) {
    void* const memory = allocator->Alloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
  // Called when the constructor throws.
  static void operator delete(void* memory, IAllocator* allocator) noexcept { allocator->Free(memory); }

 private:
  ~Object() = default;

  intrusive_ptr<IAllocator> m_allocator;
};

// A factory.
template <class Factory>
class Object<Factory, SimpleObjectFactory> final : private ObjectModuleAutoLockTyped<Factory>,
                                                   public Factory,
                                                   private detail::RefCounter {
 public:
  Object() = default;

  std::uint32_t AddRef() noexcept override { return Increment(); }

  std::uint32_t Release() noexcept override {
    const std::uint32_t count = Decrement();
    if (count == 0) delete this;
    return count;
  }

  result_t QueryInterface(iid_t iid, void** out) noexcept override {
    *out = nullptr;
    return detail::QueryInterfaceOf(*this, iid, out);
  }

 private:
  ~Object() = default;
};

// Makes an internal object. Throws what the constructor throws, or std::bad_alloc.
template <class T, class... Args>
[[nodiscard]] intrusive_ptr<T> CreateObject(Args&&... args) {
  using Impl = detail::ObjectImpl<T, abi_v2_allocator, detail::ObjectLifetimeBase>;
  return intrusive_ptr<T>::Attach(new Impl(std::forward<Args>(args)...));
}

}  // namespace zym
