// Processes held still. Any thread.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Stops a process so that its memory can be read. Asked for by a ProcessMemoryFactory on kernels below 3.3
// only, whose /proc/<pid>/mem tells a stopped process alone.
struct IQorProcessSuspender : zym::IObject {
  static constexpr zym::iid_t kIid = 0xdd65aa6a;

  // Returns when the process is stopped, and keeps it so until ReleaseProcess, or Stop, undoes it. Suspended
  // twice, it is released by the second release. `timeout` in milliseconds; after that, ZYM_E_TIMEOUT, and on
  // any other failure, the process is as it was.
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
