#include "qor_common/spawn.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace qor {
namespace {

constexpr useconds_t kWaitStep = 5000;  // microseconds

// How a child says where it failed to become somebody else.
enum ExitCode {
  kGroupNotReal = 132,
  kGroupNotEffective = 133,
  kGroupNotSaved = 134,
  kUserNotReal = 135,
  kUserNotEffective = 136,
  kUserNotSaved = 137,
};

// Pointers to at most as many strings as are passed on, each cut to its limit. Made before the fork: behind
// it, in a process that may have had other threads, nothing may allocate.
class StringTable {
 public:
  StringTable(const std::string* first, const std::vector<std::string>& rest) {
    if (first != nullptr) m_texts.push_back(*first);
    m_texts.insert(m_texts.end(), rest.begin(),
                   rest.begin() + static_cast<std::ptrdiff_t>(
                                      std::min(rest.size(), SpawnContext::kMaxStrings - m_texts.size())));
    for (std::string& text : m_texts) {
      if (text.size() > SpawnContext::kMaxStringLength) text.resize(SpawnContext::kMaxStringLength);
      m_pointers.push_back(text.data());
    }
    m_pointers.push_back(nullptr);
  }
  StringTable(const StringTable&) = delete;
  StringTable& operator=(const StringTable&) = delete;

  [[nodiscard]] char* const* Get() const { return m_pointers.data(); }

 private:
  std::vector<std::string> m_texts;
  std::vector<char*> m_pointers;
};

struct Plan {
  const SpawnContext& context;
  const StringTable& arguments;
  const StringTable& environment;
};

bool IsOpen(const std::optional<int>& fd) {
  struct stat status {};
  return !fd || ::fstat(*fd, &status) == 0;
}

bool IsExecutableFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// A fork that runs no handlers of anybody who linked into this process.
pid_t Fork() {
  return static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

// --- in the grandchild: system calls only, any failure ends it
// ---------------------------------------------------

void UnblockSignals() {
  sigset_t all;
  ::sigfillset(&all);
  if (::sigprocmask(SIG_UNBLOCK, &all, nullptr) != 0) std::_Exit(errno);
}

// Moves the given descriptors out of the way first: one may have the number of another's target.
void SetStandardStreams(const SpawnContext& context) {
  int sources[3] = {context.standardInput.value_or(-1), context.standardOutput.value_or(-1),
                    context.standardError.value_or(-1)};
  for (int& source : sources) {
    source = source >= 0 ? ::fcntl(source, F_DUPFD, 3) : ::open("/dev/null", O_RDWR);
    if (source < 0) std::_Exit(errno);
    if (source < 3 && (source = ::fcntl(source, F_DUPFD, 3)) < 0) std::_Exit(errno);
  }
  for (int target = 0; target < 3; ++target)
    if (::dup2(sources[target], target) < 0) std::_Exit(errno);
}

void CloseOtherDescriptors() {
  if (::syscall(SYS_close_range, 3U, ~0U, 0) == 0) return;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  for (rlim_t fd = 3; fd < limit.rlim_cur; ++fd) ::close(static_cast<int>(fd));
}

void BecomeUser(const SpawnContext& context) {
  if (!context.userId && !context.groupId) return;
  if (::setgroups(context.supplementaryGroups.size(), context.supplementaryGroups.data()) != 0)
    std::_Exit(errno);
  if (context.groupId) {
    const gid_t id = *context.groupId;
    if (::setresgid(id, id, id) != 0) std::_Exit(errno);
    gid_t real = 0;
    gid_t effective = 0;
    gid_t saved = 0;
    ::getresgid(&real, &effective, &saved);
    if (real != id) std::_Exit(kGroupNotReal);
    if (effective != id) std::_Exit(kGroupNotEffective);
    if (saved != id) std::_Exit(kGroupNotSaved);
  }
  if (context.userId) {
    const uid_t id = *context.userId;
    if (::setresuid(id, id, id) != 0) std::_Exit(errno);
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    ::getresuid(&real, &effective, &saved);
    if (real != id) std::_Exit(kUserNotReal);
    if (effective != id) std::_Exit(kUserNotEffective);
    if (saved != id) std::_Exit(kUserNotSaved);
  }
}

[[noreturn]] void RunProgram(const Plan& plan) {
  ::umask(0);
  UnblockSignals();
  if (::chdir(plan.context.workingDirectory.c_str()) != 0) std::_Exit(errno);
  SetStandardStreams(plan.context);
  CloseOtherDescriptors();
  BecomeUser(plan.context);
  ::execve(plan.context.program.c_str(), plan.arguments.Get(), plan.environment.Get());
  std::_Exit(errno);
}

// In the child, which stands between: its end makes the program nobody's child here.
[[noreturn]] void RunMiddle(const Plan& plan) {
  if (::setsid() < 0) std::_Exit(errno);
  if (::signal(SIGCHLD, SIG_IGN) == SIG_ERR || ::signal(SIGHUP, SIG_IGN) == SIG_ERR) std::_Exit(errno);
  const pid_t program = Fork();
  if (program < 0) std::_Exit(errno);
  if (program > 0) std::_Exit(0);
  // The middle one leads the session that ends with it; the program gets one of its own.
  if (::setsid() < 0) std::_Exit(errno);
  RunProgram(plan);
}

zym::result_t WaitFor(pid_t child) {
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(child, &status, WNOHANG);
    if (ended == child)
      return WIFEXITED(status) ? zym::ErrnoToResult(WEXITSTATUS(status)) : zym::ZYM_E_UNSPECIFIED;
    if (ended < 0) {
      const int error = errno;
      // Somebody ignores SIGCHLD in this process, so that nothing is left to be waited for.
      if (error == ECHILD) return zym::ZYM_OK;
      if (error != EINTR) return zym::ErrnoToResult(error);
    }
    ::usleep(kWaitStep);
  }
}

}  // namespace

zym::result_t SecureDaemonSpawn(const SpawnContext& spawnContext) {
  if (!IsOpen(spawnContext.standardInput) || !IsOpen(spawnContext.standardOutput) ||
      !IsOpen(spawnContext.standardError))
    return zym::ZYM_E_INVALID_ARGUMENT;
  if (!IsExecutableFile(spawnContext.program)) return zym::ZYM_E_NOT_FOUND;
  const StringTable arguments(&spawnContext.program, spawnContext.arguments);
  const StringTable environment(nullptr, spawnContext.environment);
  const Plan plan{spawnContext, arguments, environment};
  const pid_t child = Fork();
  if (child < 0) return zym::ErrnoToResult(errno);
  if (child == 0) RunMiddle(plan);
  return WaitFor(child);
}

}  // namespace qor
