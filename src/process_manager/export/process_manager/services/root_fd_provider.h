// Descriptors of mount namespaces. Any thread.
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

struct IRootFdProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x6380f86d;

  // A descriptor of the mount namespace with this inode, for setns(2).
  virtual zym::result_t GetNamespaceFd(std::uint64_t namespaceId, IDescriptor** descriptor) = 0;

 protected:
  ~IRootFdProvider() = default;
};

}  // namespace qor
