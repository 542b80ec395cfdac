#include "qor_common/mount_namespace.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "process_manager/types.h"

namespace qor::tools {
namespace {

using SetNsFunction = int (*)(int, int);

// An old C library has no setns.
SetNsFunction FindSetNs() {
  if (void* const found = ::dlsym(nullptr, "setns"); found != nullptr)
    return reinterpret_cast<SetNsFunction>(found);
  return [](int fd, int type) { return static_cast<int>(::syscall(SYS_setns, fd, type)); };
}

bool IsValgrindCheck() {
  const char* const value = std::getenv("QOR_VALGRIND_CHECK");
  return value != nullptr && std::string_view(value) == "ON";
}

// What the thread needs, with addresses found before it begins: it has one page of stack, too little for the
// dynamic linker.
struct UnlinkCall {
  int namespaceFd;
  int dirFd;
  const char* filename;
  SetNsFunction setNs;
  int (*unlinkAt)(int, const char*, int);
  int* threadErrno;  // the caller's: the thread shares its thread-local storage
  int error;
};

// Runs on a bare thread, so no sanitizer may keep a record of its frames: it never returns from this one.
#define ZYM_BARE_THREAD __attribute__((noinline, no_sanitize("address", "thread", "undefined")))

ZYM_BARE_THREAD void UnlinkThread(UnlinkCall* call) {
  *call->threadErrno = 0;
  if (call->setNs(call->namespaceFd, 0) == 0) call->unlinkAt(call->dirFd, call->filename, 0);
  call->error = *call->threadErrno;
  // The C library knows nothing of this thread: only the kernel may end it.
  asm volatile("syscall" : : "a"(SYS_exit), "D"(0) : "rcx", "r11", "memory");
  __builtin_unreachable();
}

// clone(2) by the system call itself, so that nobody's wrapper takes the thread for a forked process: a
// negative errno in the caller; in the thread it calls UnlinkThread, at the top of its stack, and never
// returns.
ZYM_BARE_THREAD long CloneForUnlink(int flags, void* stackTop, UnlinkCall* call) {
  long result = SYS_clone;
  // Of the registers the kernel changes rax, rcx and r11, in both threads; the last two arguments are unused.
  asm volatile(
      "xor %%r10d, %%r10d\n\t"
      "xor %%r8d, %%r8d\n\t"
      "syscall\n\t"
      "test %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "mov %[call], %%rdi\n\t"
      "call *%[entry]\n"
      "1:"
      : "+a"(result)
      : "D"(static_cast<long>(flags)), "S"(stackTop), "d"(0L), [call] "r"(call), [entry] "r"(&UnlinkThread)
      : "rcx", "r8", "r10", "r11", "memory", "cc");
  return result;
}

// Two pages, the lower of which catches an overflow.
class ThreadStack {
 public:
  ThreadStack()
      : m_memory(::mmap(nullptr, 2 * PageSize(), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
    m_error = errno;
    if (m_memory != MAP_FAILED && ::mprotect(m_memory, PageSize(), PROT_NONE) == 0) m_error = 0;
  }
  ~ThreadStack() {
    if (m_memory != MAP_FAILED) ::munmap(m_memory, 2 * PageSize());
  }
  ThreadStack(const ThreadStack&) = delete;
  ThreadStack& operator=(const ThreadStack&) = delete;

  // 0, or the errno of the call that failed.
  [[nodiscard]] int Error() const { return m_error; }
  [[nodiscard]] void* Top() const { return static_cast<char*>(m_memory) + 2 * PageSize(); }

 private:
  static std::size_t PageSize() {
    static const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return size;
  }

  void* m_memory;
  int m_error;
};

// Holds back all signals: a handler must not run on the thread's small stack.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t m_before;
};

}  // namespace

std::uint64_t GetOwnNamespaceId() {
  struct stat status {};
  return ::stat("/proc/self/ns/mnt", &status) == 0 ? status.st_ino : 0;
}

bool IsForeignNamespace(std::uint64_t id) {
  return id != kNoMountNamespace && id != GetOwnNamespaceId();
}

zym::result_t UnlinkInNamespace(int namespaceFd, int dirFd, const char* filename) {
  static const bool isValgrindCheck = IsValgrindCheck();
  if (isValgrindCheck) return zym::ZYM_E_NOT_IMPLEMENTED;
  static const SetNsFunction setNs = FindSetNs();

  const ThreadStack stack;
  if (stack.Error() != 0) return zym::ErrnoToResult(stack.Error());
  // A thread that shares all but the file system context, which is why it alone may enter another mount
  // namespace (setns(2): EINVAL for a caller that shares it). CLONE_VFORK holds this thread until it has
  // ended.
  constexpr int kFlags = CLONE_VM | CLONE_FILES | CLONE_SIGHAND | CLONE_VFORK | CLONE_THREAD;
  static_assert(kFlags == 0x14d00);
  UnlinkCall call{namespaceFd, dirFd, filename, setNs, &::unlinkat, &errno, 0};
  const SignalsBlocked signalsBlocked;
  const long thread = CloneForUnlink(kFlags, stack.Top(), &call);
  return zym::ErrnoToResult(thread < 0 ? static_cast<int>(-thread) : call.error);
}

}  // namespace qor::tools
