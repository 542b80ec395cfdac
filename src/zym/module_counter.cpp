#include "zym/module_counter.h"

#include <atomic>

namespace zym {
namespace {
constinit std::atomic<std::int32_t> g_objects{0};
}  // namespace

void ModuleObjectCounter::Increment() noexcept {
  g_objects.fetch_add(1, std::memory_order_relaxed);
}

// Released and acquired: whoever sees 0 sees the end of every object, and may unload the code.
void ModuleObjectCounter::Decrement() noexcept {
  g_objects.fetch_sub(1, std::memory_order_acq_rel);
}

std::int32_t ModuleObjectCounter::Value() noexcept {
  return g_objects.load(std::memory_order_acquire);
}

}  // namespace zym
