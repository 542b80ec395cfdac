#include "host/services/process_stop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

using Clock = std::chrono::steady_clock;

// How often a change is looked for; only version 2 of the control groups would tell of it.
constexpr std::chrono::milliseconds kPoll{1};
// How long a control group that was left is waited for to be empty: what was killed in it still has to end.
constexpr std::chrono::seconds kLeaveTime{5};

bool IsPast(StopDeadline deadline) {
  return Clock::now() >= deadline;
}

// Empty when the file can't be read.
std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// 0, or the errno. A control file takes one write.
int WriteFile(const std::string& path, std::string_view text) {
  const qor::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file || ::write(file.Get(), text.data(), text.size()) < 0) return errno;
  return 0;
}

// The fields of a stat file behind the name, the state first: proc(5).
std::vector<std::string> StatFields(const std::string& directory) {
  const std::string stat = ReadFile(directory + "/stat");
  const std::size_t nameEnd = stat.rfind(')');
  if (nameEnd == std::string::npos) return {};
  std::istringstream fields(stat.substr(nameEnd + 1));
  return {std::istream_iterator<std::string>(fields), {}};
}

std::string ProcessDirectory(pid_t pid) {
  return "/proc/" + std::to_string(pid);
}

// Tells a process from a later one of the same pid; empty: there is none.
std::string StartTime(pid_t pid) {
  constexpr std::size_t kStartTime = 19;  // field 22 of all
  const std::vector<std::string> fields = StatFields(ProcessDirectory(pid));
  return fields.size() > kStartTime ? fields[kStartTime] : std::string();
}

// --- control groups ----------------------------------------------------------------------------------------

// How the two versions differ.
struct CgroupVersion {
  std::string_view controller;  // in /proc/<pid>/cgroup; version 2 has none
  std::string_view fileSystem;  // in mountinfo
  const char* stateFile;
  std::string_view freeze;
  std::string_view thaw;
  const char* tellingFile;   // says whether the group is frozen,
  std::string_view telling;  // by a line that begins so
};

constexpr CgroupVersion kVersion2 = {.controller = "",
                                     .fileSystem = "cgroup2",
                                     .stateFile = "/cgroup.freeze",
                                     .freeze = "1",
                                     .thaw = "0",
                                     .tellingFile = "/cgroup.events",
                                     .telling = "frozen 1"};
constexpr CgroupVersion kVersion1 = {.controller = "freezer",
                                     .fileSystem = "cgroup",
                                     .stateFile = "/freezer.state",
                                     .freeze = "FROZEN",
                                     .thaw = "THAWED",
                                     .tellingFile = "/freezer.state",
                                     .telling = "FROZEN"};

bool IsInList(std::string_view list, std::string_view item) {
  for (std::size_t begin = 0; begin <= list.size();) {
    const std::size_t end = std::min(list.find(',', begin), list.size());
    if (list.substr(begin, end - begin) == item) return true;
    begin = end + 1;
  }
  return false;
}

// "hierarchy:controllers:path", cgroups(7). Null when the process is in no group of this version.
std::optional<std::string> GroupPath(pid_t pid, const CgroupVersion& version) {
  std::istringstream lines(ReadFile(ProcessDirectory(pid) + "/cgroup"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string_view controllers = std::string_view(line).substr(first + 1, second - first - 1);
    const bool matches =
        version.controller.empty() ? controllers.empty() : IsInList(controllers, version.controller);
    if (matches) return line.substr(second + 1);
  }
  return std::nullopt;
}

// The directory of the group at `path`, by the first mount that shows it: mountinfo in proc(5).
std::optional<std::string> GroupDirectory(const std::string& path, const CgroupVersion& version) {
  std::istringstream lines(ReadFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t separator = line.find(" - ");
    if (separator == std::string::npos) continue;
    std::istringstream mount(line.substr(0, separator));
    std::istringstream superBlock(line.substr(separator + 3));
    std::string skipped;
    std::string root;
    std::string place;
    std::string type;
    std::string source;
    std::string options;
    if (!(mount >> skipped >> skipped >> skipped >> root >> place) ||
        !(superBlock >> type >> source >> options))
      continue;
    if (type != version.fileSystem) continue;
    if (!version.controller.empty() && !IsInList(options, version.controller)) continue;
    if (root == "/") return place + path;
    if (path == root || path.starts_with(root + "/")) return place + path.substr(root.size());
  }
  return std::nullopt;
}

// A group of the process's own, below the one that it was in: so it stays under that one's limits, and
// whoever looks after that one finds it.
class FrozenGroup final : public ProcessStop {
 public:
  FrozenGroup(const CgroupVersion& version, std::string parent, pid_t pid)
      : m_version(version),
        m_parent(std::move(parent)),
        m_group(m_parent + "/pmhost-" + std::to_string(::getpid()) + "-" + std::to_string(pid)) {}
  ~FrozenGroup() override {
    if (m_made) Leave();
  }

  zym::result_t Enter(pid_t pid) {
    m_made = ::mkdir(m_group.c_str(), 0755) == 0;
    // Without the file the kernel's version 2 is older than freezing.
    if (!m_made || ::access((m_group + m_version.stateFile).c_str(), W_OK) != 0)
      return zym::ZYM_E_NOT_SUPPORTED;
    const int error = WriteFile(m_group + "/cgroup.procs", std::to_string(pid));
    if (error == ESRCH) return zym::ZYM_E_NOT_FOUND;
    return error == 0 ? zym::ZYM_OK : zym::ZYM_E_NOT_SUPPORTED;
  }

  zym::result_t Freeze(StopDeadline deadline) {
    if (WriteFile(m_group + m_version.stateFile, m_version.freeze) != 0) return zym::ZYM_E_NOT_SUPPORTED;
    while (!IsFrozen()) {
      if (IsPast(deadline)) return zym::ZYM_E_TIMEOUT;
      std::this_thread::sleep_for(kPoll);
    }
    return zym::ZYM_OK;
  }

 private:
  bool IsFrozen() const {
    std::istringstream lines(ReadFile(m_group + m_version.tellingFile));
    for (std::string line; std::getline(lines, line);)
      if (line.starts_with(m_version.telling)) return true;
    return false;
  }

  void Leave() const {
    static_cast<void>(WriteFile(m_group + m_version.stateFile, m_version.thaw));
    // What was started meanwhile comes along. A process that ends keeps the group busy for a moment.
    const StopDeadline deadline = Clock::now() + kLeaveTime;
    do {
      std::istringstream members(ReadFile(m_group + "/cgroup.procs"));
      for (std::string member; members >> member;)
        static_cast<void>(WriteFile(m_parent + "/cgroup.procs", member));
      if (::rmdir(m_group.c_str()) == 0 || errno == ENOENT) return;
      std::this_thread::sleep_for(kPoll);
    } while (!IsPast(deadline));
  }

  const CgroupVersion& m_version;
  const std::string m_parent;
  const std::string m_group;
  bool m_made = false;
};

zym::result_t StopByGroup(pid_t pid, const CgroupVersion& version, StopDeadline deadline,
                          std::unique_ptr<ProcessStop>& stop) {
  const std::optional<std::string> path = GroupPath(pid, version);
  const std::optional<std::string> directory = path ? GroupDirectory(*path, version) : std::nullopt;
  if (!directory) return zym::ZYM_E_NOT_SUPPORTED;
  auto group = std::make_unique<FrozenGroup>(version, *directory, pid);
  if (const zym::result_t result = group->Enter(pid); result != zym::ZYM_OK) return result;
  if (const zym::result_t result = group->Freeze(deadline); result != zym::ZYM_OK) return result;
  stop = std::move(group);
  return zym::ZYM_OK;
}

// --- signals -----------------------------------------------------------------------------------------------

bool IsStopped(const std::string& threadDirectory) {
  const std::vector<std::string> fields = StatFields(threadDirectory);
  // Stopped, traced, or ended; a thread that has gone meanwhile has no fields.
  return fields.empty() || std::string_view("TtZX").find(fields.front()) != std::string_view::npos;
}

bool AreAllThreadsStopped(pid_t pid) {
  std::error_code error;
  for (std::filesystem::directory_iterator thread(ProcessDirectory(pid) + "/task", error), end;
       !error && thread != end; thread.increment(error))
    if (!IsStopped(thread->path())) return false;
  return true;
}

class SignalStop final : public ProcessStop {
 public:
  explicit SignalStop(pid_t pid)
      : m_pid(pid), m_startTime(StartTime(pid)), m_wasStopped(AreAllThreadsStopped(pid)) {}
  ~SignalStop() override {
    // A process that somebody else has stopped stays so, and a later one of this pid isn't touched.
    if (m_signalled && !m_wasStopped && StartTime(m_pid) == m_startTime) ::kill(m_pid, SIGCONT);
  }

  zym::result_t Stop(StopDeadline deadline) {
    if (::kill(m_pid, SIGSTOP) != 0) {
      const int error = errno;
      return error == ESRCH ? zym::ZYM_E_NOT_FOUND : zym::ErrnoToResult(error);
    }
    m_signalled = true;
    while (!AreAllThreadsStopped(m_pid)) {
      if (IsPast(deadline)) return zym::ZYM_E_TIMEOUT;
      std::this_thread::sleep_for(kPoll);
    }
    return StartTime(m_pid) == m_startTime ? zym::ZYM_OK : zym::ZYM_E_NOT_FOUND;
  }

 private:
  const pid_t m_pid;
  const std::string m_startTime;
  const bool m_wasStopped;
  bool m_signalled = false;
};

zym::result_t StopBySignal(pid_t pid, StopDeadline deadline, std::unique_ptr<ProcessStop>& stop) {
  auto signals = std::make_unique<SignalStop>(pid);
  if (const zym::result_t result = signals->Stop(deadline); result != zym::ZYM_OK) return result;
  stop = std::move(signals);
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t StopProcess(pid_t pid, StopMeans means, StopDeadline deadline,
                          std::unique_ptr<ProcessStop>& stop) {
  if (StartTime(pid).empty()) return zym::ZYM_E_NOT_FOUND;
  switch (means) {
    case StopMeans::kCgroup2:
      return StopByGroup(pid, kVersion2, deadline, stop);
    case StopMeans::kFreezer:
      return StopByGroup(pid, kVersion1, deadline, stop);
    case StopMeans::kSignals:
      return StopBySignal(pid, deadline, stop);
  }
  return zym::ZYM_E_NOT_SUPPORTED;
}

}  // namespace pmhost
