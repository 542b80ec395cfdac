// The module object counter: how many objects this binary has alive. The framework is a static library, so
// the module and its host each have a counter of their own.
#pragma once

#include <cstdint>

namespace zym {

class ModuleObjectCounter {
 public:
  static void Increment() noexcept;
  static void Decrement() noexcept;
  static std::int32_t Value() noexcept;
};

// Counts the object that it is a base of. It is the first base of every object, so it outlives all other
// parts, and a constructor that throws puts the counter back.
template <class T>
class ObjectModuleAutoLockTyped {
 protected:
  ObjectModuleAutoLockTyped() noexcept { ModuleObjectCounter::Increment(); }
  ~ObjectModuleAutoLockTyped() { ModuleObjectCounter::Decrement(); }
  ObjectModuleAutoLockTyped(const ObjectModuleAutoLockTyped&) = delete;
  ObjectModuleAutoLockTyped& operator=(const ObjectModuleAutoLockTyped&) = delete;
};

}  // namespace zym
