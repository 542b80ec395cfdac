#include "host/commands/kill.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "host/failure.h"
#include "host/host.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/shown_text.h"
#include "host/proc_files.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

// What is to be ended, as it was before.
class Target {
 public:
  Target(ProcessReader& reader, std::uint32_t pid) : m_reader(reader), m_pid(pid) {
    if (pid == static_cast<std::uint32_t>(::getpid()))
      throw Failure(What() + ": it is this pmhost itself, which ends by itself");
    if (const auto process = ProcessOfThread(pid); process && *process != pid)
      throw Failure(What() + ": that is a thread of process " + std::to_string(*process) + "; pmhost kill " +
                    std::to_string(*process) + " ends it with all its threads");
    std::optional<KnownProcess> found = reader.Read(pid);
    if (!found) throw Failure(reader.ExplainAbsence(What(), pid));
    m_process = std::move(*found);
    if (m_process.denied)
      throw Failure(What() +
                    ": needs CAP_KILL, and CAP_SYS_PTRACE to look at it first, as it belongs to "
                    "another user or is protected: " +
                    Remedy());
    if (const zym::result_t result = reader.Manager()->GetControl(pid, m_control.Ref());
        !ZYM_SUCCEEDED(result))
      throw Failure(Explain(What() + ": the module can't read it in full; kill -TERM " + std::to_string(pid) +
                                " doesn't need to",
                            result));
  }

  [[nodiscard]] const KnownProcess& Process() const { return m_process; }

  // Asks it to end; with `wait`, waits and forces it. Gives back whether it has ended.
  bool End(std::optional<std::uint32_t> wait) {
    // An interrupt while the module waits ends pmhost as it ends any program: the signal that was sent stays
    // sent, and no other one follows.
    const zym::result_t result = wait ? m_control->TerminateAndWait(*wait) : m_control->Terminate();
    if (result == zym::ErrnoToResult(ESRCH)) return true;  // it was quicker than the last signal
    if (result == zym::ZYM_E_ACCESS_DENIED)
      throw Failure(What() + ": needs CAP_KILL, as it belongs to another user: " + Remedy());
    if (result == zym::ZYM_E_INVALID_ARGUMENT && m_pid == 0)
      throw Failure(What() + ": it is the kernel, which no signal ends");
    Require(result, What());
    return wait ? WaitForEnd() : HasEnded();
  }

  // "; its parent, process 7, has yet to collect it", or nothing.
  [[nodiscard]] std::string Rest() const {
    qor::procfs::Stat stat;
    return IsListed(stat) ? "; its parent, process " + std::to_string(stat.ppid) + ", has yet to collect it"
                          : "";
  }

 private:
  [[nodiscard]] std::string What() const { return "cannot end process " + std::to_string(m_pid); }

  // The same process is still in /proc, alive or not.
  bool IsListed(qor::procfs::Stat& stat) const {
    return ZYM_SUCCEEDED(m_reader.Parser()->GetStat(m_pid, stat)) &&
           m_reader.StartTimeOf(stat) == m_process.record.startTime;
  }

  [[nodiscard]] bool HasEnded() const {
    qor::procfs::Stat stat;
    return !IsListed(stat) || ProcessReader::HasEnded(stat);
  }

  // The module sends SIGKILL and doesn't look again: the kernel takes a moment to end a process. One that
  // hangs in a system call which nothing interrupts ends when that does.
  bool WaitForEnd() {
    constexpr std::chrono::seconds kLongEnough{10};
    const auto deadline = std::chrono::steady_clock::now() + kLongEnough;
    while (!HasEnded() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return HasEnded();
  }

  ProcessReader& m_reader;
  const std::uint32_t m_pid;
  KnownProcess m_process;
  zym::intrusive_ptr<IProcessControl> m_control;
};

// "process 123 (sleep 60)"
std::string NameOf(const ShownProcess& process) {
  std::string name = "process " + std::to_string(process.pid) + " (";
  AppendShown(name, process.commandLine.value_or(process.imagePath.value_or(u"?")));
  return name + ")";
}

void Print(const GlobalOptions& global, const Target& target, bool ended) {
  LineWriter writer(STDOUT_FILENO);
  const ShownProcess process = target.Process().Shown();
  if (global.json) {
    JsonLine json;
    TimeText time;
    json.Begin();
    WriteProcess(json, time, process);
    json.Boolean("terminated", ended);
    writer.WriteLine(json.End());
  } else {
    std::string line =
        NameOf(process) + (ended ? " has ended" + target.Rest() : " was asked to end, and has not yet");
    CutToWidth(line, writer.Width());
    writer.WriteLine(line);
  }
  writer.Finish();
}

}  // namespace

void KillProcess(const GlobalOptions& global, const KillOptions& options) {
  const Host host(global);
  ProcessReader reader(host);
  Target target(reader, options.pid);
  const bool ended = target.End(options.wait);
  Print(global, target, ended);
  if (options.wait && !ended)
    throw Failure(
        "process " + std::to_string(options.pid) +
        " was sent SIGKILL and has not ended: it waits for something that no signal interrupts, and "
        "ends when that comes");
}

}  // namespace pmhost
