#include "module/heap_faults.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TEST_HEAP_IS_A_SANITIZERS 1
#else
#define TEST_HEAP_IS_A_SANITIZERS 0
#endif

namespace test_support {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

// Constant-initialised: allocations come before the first constructor runs.
constinit std::atomic<bool> g_armed{false};
constinit std::atomic<bool> g_thisThread{true};
constinit std::atomic<bool> g_once{true};
constinit std::atomic<std::uint64_t> g_first{kNever};
constinit std::atomic<std::uint64_t> g_calls{0};
constinit std::atomic<bool> g_fired{false};
constinit std::atomic<pthread_t> g_thread{};
constinit std::atomic<std::int64_t> g_live{0};
constinit thread_local int t_hosts = 0;

bool ShallFail() {
  if (!g_armed.load(std::memory_order_relaxed) || t_hosts != 0) return false;
  if ((pthread_equal(pthread_self(), g_thread) != 0) != g_thisThread) return false;
  const std::uint64_t call = g_calls++;
  const bool fails = g_once ? call == g_first : call >= g_first;
  if (fails) g_fired = true;
  return fails;
}

}  // namespace

HeapFaults::HeapFaults(Threads threads, Failing failing, std::uint64_t call) {
  g_thread = pthread_self();
  g_thisThread = threads == Threads::kThis;
  g_once = failing == Failing::kOnce;
  g_first = call;
  g_calls = 0;
  g_fired = false;
  g_armed = true;
}

HeapFaults::HeapFaults(Threads threads) : HeapFaults(threads, Failing::kOnce, kNever) {}

void HeapFaults::End() {
  g_armed = false;
}

std::uint64_t HeapFaults::Calls() const {
  return g_calls;
}

bool HeapFaults::Fired() const {
  return g_fired;
}

bool HeapFaults::SeesAll() {
  return TEST_HEAP_IS_A_SANITIZERS == 0;
}

std::int64_t HeapFaults::Live() {
  return g_live;
}

HostsOwnMemory::HostsOwnMemory() {
  ++t_hosts;
}

HostsOwnMemory::~HostsOwnMemory() {
  --t_hosts;
}

}  // namespace test_support

#define TEST_EXPORT __attribute__((visibility("default"), noinline))

#if TEST_HEAP_IS_A_SANITIZERS

namespace {

void* New(std::size_t size) {
  void* const memory = test_support::ShallFail() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* NewAligned(std::size_t size, std::align_val_t alignment) {
  const auto boundary = static_cast<std::size_t>(alignment);
  const std::size_t rounded = (size + boundary - 1) / boundary * boundary;
  void* const memory = test_support::ShallFail() ? nullptr : std::aligned_alloc(boundary, rounded);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

TEST_EXPORT void* operator new(std::size_t size) {
  return New(size);
}
TEST_EXPORT void* operator new[](std::size_t size) {
  return New(size);
}
TEST_EXPORT void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return test_support::ShallFail() ? nullptr : std::malloc(size);
}
TEST_EXPORT void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return test_support::ShallFail() ? nullptr : std::malloc(size);
}
TEST_EXPORT void* operator new(std::size_t size, std::align_val_t alignment) {
  return NewAligned(size, alignment);
}
TEST_EXPORT void* operator new[](std::size_t size, std::align_val_t alignment) {
  return NewAligned(size, alignment);
}
TEST_EXPORT void operator delete(void* memory) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete[](void* memory) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete[](void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
TEST_EXPORT void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

#else

// The C library keeps its own family under these names for those who replace it, malloc(3) "Replacing
// malloc" in its manual.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);

TEST_EXPORT void* malloc(std::size_t size);
TEST_EXPORT void* calloc(std::size_t count, std::size_t size);
TEST_EXPORT void* realloc(void* memory, std::size_t size);
TEST_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size);
TEST_EXPORT void* memalign(std::size_t alignment, std::size_t size);
TEST_EXPORT int posix_memalign(void** memory, std::size_t alignment, std::size_t size);
TEST_EXPORT void free(void* memory);
}

namespace {

template <class Allocate>
void* Give(Allocate allocate) {
  void* const memory = test_support::ShallFail() ? nullptr : allocate();
  if (memory == nullptr)
    errno = ENOMEM;
  else
    test_support::g_live.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

}  // namespace

void* malloc(std::size_t size) {
  return Give([&] { return __libc_malloc(size); });
}

void* calloc(std::size_t count, std::size_t size) {
  return Give([&] { return __libc_calloc(count, size); });
}

void* realloc(void* memory, std::size_t size) {
  if (memory == nullptr) return malloc(size);
  if (size == 0) {
    free(memory);
    return nullptr;
  }
  if (!test_support::ShallFail()) return __libc_realloc(memory, size);
  errno = ENOMEM;
  return nullptr;
}

void* memalign(std::size_t alignment, std::size_t size) {
  return Give([&] { return __libc_memalign(alignment, size); });
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  void* const found = memalign(alignment, size);
  if (found == nullptr) return ENOMEM;
  *memory = found;
  return 0;
}

void free(void* memory) {
  if (memory == nullptr) return;
  test_support::g_live.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(memory);
}

#endif
