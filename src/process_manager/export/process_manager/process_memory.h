// The memory of a process: its regions, and reads by address (class id
// class_ids::kProcessMemoryFactory).
//
// Regions come from a look at /proc/<pid>/maps when the object is made; reads go to the live process, by
// /proc/<pid>/mem. Both need the rights of ptrace(2) over the process (PTRACE_MODE_ATTACH_FSCREDS: its user,
// or CAP_SYS_PTRACE). Addresses are the process's own, ranges are [base, base + size).
#pragma once

#include <cstdint>

#include "process_manager/process_manager.h"
#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors::process_memory_manager {

enum MemoryRegionState : std::uint32_t { kRegionIsGap = 0, kRegionIsMapped = 3 };
enum MemoryRegionType : std::uint32_t { kNoRegionType = 0, kMappedRegionType = 1 };

// What may be done with a region. Linux's permissions are fitted in: a write permission without a read
// permission is "write copy", all three of a private mapping are "execute, write copy" and of a shared one
// "execute, read and write". A mapping with write and execute alone is "no access".
namespace protection {
inline constexpr std::uint32_t kNoAccess = 0x01;
inline constexpr std::uint32_t kReadOnly = 0x02;
inline constexpr std::uint32_t kReadWrite = 0x04;
inline constexpr std::uint32_t kWriteCopy = 0x08;
inline constexpr std::uint32_t kExecute = 0x10;
inline constexpr std::uint32_t kExecuteRead = 0x20;
inline constexpr std::uint32_t kExecuteReadWrite = 0x40;
inline constexpr std::uint32_t kExecuteWriteCopy = 0x80;
}  // namespace protection

struct ProcessMemoryRegionInformation {
  std::uint64_t baseAddress = 0;
  std::uint64_t allocationBase = 0;        // the same as baseAddress
  std::uint64_t size = 0;                  // bytes
  std::uint32_t protection = 0;            // one of the constants above; kNoAccess for a gap
  std::uint32_t allocationProtection = 0;  // the same as protection
  std::uint32_t state = kRegionIsGap;      // MemoryRegionState
  std::uint32_t type = kNoRegionType;      // MemoryRegionType
};

// A walk over the regions of one IProcessMemory, which it keeps alive. One caller at a time.
struct IProcessMemoryRegionEnumerator : zym::IObject {
  static constexpr zym::iid_t kIid = 0x24d84ebc;

  // The next region, by ascending address. ZYM_FALSE: there are no more; `information` is left alone.
  virtual zym::result_t Next(ProcessMemoryRegionInformation& information) = 0;
  // Begins again, over the same regions.
  virtual zym::result_t Reset() = 0;

 protected:
  ~IProcessMemoryRegionEnumerator() = default;
};

// Any thread. A process that was suspended for it (kernels below 3.3) goes on with the last release.
struct IProcessMemory : zym::IObject {
  static constexpr zym::iid_t kIid = 0xb3f8c301;

  virtual zym::result_t EnumerateMemoryRegions(IProcessMemoryRegionEnumerator** enumerator) = 0;

  // The first region that BEGINS at or above `address`: an address inside a region gets the region after it,
  // and a region itself is found by its exact base only. To walk, ask for 0, and then for base + size.
  // ZYM_E_INVALID_ARGUMENT: none begins there or above; `information` is left alone.
  virtual zym::result_t QueryRegion(std::uint64_t address, ProcessMemoryRegionInformation& information) = 0;

  // The file behind the region that QueryRegion has for `address`, as /proc/<pid>/maps names it; empty for a
  // region without one. ZYM_E_BAD_CAST: the path is no UTF-8.
  virtual zym::result_t QueryMappedFilePath(std::uint64_t address, zym::types::string16_t& path) const = 0;

  // Fills `range` with what the process has at `address`. ZYM_OK: all of it. ZYM_FALSE: a part, from its
  // beginning. ZYM_E_INVALID_ARGUMENT: the address is 0. ZYM_E_EXCEPTION_WITHOUT_RESULT, which is what a
  // range that can't be read in full usually ends with: the process is gone or may not be read, or something
  // in the range is not readable; the bytes before that are there. An empty range touches nothing.
  virtual zym::result_t ReadMemory(std::uint64_t address, const zym::types::blob_range_t& range) = 0;

  // ZYM_E_NOT_IMPLEMENTED, always.
  virtual zym::result_t WriteMemory(std::uint64_t address, const zym::types::const_blob_range_t& range) = 0;

 protected:
  ~IProcessMemory() = default;
};

// Any thread.
struct IProcessMemoryFactory : zym::IObject {
  static constexpr zym::iid_t kIid = 0x7203ba23;

  // Takes the regions of the process now, and keeps `control`. Needs procfs::IParser from the locator. On
  // failure `memory` is left alone.
  virtual zym::result_t Create(process_manager::IProcessControl* control, IProcessMemory** memory) = 0;

 protected:
  ~IProcessMemoryFactory() = default;
};

}  // namespace system_interceptors::process_memory_manager
