#include "process_manager/procfs/proc_own_namespace.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>

#include "process_manager/types.h"

std::uint64_t qor::procfs::OwnMountNamespaceId() {
  static std::atomic<std::uint64_t> cached{kNoMountNamespace};
  if (const std::uint64_t id = cached; id != kNoMountNamespace) return id;
  struct stat status {};
  if (::stat(kOwnMountNamespace, &status) == 0)
    cached = status.st_ino;
  else if (errno == ENOENT)
    cached = 0;
  return cached;
}
