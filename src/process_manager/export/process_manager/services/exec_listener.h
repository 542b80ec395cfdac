// Observer of executions, beside the kernel's proc connector: it captures what is gone when /proc is read.
//
// Optional. The factory is asked for when the source of non_blocking_type::kKprobes starts, on the thread
// that starts it; that start fails without a factory. A factory that has no listener is no failure.
#pragma once

#include <cstdint>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Any thread. By QueryInterface it may have IExecListenerControl and IExecInformationSource.
struct IExecListener : zym::IObject {
  // Not called by the module.
  virtual zym::result_t GetStatistics(std::uint64_t* executions) = 0;
  // Waits at most `timeout` milliseconds for the end of the execve call that `pid` is in. `fd` is the image,
  // or -1. `error` is 0 or the errno with which the call failed. Not called by the module.
  virtual zym::result_t WaitExecResult(unsigned int timeout, PidType pid, int fd, int& error) = 0;

 protected:
  ~IExecListener() = default;
};

// Called on the thread that starts or stops the source. A failure is traced; it fails the start of
// kKprobes alone.
struct IExecListenerControl : zym::IObject {
  static constexpr zym::iid_t kIid = 0x70501d1b;

  // Not called by the module.
  virtual zym::result_t GetEnvironCapturing(std::uint32_t* value) = 0;
  // 0 turns the capturing of environments off; StartupData::environCapturing turns it on.
  virtual zym::result_t SetEnvironCapturing(std::uint32_t value) = 0;

 protected:
  ~IExecListenerControl() = default;
};

// Source of what was captured; by QueryInterface it has IExecStringsProvider.
struct IExecInformationSource : zym::IObject {
  static constexpr zym::iid_t kIid = 0x093b54f2;

 protected:
  ~IExecInformationSource() = default;
};

// Called on the module's worker thread, for a process that ended before /proc could be read. On a failure the
// event keeps what is known without it.
struct IExecStringsProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xd9cda451;

  // The strings of the last execution of `pid`, in UTF-8: the path of the image, then the arguments. Waits at
  // most `timeout` milliseconds. `fd` is the image, or all ones.
  virtual zym::result_t GetExecStrings(std::uint32_t timeout, PidType pid, std::uint32_t fd,
                                       zym::types::vector_t<zym::types::string_t>& strings) = 0;

 protected:
  ~IExecStringsProvider() = default;
};

struct IExecListenerFactory : zym::IObject {
  static constexpr zym::iid_t kIid = 0x797d4ce7;

  // A failure: there is no listener, and the source goes on without one.
  virtual zym::result_t GetExecListener(IExecListener** listener) = 0;

 protected:
  ~IExecListenerFactory() = default;
};

}  // namespace qor
