// What sees programs start, beside the kernel's proc connector. Optional. Any thread.
#pragma once

#include <cstdint>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// Watches executions as they happen. QueryInterface may give IExecListenerControl and IExecInformationSource.
struct IExecListener : zym::IObject {
  // Not called by the module.
  virtual zym::result_t GetStatistics(std::uint64_t* executions) = 0;
  // Waits at most `timeout` milliseconds for the end of the execve call that `pid` is in. `fd` is the image,
  // or -1. `error` is 0 or the errno with which the call failed.
  virtual zym::result_t WaitExecResult(unsigned int timeout, PidType pid, int fd, int& error) = 0;

 protected:
  ~IExecListener() = default;
};

struct IExecListenerControl : zym::IObject {
  static constexpr zym::iid_t kIid = 0x70501d1b;

  // Not called by the module.
  virtual zym::result_t GetEnvironCapturing(std::uint32_t* value) = 0;
  // 0 turns the capturing of environments off.
  virtual zym::result_t SetEnvironCapturing(std::uint32_t value) = 0;

 protected:
  ~IExecListenerControl() = default;
};

// Has captured executions to tell of; QueryInterface gives IExecStringsProvider.
struct IExecInformationSource : zym::IObject {
  static constexpr zym::iid_t kIid = 0x093b54f2;

 protected:
  ~IExecInformationSource() = default;
};

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

  virtual zym::result_t GetExecListener(IExecListener** listener) = 0;

 protected:
  ~IExecListenerFactory() = default;
};

}  // namespace qor
