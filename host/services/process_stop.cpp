#include "host/services/process_stop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "host/proc_files.h"
#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

using Clock = std::chrono::steady_clock;

// How often a change is looked for: no event reports it.
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

// --- the freezer of control groups -------------------------------------------------------------------------

bool IsInList(std::string_view list, std::string_view item) {
  for (std::size_t begin = 0; begin <= list.size();) {
    const std::size_t end = std::min(list.find(',', begin), list.size());
    if (list.substr(begin, end - begin) == item) return true;
    begin = end + 1;
  }
  return false;
}

constexpr std::string_view kController = "freezer";

// "hierarchy:controllers:path", cgroups(7). Absent when the process is in no group of a freezer.
std::optional<std::string> GroupPath(std::uint32_t pid) {
  std::istringstream lines(ReadProcFile(pid, "cgroup"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    if (IsInList(std::string_view(line).substr(first + 1, second - first - 1), kController))
      return line.substr(second + 1);
  }
  return std::nullopt;
}

// The directory of the group at `path`, by the first mount that shows it: mountinfo in proc(5).
std::optional<std::string> GroupDirectory(const std::string& path) {
  std::istringstream lines(ReadProcFile(static_cast<std::uint32_t>(::getpid()), "mountinfo"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t separator = line.find(" - ");
    if (separator == std::string::npos) continue;
    std::istringstream mount(line.substr(0, separator));
    std::istringstream superBlock(line.substr(separator + 3));
    std::string skipped;
    std::string root;
    std::string place;
    std::string type;
    std::string options;
    if (!(mount >> skipped >> skipped >> skipped >> root >> place) ||
        !(superBlock >> type >> skipped >> options))
      continue;
    if (type != "cgroup" || !IsInList(options, kController)) continue;
    if (root == "/") return place + path;
    if (path == root || path.starts_with(root + "/")) return place + path.substr(root.size());
  }
  return std::nullopt;
}

// A group of the process's own, below the one that it was in: so it stays under that one's limits, and
// whoever looks after that one finds it.
class FrozenGroup final : public ProcessStop {
 public:
  FrozenGroup(std::string parent, std::uint32_t pid)
      : m_parent(std::move(parent)),
        m_group(m_parent + "/pmhost-" + std::to_string(::getpid()) + "-" + std::to_string(pid)),
        m_state(m_group + "/freezer.state") {}
  ~FrozenGroup() override {
    if (m_made) Leave();
  }

  zym::result_t Enter(std::uint32_t pid) {
    m_made = ::mkdir(m_group.c_str(), 0755) == 0;
    if (!m_made) return zym::ZYM_E_NOT_SUPPORTED;
    const int error = WriteFile(m_group + "/cgroup.procs", std::to_string(pid));
    if (error == ESRCH) return zym::ZYM_E_NOT_FOUND;
    return error == 0 ? zym::ZYM_OK : zym::ZYM_E_NOT_SUPPORTED;
  }

  zym::result_t Freeze(StopDeadline deadline) {
    if (WriteFile(m_state, "FROZEN") != 0) return zym::ZYM_E_NOT_SUPPORTED;
    while (!ReadFile(m_state).starts_with("FROZEN")) {  // "FREEZING" until the last thread is
      if (IsPast(deadline)) return zym::ZYM_E_TIMEOUT;
      std::this_thread::sleep_for(kPoll);
    }
    return zym::ZYM_OK;
  }

 private:
  void Leave() const {
    static_cast<void>(WriteFile(m_state, "THAWED"));
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

  const std::string m_parent;
  const std::string m_group;
  const std::string m_state;
  bool m_made = false;
};

zym::result_t StopByFreezer(std::uint32_t pid, StopDeadline deadline, std::unique_ptr<ProcessStop>& stop) {
  const std::optional<std::string> path = GroupPath(pid);
  const std::optional<std::string> directory = path ? GroupDirectory(*path) : std::nullopt;
  if (!directory) return zym::ZYM_E_NOT_SUPPORTED;
  auto group = std::make_unique<FrozenGroup>(*directory, pid);
  if (const zym::result_t result = group->Enter(pid); result != zym::ZYM_OK) return result;
  if (const zym::result_t result = group->Freeze(deadline); result != zym::ZYM_OK) return result;
  stop = std::move(group);
  return zym::ZYM_OK;
}

// --- signals -----------------------------------------------------------------------------------------------

// Stopped, traced, or ended; a thread that has gone meanwhile has no state.
bool IsStopped(std::uint32_t thread) {
  const std::optional<RunState> state = ReadRunState(thread);
  return !state || std::string_view("TtZX").find(state->state) != std::string_view::npos;
}

bool AreAllThreadsStopped(std::uint32_t pid) {
  return std::ranges::all_of(ThreadsOf(pid), IsStopped);
}

// Empty: there is no such process.
std::string StartTime(std::uint32_t pid) {
  return ReadRunState(pid).value_or(RunState{}).startTime;
}

class SignalStop final : public ProcessStop {
 public:
  explicit SignalStop(std::uint32_t pid)
      : m_pid(pid), m_startTime(StartTime(pid)), m_wasStopped(AreAllThreadsStopped(pid)) {}
  ~SignalStop() override {
    // A process that somebody else has stopped stays so, and a later one of this pid isn't touched.
    if (m_signalled && !m_wasStopped && StartTime(m_pid) == m_startTime)
      ::kill(static_cast<pid_t>(m_pid), SIGCONT);
  }

  zym::result_t Stop(StopDeadline deadline) {
    if (::kill(static_cast<pid_t>(m_pid), SIGSTOP) != 0) {
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
  const std::uint32_t m_pid;
  const std::string m_startTime;
  const bool m_wasStopped;
  bool m_signalled = false;
};

zym::result_t StopBySignal(std::uint32_t pid, StopDeadline deadline, std::unique_ptr<ProcessStop>& stop) {
  auto signals = std::make_unique<SignalStop>(pid);
  if (const zym::result_t result = signals->Stop(deadline); result != zym::ZYM_OK) return result;
  stop = std::move(signals);
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t StopProcess(std::uint32_t pid, StopMeans means, StopDeadline deadline,
                          std::unique_ptr<ProcessStop>& stop) {
  if (!ReadRunState(pid)) return zym::ZYM_E_NOT_FOUND;
  return means == StopMeans::kFreezer ? StopByFreezer(pid, deadline, stop)
                                      : StopBySignal(pid, deadline, stop);
}

}  // namespace pmhost
