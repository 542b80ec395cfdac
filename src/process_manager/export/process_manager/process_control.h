// The control of one process: signals, times and counters.
#pragma once

#include <cstdint>

#include "process_manager/process_information.h"
#include "zym/datetime.h"
#include "zym/iobject.h"

namespace system_interceptors::process_manager {

// Processor time, in units of 100 nanoseconds; cut to whole seconds.
struct ProcessTimes {
  std::uint64_t kernelTime = 0;
  std::uint64_t userTime = 0;
};

// What a process has read and written so far, proc(5), /proc/<pid>/io. Linux counts nothing else: the other
// two are 0.
struct ProcessIoCounters {
  std::uint64_t readOperations = 0;   // syscr
  std::uint64_t writeOperations = 0;  // syscw
  std::uint64_t otherOperations = 0;
  std::uint64_t readBytes = 0;   // rchar
  std::uint64_t writeBytes = 0;  // wchar
  std::uint64_t otherBytes = 0;
};

// Of Windows processes; nothing fills it here.
struct ProcessVmCounters;

// Acts on one process, which it knows by its pid alone: once the process is gone and its pid given again, it
// acts on the new owner, of which GetInformation knows nothing. Any thread. QueryInterface answers
// IProcessAttributes.
//
// Result codes: those of procfs::IParser for what is read; the errno of kill(2) by ErrnoToResult for signals:
// 0x80060003 (ESRCH), there is no such process; ZYM_E_ACCESS_DENIED, the right (CAP_KILL) is missing.
struct IProcessControl : zym::IObject {
  static constexpr zym::iid_t kIid = zym::IidOf("system_interceptors::process_manager::IProcessControl");

  // What was known of the process when the control was made: the same object at each call.
  virtual zym::result_t GetInformation(IProcessInformation** information) = 0;
  // ZYM_E_NOT_IMPLEMENTED.
  virtual zym::result_t GetExitTime(zym::datetime_t& time) = 0;
  // Of the kernel: 0.
  virtual zym::result_t GetTimes(ProcessTimes& times) = 0;
  // Of the kernel: 0.
  virtual zym::result_t GetIoCounters(ProcessIoCounters& counters) = 0;
  // ZYM_E_NOT_IMPLEMENTED.
  virtual zym::result_t GetVmCounters(ProcessVmCounters& counters) = 0;
  // ZYM_E_NOT_IMPLEMENTED.
  virtual zym::result_t IsSystemCriticalProcess(bool& critical) = 0;
  // Asks the process to end (SIGTERM), and doesn't wait. ZYM_E_INVALID_ARGUMENT: it is the kernel.
  virtual zym::result_t Terminate() = 0;
  // Asks the process to end and blocks until its directory in /proc is gone, which it is when its parent has
  // collected it; after about `timeout` milliseconds, in steps of 10, sends SIGKILL and doesn't wait any
  // more. ZYM_OK: the process is gone, or SIGKILL was sent.
  virtual zym::result_t TerminateAndWait(unsigned timeout) = 0;

 protected:
  ~IProcessControl() = default;
};

// Bits.
enum ProcessAttributeFlags : std::uint32_t {
  kInvisibleProcess = 1,  // the module's interception leaves the process alone
};

// Flags of a process that live with the control object. Any thread.
struct IProcessAttributes : zym::IObject {
  static constexpr zym::iid_t kIid = zym::IidOf("system_interceptors::process_manager::IProcessAttributes");

  virtual zym::result_t GetAttributeFlags(std::uint32_t& flags) = 0;
  // Adds flags and removes others, in one step. ZYM_E_INVALID_ARGUMENT: one is to be added and removed;
  // nothing is changed.
  virtual zym::result_t UpdateAttributeFlags(std::uint32_t add, std::uint32_t remove) = 0;

 protected:
  ~IProcessAttributes() = default;
};

}  // namespace system_interceptors::process_manager
