// Memory that gives out when a test says so: for the host, for the module, and for the libraries of both.
//
// The test program's own malloc family stands in front of the C library's, and with it every allocation of
// the process passes here: operator new, the containers, the thread that pthread_create(3) makes, the buffer
// of opendir(3). A sanitizer has a malloc of its own that must stay; there only operator new is replaced.
#pragma once

#include <cstdint>

namespace test_support {

// The allocations of a stretch of the program, counted; one of them, or all from one on, find no memory. One
// at a time.
class HeapFaults {
 public:
  enum class Threads { kThis, kOthers };  // whose allocations count: this thread's, or all others'
  enum class Failing { kOnce, kFromThenOn };

  // `call`: the number of the first one that fails; 0 is the next.
  HeapFaults(Threads threads, Failing failing, std::uint64_t call);
  // Counts and never fails.
  explicit HeapFaults(Threads threads);
  ~HeapFaults() { End(); }
  HeapFaults(const HeapFaults&) = delete;
  HeapFaults& operator=(const HeapFaults&) = delete;

  // Memory is plenty again.
  void End();
  [[nodiscard]] std::uint64_t Calls() const;
  // Some allocation found no memory.
  [[nodiscard]] bool Fired() const;

  // Every allocation passes here, not operator new alone.
  static bool SeesAll();

  // Allocations of the whole process that are not freed. Always 0 under a sanitizer, which looks for leaks
  // itself.
  static std::int64_t Live();
};

// Work of the host, which the test doesn't mean: its allocations neither count nor fail.
class HostsOwnMemory {
 public:
  HostsOwnMemory();
  ~HostsOwnMemory();
  HostsOwnMemory(const HostsOwnMemory&) = delete;
  HostsOwnMemory& operator=(const HostsOwnMemory&) = delete;
};

}  // namespace test_support
