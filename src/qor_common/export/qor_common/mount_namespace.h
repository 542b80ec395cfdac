// Mount namespaces, which the kernel numbers by the inode of /proc/<pid>/ns/mnt (namespaces(7)).
#pragma once

#include <cstdint>

#include "zym/result.h"

namespace qor::tools {

// The mount namespace of this process, read anew at each call. 0 on a kernel that has no such file.
std::uint64_t GetOwnNamespaceId();

// False for kNoMountNamespace (-1) and for the own namespace.
bool IsForeignNamespace(std::uint64_t id);

// Removes the file `filename` below the directory `dirFd` in the mount namespace of `namespaceFd`. The
// calling thread sleeps meanwhile, with all signals blocked, and stays in its own namespace. A failure is the
// errno by ErrnoToResult: ZYM_E_ACCESS_DENIED without CAP_SYS_ADMIN and CAP_SYS_CHROOT (setns(2)).
// ZYM_E_NOT_IMPLEMENTED: the environment has QOR_VALGRIND_CHECK=ON, read once; valgrind can't follow the
// thread.
zym::result_t UnlinkInNamespace(int namespaceFd, int dirFd, const char* filename);

}  // namespace qor::tools
