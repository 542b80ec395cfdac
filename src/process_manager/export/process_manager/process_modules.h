// The code that is loaded in a process (class id class_ids::kProcessModuleManager).
//
// The system keeps no list of loaded modules, so a module is a mapping that may be executed: a library that
// is mapped executable twice counts twice. Needs procfs::IParser from the locator, and the rights of
// ptrace(2) to read (PTRACE_MODE_READ_FSCREDS: the process's user, or CAP_SYS_PTRACE).
#pragma once

#include <cstdint>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace system_interceptors::process_manager {

struct ProcessModuleInformation {
  zym::types::string16_t imagePath;  // as /proc/<pid>/maps names it; empty for memory without a file
  std::uint64_t baseAddress = 0;
  std::uint64_t size = 0;  // bytes
};

// What was known of one module when the object was made; it outlives its enumerator and its process. Any
// thread. ZYM_E_BAD_CAST: the path is no UTF-8; what was to be filled is left alone.
struct IProcessModule : zym::IObject {
  static constexpr zym::iid_t kIid = 0x3557339b;

  virtual zym::result_t GetImagePath(zym::types::string16_t& path) const = 0;
  virtual zym::result_t GetBaseAddress(std::uint64_t& address) const = 0;
  virtual zym::result_t GetSize(std::uint64_t& size) const = 0;
  virtual zym::result_t GetInformation(ProcessModuleInformation& information) const = 0;

 protected:
  ~IProcessModule() = default;
};

// The modules as they were when it was made, by ascending address. One caller at a time.
struct IProcessModuleEnumerator : zym::IObject {
  static constexpr zym::iid_t kIid = 0xdd01a982;

  // ZYM_FALSE: there are no more; `module` is left alone.
  virtual zym::result_t Next(IProcessModule** module) = 0;
  // Begins again, with the same modules.
  virtual zym::result_t Reset() = 0;

 protected:
  ~IProcessModuleEnumerator() = default;
};

// Any thread. On failure the out-parameter is left alone.
struct IProcessModuleManager : zym::IObject {
  static constexpr zym::iid_t kIid = 0x177e50a8;

  // Every mapping with the permission to execute, but for those that may be written and not read: their
  // protection is "no access". ZYM_E_UNSPECIFIED: the process is gone or may not be looked at. Pid 0, the
  // kernel: ZYM_E_NOT_SUPPORTED.
  virtual zym::result_t EnumerateModules(qor::PidType pid, IProcessModuleEnumerator** enumerator) = 0;

  // The mapping that begins exactly at `address`, executable or not. ZYM_E_OUT_OF_RANGE: none does.
  virtual zym::result_t GetModule(qor::PidType pid, const std::uint64_t& address,
                                  IProcessModule** module) = 0;

 protected:
  ~IProcessModuleManager() = default;
};

}  // namespace system_interceptors::process_manager
