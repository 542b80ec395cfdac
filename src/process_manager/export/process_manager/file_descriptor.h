// The file behind a stream, with the kernel's number for it.
#pragma once

#include "zym/io.h"
#include "zym/iobject.h"

namespace qor {

struct IFileDescriptor : zym::IFileDescriptor {
  static constexpr zym::iid_t kIid = zym::IidOf("qor::IFileDescriptor");

  // The number of the descriptor, which stays the object's: don't close it.
  virtual zym::result_t GetDescriptor(int& fd) const = 0;

 protected:
  ~IFileDescriptor() = default;
};

}  // namespace qor
