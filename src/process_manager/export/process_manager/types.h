// Types and constants that all interfaces of the module share.
#pragma once

#include <cstdint>
#include <string>

#include "zym/containers.h"
#include "zym/datetime.h"
#include "zym/iobject.h"

namespace qor {

using NativePath = std::string;  // a path as the kernel has it: bytes without a NUL, not always UTF-8
using PidType = std::uint32_t;   // a process id (the kernel's tgid)

// One image of one pid, across a reuse of the pid and a restart of the module. Bits 63 to 32: seconds since
// 1970; bits 31 to 23: a counter of all images; bits 22 to 0: the pid (Linux has at most 2^22 of them).
//
// Two images share a value in two cases only:
//   - one pid got both in the same second, by a clock that may be set back, and the counter was the same, as
//     after 512 images or in another run of the module, which begins it at random;
//   - the kernel reused the pid before the end of its former owner was handled.
// One image has two values when the cache has evicted it and met it again.
using UniquePidType = std::uint64_t;

inline constexpr PidType kNoPid = 0xffffffff;
inline constexpr UniquePidType kNoUniquePid = 0xffffffffffffffff;
inline constexpr std::uint64_t kNoMountNamespace = 0xffffffffffffffff;

inline constexpr PidType PidOf(UniquePidType uniquePid) {
  return static_cast<PidType>(uniquePid & 0x7fffff);
}

// There is no state 2.
enum ProcessState : std::uint32_t { kStarting = 0, kCreated = 1, kTerminated = 3 };

// Bits.
enum ProcessFlags : std::uint32_t {
  kSystemProcess = 1,    // the kernel, or a thread of it
  kNoBackingImage = 16,  // the file that runs has no name any more, or there never was one
};

}  // namespace qor
