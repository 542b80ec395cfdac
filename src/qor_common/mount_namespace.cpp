#include "qor_common/mount_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

// The task below runs on a stack and with a thread state of its own that the sanitizers know nothing of.
#define ZYM_NO_SANITIZE __attribute__((no_sanitize("address", "thread", "undefined"), no_stack_protector))

namespace qor::tools {
namespace {

constexpr int kSharedTask = CLONE_VM | CLONE_FILES | CLONE_SIGHAND | CLONE_VFORK | CLONE_THREAD;
static_assert(kSharedTask == 0x14d00);

bool IsUnderValgrind() {
  static const bool result = [] {
    const char* const value = std::getenv("QOR_VALGRIND_CHECK");
    return value != nullptr && std::strcmp(value, "ON") == 0;
  }();
  return result;
}

// Two pages, the lower one a guard.
class TaskStack {
 public:
  TaskStack()
      : m_size(2 * PageSize()),
        m_begin(
            ::mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
    if (m_begin != MAP_FAILED && ::mprotect(m_begin, PageSize(), PROT_NONE) != 0) Unmap();
  }
  ~TaskStack() { Unmap(); }
  TaskStack(const TaskStack&) = delete;
  TaskStack& operator=(const TaskStack&) = delete;

  // Null when there was no memory.
  [[nodiscard]] void* Top() const {
    return m_begin != MAP_FAILED ? static_cast<char*>(m_begin) + m_size : nullptr;
  }

 private:
  static std::size_t PageSize() {
    static const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return size;
  }
  void Unmap() {
    if (m_begin != MAP_FAILED) ::munmap(m_begin, m_size);
    m_begin = MAP_FAILED;
  }

  std::size_t m_size;
  void* m_begin;
};

struct UnlinkCall {
  int namespaceFd;
  int dirFd;
  const char* filename;
  int error;
};

// The task shares this thread's errno, which its system calls use, and has no C library state of its own: it
// leaves by the raw system call.
ZYM_NO_SANITIZE int UnlinkTask(void* argument) {
  auto* const call = static_cast<UnlinkCall*>(argument);
  errno = 0;
  if (::setns(call->namespaceFd, 0) == 0) ::unlinkat(call->dirFd, call->filename, 0);
  call->error = errno;
  ::syscall(SYS_exit, 0);
  return 0;
}

}  // namespace

std::uint64_t GetOwnNamespaceId() {
  struct stat status {};
  return ::stat("/proc/self/ns/mnt", &status) == 0 ? status.st_ino
                                                   : std::numeric_limits<std::uint64_t>::max();
}

bool IsForeignNamespace(std::uint64_t id) {
  return id != std::numeric_limits<std::uint64_t>::max() && id != GetOwnNamespaceId();
}

zym::result_t UnlinkInNamespace(int namespaceFd, int dirFd, const char* filename) {
  if (IsUnderValgrind()) return zym::ZYM_E_NOT_IMPLEMENTED;
  const TaskStack stack;
  if (stack.Top() == nullptr) return zym::ErrnoToResult(errno);
  UnlinkCall call{.namespaceFd = namespaceFd, .dirFd = dirFd, .filename = filename, .error = 0};
  // It shares all but the file system context, which is why it can enter another mount namespace, and
  // CLONE_VFORK puts this thread to sleep until it ends.
  if (::clone(&UnlinkTask, stack.Top(), kSharedTask, &call) < 0) return zym::ErrnoToResult(errno);
  return zym::ErrnoToResult(call.error);
}

}  // namespace qor::tools
