// Files of other mount namespaces, by the namespace.
#pragma once

#include <cstdint>

#include "zym/result.h"

namespace qor::tools {

// The inode of this process's mount namespace; all ones when it can't be read. Read at each call.
std::uint64_t GetOwnNamespaceId();

// False for an id that is all ones: nobody recorded one.
bool IsForeignNamespace(std::uint64_t id);

// unlinkat(dirFd, filename, 0) in the mount namespace of `namespaceFd`, on a short-lived task of its own, so
// that this process stays where it is. Failures are the errno by ErrnoToResult; ZYM_E_NOT_IMPLEMENTED: the
// environment says QOR_VALGRIND_CHECK=ON, whose tool can't follow such a task.
zym::result_t UnlinkInNamespace(int namespaceFd, int dirFd, const char* filename);

}  // namespace qor::tools
