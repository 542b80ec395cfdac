#include "host/commands/watch.h"

#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "host/commands/arguments.h"
#include "host/commands/netlink_source.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/process_columns.h"
#include "host/output/table.h"
#include "host/process_event.h"
#include "host/run_limits.h"
#include "zym/service_provider.h"

namespace pmhost {
namespace {

using namespace qor::process_manager;
using namespace system_interceptors;

std::string_view EventName(const ProcessEvent& event) {
  return event.type == event_type::kCreateProcess ? "create_process" : "exit_process";
}

std::string_view ActionName(const ProcessEvent& event) {
  if (event.type == event_type::kExitProcess) return "exit";
  return event.fromExec ? "exec" : "fork";
}

// The image, and at its start the command line.
Value ImageText(const ProcessEvent& event) {
  const ProcessRecord& process = event.process;
  if (process.commandLine.empty() || event.type != event_type::kCreateProcess)
    return KnownText(std::u16string_view(process.imagePath));
  const std::u16string_view path = process.imagePath.empty() ? u"?" : std::u16string_view(process.imagePath);
  return zym::types::string16_t(path) + u": " + process.commandLine;
}

std::vector<Column<ProcessEvent>> Columns() {
  using E = ProcessEvent;
  return std::vector<Column<E>>{
             {{"event", Kind::kText}, [](const E& event) { return Value(EventName(event)); }},
             {{"sequence", Kind::kLongNumber}, [](const E& event) { return Value(event.sequence); }},
             {{"time", Kind::kEventTime, "TIME", 15}, [](const E& event) { return Known(event.timestamp); }},
             {{"from_exec", Kind::kYesNo}, [](const E& event) { return Value(event.fromExec); }},
             {{"fake", Kind::kYesNo}, [](const E& event) { return Value(event.fake); }},
         } +
         ColumnsOf(&E::process, ProcessColumns()) +
         std::vector<Column<E>>{
             {{"action", Kind::kText, "EVENT", 5, Audience::kPerson},
              [](const E& event) { return Value(ActionName(event)); }},
             {{"image", Kind::kText, "PATH: COMMAND LINE", 0, Audience::kPerson}, ImageText},
         };
}

// Prints events. They come on one thread, in the order of their sequence.
class Handler : public zym::object::Ifaces<event_processing::INonBlockingEventHandler>,
                public zym::NonCopyable {
 public:
  Handler(zym::intrusive_ptr<IProcessInfoProvider> cache, Table<ProcessEvent>& table,
          std::optional<std::uint64_t> count, RunLimits& limits)
      : m_reader(std::move(cache)), m_table(table), m_left(count), m_limits(limits) {}

  void OnEvent(ISystemEvent* event, std::uint32_t) override {
    ++m_seen;
    if (IsOfTheMarker(*event) || m_left == 0U) return;
    const bool printed = m_table.Print(m_reader.Read(*event));
    if (m_left) --*m_left;
    if (!printed || m_left == 0U) m_limits.Finish();
  }

  // Returns when every event that the kernel sent before this call has been printed: a process of our own is
  // started, and events keep their order, so its end comes behind them. The kernel may drop it with others,
  // so there is another one every while, as long as events come; silence ends the wait.
  void Drain() {
    constexpr std::chrono::seconds kSilence{2};
    while (SendMarker()) {
      std::unique_lock lock(m_mutex);
      const std::uint64_t before = m_seen;
      if (m_ended.wait_for(lock, kSilence, [this] { return m_markerEnded; }) || m_seen == before) return;
    }
  }

 private:
  // False: no process can be started.
  bool SendMarker() {
    pid_t marker = 0;
    {
      const std::scoped_lock lock(m_mutex);  // its events wait until its pid is known
      marker = ::fork();
      if (marker == 0) ::_exit(0);
      if (marker > 0) m_markers.insert(static_cast<std::uint32_t>(marker));
    }
    return marker > 0 && ::waitpid(marker, nullptr, 0) == marker;
  }

  bool IsOfTheMarker(ISystemEvent& event) {
    const std::scoped_lock lock(m_mutex);
    if (!m_markers.contains(event.GetPid())) return false;
    m_markerEnded |= event.GetType() == event_type::kExitProcess;
    if (m_markerEnded) m_ended.notify_all();
    return true;
  }

  ProcessEventReader m_reader;
  Table<ProcessEvent>& m_table;
  std::optional<std::uint64_t> m_left;
  RunLimits& m_limits;
  std::atomic<std::uint64_t> m_seen{0};

  std::mutex m_mutex;  // guards all below
  std::condition_variable m_ended;
  std::set<std::uint32_t> m_markers;  // their pids
  bool m_markerEnded = false;
};

// Filters for both types of process events, on one handler.
class Filters {
 public:
  Filters(zym::intrusive_ptr<interceptor_facade::IInterceptor2> interceptor,
          event_processing::INonBlockingEventHandler& handler)
      : m_interceptor(std::move(interceptor)) {
    for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess}) {
      std::uint32_t id = 0;
      Require(m_interceptor->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0, &handler, &id),
              "cannot register a filter");
      m_ids.push_back(id);
    }
  }
  ~Filters() { m_interceptor->DeleteFilters({.first = m_ids.data(), .last = m_ids.data() + m_ids.size()}); }
  Filters(const Filters&) = delete;
  Filters& operator=(const Filters&) = delete;

 private:
  zym::intrusive_ptr<interceptor_facade::IInterceptor2> m_interceptor;
  std::vector<unsigned int> m_ids;
};

class Watch final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("watch", "Print each process start, exec and exit");
    command.add_flag("--full", m_full, "Read credentials and environments too");
    AddSeconds(command, "--for", m_seconds, "End after so many seconds");
    AddNumber(command, "--count", {1, kAnyNumber.last}, "End after so many events",
              [this](std::uint64_t count) { m_count = count; })
        ->type_name("N");
    return command;
  }

  void Run(const GlobalOptions& global) override {
    RunLimits::BlockSignals();
    Host host(global);
    RunLimits limits(m_seconds);
    LineWriter writer(STDOUT_FILENO);
    Table<ProcessEvent> table(global.json ? Layout::kJson : Layout::kTable, Columns(), writer,
                              {"time", "action", "pid", "parent_pid", "user_id", "unique_pid", "image"});
    NetlinkSource::RequireRight();
    table.PrintHeading();

    const auto handler = zym::CreateObject<Handler>(host.GetCache(), table, m_count, limits);
    const Filters filters(host.GetInterceptor(), *handler);
    const std::uint32_t type =
        non_blocking_type::kNetlink | (m_full ? non_blocking_type::kFullProcessInfo : 0);
    const NetlinkSource source(host.GetInterceptor(), type);
    if (::isatty(STDERR_FILENO) == 1) std::fputs("pmhost: watching; end with Ctrl-C\n", stderr);
    limits.Wait();
    const RunLimits::Unblocked aSecondSignalEndsItAtOnce;  // a reader that stands still would hold it up
    handler->Drain();
    writer.Finish();
  }

 private:
  bool m_full = false;
  std::optional<double> m_seconds;
  std::optional<std::uint64_t> m_count;
};

}  // namespace

std::unique_ptr<Command> MakeWatch() {
  return std::make_unique<Watch>();
}

}  // namespace pmhost
