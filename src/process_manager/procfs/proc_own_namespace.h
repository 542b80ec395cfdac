// The mount namespace that the module itself is in.
#pragma once

#include <cstdint>

namespace qor::procfs {

inline constexpr const char* kOwnMountNamespace = "/proc/self/ns/mnt";

// The inode of the namespace: read once, for it doesn't change, and again at the next call while it can't be
// read. 0: the kernel has no such files. kNoMountNamespace: it isn't known. Any thread.
std::uint64_t OwnMountNamespaceId();

}  // namespace qor::procfs
