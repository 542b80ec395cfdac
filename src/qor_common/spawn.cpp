#include "qor_common/spawn.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace qor {
namespace {

constexpr useconds_t kWaitStep = 5000;  // microseconds between two looks at the child
constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;

// The exit status of a program that didn't get its ids: the first of three, in the order real, effective,
// saved.
constexpr int kWrongGroupStatus = 132;
constexpr int kWrongUserStatus = 135;

// The strings of an argument or environment list in the form of execve(2), terminated by a null.
class StringList {
 public:
  void Add(std::string_view text) { m_strings.emplace_back(text.substr(0, SpawnContext::kMaxStringLength)); }
  void AddFirst(const std::vector<std::string>& texts) {
    for (std::size_t i = 0; i < std::min(texts.size(), SpawnContext::kMaxStrings); ++i) Add(texts[i]);
  }
  void Finish() {
    for (std::string& text : m_strings) m_pointers.push_back(text.data());
    m_pointers.push_back(nullptr);
  }
  [[nodiscard]] char* const* Get() const { return m_pointers.data(); }

 private:
  std::vector<std::string> m_strings;
  std::vector<char*> m_pointers;
};

// All that the children read, laid out before the first fork: another thread may hold the allocator's lock at
// that moment, and would never give it back in the child.
struct Plan {
  // `path`: that of the program, absolute, since the child leaves the directory that it is relative to.
  Plan(const SpawnContext& context, std::string path)
      : program(std::move(path)),
        workingDirectory(context.workingDirectory.empty() ? "/" : context.workingDirectory),
        userId(context.userId),
        groupId(context.groupId),
        setsGroups(context.groups || context.userId || context.groupId),
        groups(context.groups.value_or(std::vector<gid_t>())),
        streams{context.standardInput, context.standardOutput, context.standardError} {
    arguments.Add(program);
    arguments.AddFirst(context.arguments);
    arguments.Finish();
    environment.AddFirst(context.environment);
    environment.Finish();
  }

  std::string program;
  std::string workingDirectory;
  StringList arguments;
  StringList environment;
  std::optional<uid_t> userId;
  std::optional<gid_t> groupId;
  bool setsGroups;
  std::vector<gid_t> groups;
  std::array<std::optional<int>, 3> streams;
};

bool IsOpen(const std::optional<int>& fd) {
  struct stat status {};
  return !fd || ::fstat(*fd, &status) == 0;
}

bool IsExecutableFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// --- async-signal-safe from here on: it runs between fork and execve ---

// By a direct system call, so that no handler of pthread_atfork(3) runs in a process with threads. `signal`
// is what the parent gets at the child's end.
pid_t Fork(int signal) {
  return static_cast<pid_t>(::syscall(SYS_clone, signal, nullptr, nullptr, nullptr, nullptr));
}

[[noreturn]] void Fail() {
  ::_Exit(errno);
}

void Ignore(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  if (::sigaction(signal, &action, nullptr) != 0) Fail();
}

// The handlers of the process that was left belong to it: with the signals unblocked and before execve, none
// of them may run.
void DropHandlers() {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (::sigaction(signal, nullptr, &action) != 0) continue;  // the C library keeps two for itself
    if (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL) continue;
    action = {};
    action.sa_handler = SIG_DFL;
    static_cast<void>(::sigaction(signal, &action, nullptr));
  }
}

void UnblockSignals() {
  sigset_t none;
  ::sigemptyset(&none);
  if (::sigprocmask(SIG_SETMASK, &none, nullptr) != 0) Fail();
}

void SetUpStreams(const Plan& plan) {
  // First all of them out of the way of the three numbers: one that is given may have another's number.
  int sources[3];
  for (std::size_t i = 0; i < 3; ++i) {
    const int given = plan.streams[i] ? *plan.streams[i] : ::open("/dev/null", O_RDWR);
    if (given < 0) Fail();
    sources[i] = ::fcntl(given, F_DUPFD, kFirstOtherDescriptor);
    if (sources[i] < 0) Fail();
  }
  for (int i = 0; i < 3; ++i) {
    if (::dup2(sources[i], i) < 0) Fail();
  }
}

void CloseOtherDescriptors() {
  if (::syscall(SYS_close_range, kFirstOtherDescriptor, ~0U, 0U) == 0) return;
  // A kernel before 5.9. A descriptor may lie above a limit that was lowered after it was opened; the
  // kernel's own ceiling is a million by default (fs.nr_open, proc(5)).
  constexpr rlim_t kCeiling = 1U << 20;
  struct rlimit limit {};
  const bool known = ::getrlimit(RLIMIT_NOFILE, &limit) == 0;
  const int end =
      static_cast<int>(std::min(known ? std::max(limit.rlim_max, limit.rlim_cur) : kCeiling, kCeiling));
  for (int fd = kFirstOtherDescriptor; fd < end; ++fd) static_cast<void>(::close(fd));
}

// Ends with `status` for the real, the next for the effective, the one after that for the saved id.
void CheckIds(const std::array<id_t, 3>& ids, id_t wanted, int status) {
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (ids[i] != wanted) ::_Exit(status + static_cast<int>(i));
  }
}

// By direct system calls: the C library's own would ask every thread that it knows of to do the same, and
// those did not come along through the fork (nptl(7)).
void SetIds(const Plan& plan) {
  if (plan.setsGroups && ::syscall(SYS_setgroups, plan.groups.size(), plan.groups.data()) != 0) Fail();
  std::array<id_t, 3> ids{};
  if (plan.groupId) {
    const gid_t id = *plan.groupId;
    if (::syscall(SYS_setresgid, id, id, id) != 0) Fail();
    if (::getresgid(&ids[0], &ids[1], &ids[2]) != 0) Fail();
    CheckIds(ids, id, kWrongGroupStatus);
  }
  if (plan.userId) {
    const uid_t id = *plan.userId;
    if (::syscall(SYS_setresuid, id, id, id) != 0) Fail();
    if (::getresuid(&ids[0], &ids[1], &ids[2]) != 0) Fail();
    CheckIds(ids, id, kWrongUserStatus);
  }
}

[[noreturn]] void RunProgram(const Plan& plan) {
  // The leader of the session that this process came with is its parent, which ends now.
  if (::setsid() < 0) Fail();
  ::umask(0);
  DropHandlers();
  UnblockSignals();
  if (::chdir(plan.workingDirectory.c_str()) != 0) Fail();
  SetUpStreams(plan);
  CloseOtherDescriptors();
  SetIds(plan);
  ::execve(plan.program.c_str(), plan.arguments.Get(), plan.environment.Get());
  Fail();
}

[[noreturn]] void RunChild(const Plan& plan) {
  if (::setsid() < 0) Fail();
  Ignore(SIGCHLD);
  Ignore(SIGHUP);
  const pid_t program = Fork(SIGCHLD);
  if (program < 0) Fail();
  if (program == 0) RunProgram(plan);
  ::_Exit(0);
}

// --- the parent ---

zym::result_t WaitFor(pid_t child) {
  int status = 0;
  for (;;) {
    // A child with no signal at its end is seen with __WALL only.
    const pid_t ended = ::waitpid(child, &status, WNOHANG | __WALL);
    const int error = errno;
    if (ended == child) break;
    if (ended < 0 && error != EINTR) return zym::ErrnoToResult(error);
    ::usleep(kWaitStep);
  }
  return WIFEXITED(status) ? zym::ErrnoToResult(WEXITSTATUS(status)) : zym::ZYM_E_UNSPECIFIED;
}

}  // namespace

zym::result_t SecureDaemonSpawn(const SpawnContext& spawnContext) {
  if (!IsOpen(spawnContext.standardInput) || !IsOpen(spawnContext.standardOutput) ||
      !IsOpen(spawnContext.standardError))
    return zym::ZYM_E_INVALID_ARGUMENT;
  if (!IsExecutableFile(spawnContext.program)) return zym::ZYM_E_NOT_FOUND;
  std::error_code error;
  const std::filesystem::path program = std::filesystem::absolute(spawnContext.program, error);
  if (error) return zym::ErrnoToResult(error.value());
  const Plan plan(spawnContext, program.string());

  // Blocked until the child has put its own handling in place.
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  // No signal at its end: a host that ignores SIGCHLD would have the kernel reap this child, and one that
  // waits for any child would take it away (wait(2), "__WCLONE").
  const pid_t child = Fork(0);
  const int forkError = errno;
  if (child == 0) RunChild(plan);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (child < 0) return zym::ErrnoToResult(forkError);
  return WaitFor(child);
}

}  // namespace qor
