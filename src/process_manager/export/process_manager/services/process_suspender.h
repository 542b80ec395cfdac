// Suspender of processes, for reading their memory.
//
// Required by ProcessMemoryFactory on kernels below 3.3, whose /proc/<pid>/mem can be read of a stopped
// process only; not asked for on others. Called on the threads that make factories and memory objects, and
// read from them.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Any thread. A failure is the result of the operation that needed the service.
struct IQorProcessSuspender : zym::IObject {
  static constexpr zym::iid_t kIid = 0xdd65aa6a;

  // Returns when the process is stopped. It stays so until ReleaseProcess or Stop; suspended twice, it is
  // released by the second release. `timeout` in milliseconds. ZYM_E_TIMEOUT: it was not stopped within that
  // time. On every failure the process is as it was.
  virtual zym::result_t SuspendProcess(std::uint32_t pid, std::uint32_t timeout) = 0;
  virtual zym::result_t ReleaseProcess(std::uint32_t pid) = 0;
  // Reads a suspended process. ZYM_OK: all of `range` is filled; ZYM_FALSE: a part of it, from its beginning.
  virtual zym::result_t ReadMemory(std::uint32_t pid, std::uint64_t address,
                                   const zym::types::blob_range_t& range) = 0;
  // Each factory starts the service for its life, and stops it. The last stop releases every process.
  virtual zym::result_t Start() = 0;
  virtual zym::result_t Stop() = 0;

 protected:
  ~IQorProcessSuspender() = default;
};

}  // namespace qor
