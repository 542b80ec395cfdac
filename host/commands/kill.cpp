#include "host/commands/kill.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <thread>

#include "host/commands/arguments.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/process_columns.h"
#include "host/output/shown_text.h"
#include "host/output/table.h"
#include "host/proc_files.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

// What is to be ended, as it was before.
class Target {
 public:
  Target(Host& host, std::uint32_t pid) : m_reader(host), m_parser(host.GetParser()), m_pid(pid) {
    if (pid == static_cast<std::uint32_t>(::getpid()))
      throw Failure(What() + ": it is this pmhost itself, which ends by itself");
    if (const auto process = ProcessOfThread(pid); process && *process != pid)
      throw Failure(What() + ": that is a thread of process " + std::to_string(*process) + "; pmhost kill " +
                    std::to_string(*process) + " ends it with all its threads");
    std::optional<ListedProcess> found = m_reader.Read(pid);
    if (!found) throw Failure(m_reader.ExplainAbsence(What(), pid));
    m_process = std::move(found->facts);
    if (found->denied)
      throw Failure(What() +
                    ": needs CAP_KILL, and CAP_SYS_PTRACE to look at it first, as it belongs to "
                    "another user or is protected: " +
                    Remedy());
    if (const zym::result_t result = host.GetProcessManager()->GetControl(pid, m_control.Ref());
        !ZYM_SUCCEEDED(result))
      throw Failure(Explain(What() + ": the module can't read it in full; kill -TERM " + std::to_string(pid) +
                                " doesn't need to",
                            result));
  }

  [[nodiscard]] const ProcessRecord& Process() const { return m_process; }

  // Asks it to end; with `wait`, waits and forces it. Returns whether it has ended.
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
    return ZYM_SUCCEEDED(m_parser->GetStat(m_pid, stat)) && m_reader.StartTimeOf(stat) == m_process.startTime;
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

  ProcessReader m_reader;
  const zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  const std::uint32_t m_pid;
  ProcessRecord m_process;
  zym::intrusive_ptr<IProcessControl> m_control;
};

struct Row {
  ProcessRecord process;  // as it was before
  bool ended = false;
};

std::vector<Column<Row>> Columns() {
  return ColumnsOf(&Row::process, ProcessColumns()) +
         std::vector<Column<Row>>{
             {{"terminated", Kind::kYesNo}, [](const Row& row) { return Value(row.ended); }}};
}

// "process 123 (sleep 60)"
std::string NameOf(const ProcessRecord& process) {
  const auto& text = process.commandLine.empty() ? process.imagePath : process.commandLine;
  std::string name = "process " + std::to_string(process.pid) + " (";
  AppendShown(name, text.empty() ? u"?" : std::u16string_view(text));
  return name + ")";
}

void Print(const GlobalOptions& global, const Target& target, bool ended) {
  LineWriter writer(STDOUT_FILENO);
  if (global.json) {
    Table<Row>(Layout::kJson, Columns(), writer).Print({target.Process(), ended});
  } else {
    std::string line = NameOf(target.Process()) +
                       (ended ? " has ended" + target.Rest() : " was asked to end, and has not yet");
    CutToWidth(line, writer.Width());
    writer.WriteLine(line);
  }
  writer.Finish();
}

class Kill final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("kill", "Ask a process to end (SIGTERM)");
    AddPid(command, m_pid, TakesKernel::kYes)->required();
    AddNumber(command, "--wait", {0, std::numeric_limits<std::uint32_t>::max()},
              "Wait for its end so many milliseconds, and then force it (SIGKILL)",
              [this](std::uint64_t wait) { m_wait = static_cast<std::uint32_t>(wait); })
        ->type_name("MS");
    return command;
  }

  void Run(const GlobalOptions& global) override {
    Host host(global);
    Target target(host, m_pid);
    const bool ended = target.End(m_wait);
    Print(global, target, ended);
    if (m_wait && !ended)
      throw Failure("process " + std::to_string(m_pid) +
                    " was sent SIGKILL and has not ended: it waits for something that no signal interrupts, "
                    "and ends when that comes");
  }

 private:
  std::uint32_t m_pid = 0;
  std::optional<std::uint32_t> m_wait;  // milliseconds; absent: asks, and doesn't wait
};

}  // namespace

std::unique_ptr<Command> MakeKill() {
  return std::make_unique<Kill>();
}

}  // namespace pmhost
