#include "allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
constinit std::atomic<std::uint64_t> g_allocations{0};
}

std::uint64_t bench::Allocations() {
  return g_allocations.load(std::memory_order_relaxed);
}

void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
