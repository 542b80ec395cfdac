// The root of every interface, and the three interfaces by which objects are found, made and placed.
//
// An interface is an abstract struct with an id (kIid), operations in a fixed order, and a protected,
// non-virtual destructor: the order of declaration is the order of the slots that a host calls through, and
// an object is only ever ended by its own Release.
#pragma once

#include <cstdint>
#include <string_view>

#include "zym/hash.h"
#include "zym/result.h"

namespace zym {

using iid_t = std::uint32_t;

// Interface ids that the interfaces' authors left open: the hash of the interface's qualified name.
consteval iid_t IidOf(std::string_view qualifiedName) {
  return HashOf(qualifiedName);
}

struct NonCopyable {
  NonCopyable() = default;
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;

 protected:
  ~NonCopyable() = default;
};

struct IObject {
  static constexpr iid_t kIid = 0x00000000;

  // Both return the new count. At zero the object destroys itself. Any thread.
  virtual std::uint32_t AddRef() = 0;
  virtual std::uint32_t Release() = 0;

  // Gives the interface `iid` of this object with one more reference; id 0 gives the primary interface.
  // ZYM_E_NO_INTERFACE: the object has no such interface. Then an object made by a factory, and a factory,
  // write null to `out`; an object made by zymCreateObject or inside the module leaves `out` as it was.
  virtual result_t QueryInterface(iid_t iid, void** out) = 0;

 protected:
  ~IObject() = default;
};

// What the host offers, by interface id. Any thread.
struct IServiceLocator : IObject {
  // Gives the service with one more reference. `serviceKey` tells services of one interface apart; the
  // module always passes 0.
  virtual result_t GetInterface(iid_t iid, std::uint32_t serviceKey, void** out) = 0;

 protected:
  ~IServiceLocator() = default;
};

struct IObjectFactory : IObject {
  static constexpr iid_t kIid = 0x80077a33;

  // Makes an object with memory from the locator's allocator, and gives its interface `iid`.
  virtual result_t CreateInstance(IServiceLocator* locator, iid_t iid, void** out) = 0;

 protected:
  ~IObjectFactory() = default;
};

// The host's memory. Any thread. `Reallocate` is not called by the module; it holds the slot between the two
// that are.
struct IAllocator : IObject {
  static constexpr iid_t kIid = 0x9cca5603;

  // At least `size` bytes aligned for any object, or null when there are none.
  virtual void* Alloc(std::uint64_t size) = 0;
  virtual void* Reallocate(void* p, std::uint64_t size) = 0;
  virtual void Free(void* p) = 0;

 protected:
  ~IAllocator() = default;
};

// Work for a thread that somebody else owns.
struct IRunnable : IObject {
  static constexpr iid_t kIid = 0xe8305a5d;

  virtual void Run() = 0;

 protected:
  ~IRunnable() = default;
};

}  // namespace zym
