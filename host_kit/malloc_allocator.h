// Memory for the module's objects, from the C library.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "zym/object.h"

namespace host_kit {

// Any thread.
class MallocAllocator : public zym::object::Ifaces<zym::IAllocator> {
 public:
  void* Alloc(std::uint64_t size) override { return std::malloc(size); }
  void* Reallocate(void* p, std::uint64_t size) override { return std::realloc(p, size); }
  void Free(void* p) override { std::free(p); }
};

}  // namespace host_kit
