// Descriptors of mount namespaces.
//
// Optional. Asked for when a file of another mount namespace is removed through the image of an event, on the
// thread that removes it. On a failure the file stays, and the code is the result of the removal.
#pragma once

#include <cstdint>

#include "zym/iobject.h"

namespace qor {

// An open descriptor that closes with its last reference.
struct IDescriptor : zym::IObject {
  virtual int Get() const = 0;

 protected:
  ~IDescriptor() = default;
};

// Any thread.
struct IRootFdProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x6380f86d;

  // An open descriptor of the mount namespace with this inode, for setns(2).
  virtual zym::result_t GetNamespaceFd(std::uint64_t namespaceId, IDescriptor** descriptor) = 0;

 protected:
  ~IRootFdProvider() = default;
};

}  // namespace qor
