#include "host/output/process_event_printer.h"

#include <cstdio>

#include "host/output/shown_text.h"

namespace pmhost {
namespace {

class JsonPrinter final : public ProcessEventPrinter {
 public:
  std::string_view Line(const ProcessEvent& event) override {
    m_line.Begin();
    m_line.Text("event", std::string_view(EventName(event.type)));
    m_line.LongNumber("sequence", event.sequence);
    if (event.timestamp)
      m_line.Text("time", m_time.FromMonotonic(*event.timestamp));
    else
      m_line.Null("time");
    m_line.Boolean("from_exec", event.fromExec);
    m_line.Boolean("fake", event.fake);
    WriteProcess(m_line, m_time, event.process);
    return m_line.End();
  }

 private:
  JsonLine m_line;
  TimeText m_time;
};

class ColumnPrinter final : public ProcessEventPrinter {
 public:
  explicit ColumnPrinter(std::size_t width) : m_width(width) {}

  std::string_view Heading() override {
    m_text = "TIME             EVENT      PID    PPID    USER  UNIQUE PID            PATH: COMMAND LINE";
    CutToWidth(m_text, m_width);
    return m_text;
  }

  std::string_view Line(const ProcessEvent& event) override {
    const ShownProcess& process = event.process;
    char columns[128];
    std::snprintf(columns, sizeof(columns), "%-15.15s  %-5s  %7u %7s %7s  %-20s  ",
                  event.timestamp ? m_time.FromMonotonic(*event.timestamp).data() + 11 : "?", What(event),
                  process.pid, Shown(process.parentPid).c_str(), Shown(process.userId).c_str(),
                  Shown(process.uniquePid).c_str());
    m_text = columns;
    if (process.imagePath)
      AppendShown(m_text, *process.imagePath);
    else
      m_text += '?';
    if (process.commandLine && event.type == system_interceptors::event_type::kCreateProcess) {
      m_text += ": ";
      AppendShown(m_text, *process.commandLine);
    }
    CutToWidth(m_text, m_width);
    return m_text;
  }

 private:
  static const char* What(const ProcessEvent& event) {
    if (event.type == system_interceptors::event_type::kExitProcess) return "exit";
    return event.fromExec ? "exec" : "fork";
  }

  static std::string Shown(std::optional<std::uint64_t> number) {
    return number ? std::to_string(*number) : "?";
  }

  const std::size_t m_width;
  TimeText m_time;
  std::string m_text;
};

}  // namespace

std::unique_ptr<ProcessEventPrinter> MakeJsonPrinter() {
  return std::make_unique<JsonPrinter>();
}

std::unique_ptr<ProcessEventPrinter> MakeColumnPrinter(std::size_t width) {
  return std::make_unique<ColumnPrinter>(width);
}

}  // namespace pmhost
