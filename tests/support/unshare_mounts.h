// A mount namespace whose mounts nobody else sees: for tests, and for the programs that they run.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace test_support {

// For the calling thread. Returns the name of the call that failed, with its reason in errno; null: none did.
inline const char* UnshareMounts() {
  if (::unshare(CLONE_NEWNS) != 0) return "unshare(CLONE_NEWNS)";
  const auto makePrivate = [] { return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0; };
  if (makePrivate()) return nullptr;
  // In a plain chroot "/" is no mount, and only a mount can be made private. A thread that joins a mount
  // namespace, be it the one it is in, stands at that namespace's root (setns(2)), which is one.
  const int directory = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int own = ::open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC);
  const char* failed = nullptr;
  if (::setns(own, CLONE_NEWNS) != 0)
    failed = "setns";
  else if (!makePrivate())
    failed = "mount(MS_PRIVATE)";
  else if (::fchdir(root) != 0 || ::chroot(".") != 0 || ::fchdir(directory) != 0)
    failed = "chroot";
  const int reason = errno;
  for (const int fd : {directory, root, own}) ::close(fd);
  errno = reason;
  return failed;
}

}  // namespace test_support
