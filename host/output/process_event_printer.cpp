#include "host/output/process_event_printer.h"

#include <cstdio>

#include "host/output/shown_text.h"

namespace pmhost {
namespace {

const char* StateName(std::uint32_t state) {
  switch (state) {
    case qor::kStarting:
      return "starting";
    case qor::kCreated:
      return "created";
    default:
      return "terminated";
  }
}

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
    m_line.Number("pid", event.pid);
    m_line.LongNumber("unique_pid", event.uniquePid);
    m_line.Number("parent_pid", event.parentPid);
    m_line.LongNumber("unique_parent_pid", event.uniqueParentPid);
    m_line.Number("creator_pid", event.creatorPid);
    m_line.LongNumber("unique_creator_pid", event.uniqueCreatorPid);
    m_line.Number("session_id", event.sessionId);
    Time("start_time", event.startTime);
    Time("exit_time", event.exitTime);
    m_line.Text("image_path", event.imagePath);
    m_line.Text("working_directory", event.workingDirectory);
    m_line.Text("command_line", event.commandLine);
    m_line.Number("user_id", event.userId);
    Flags(event);
    m_line.Text("state", std::string_view(StateName(event.state)));
    return m_line.End();
  }

 private:
  void Time(const char* name, std::optional<zym::datetime_t> time) {
    if (time)
      m_line.Text(name, m_time.FromDatetime(*time));
    else
      m_line.Null(name);
  }

  void Flags(const ProcessEvent& event) {
    if (!event.inCache) return m_line.Null("flags");
    m_line.BeginList("flags");
    if ((event.flags & qor::kSystemProcess) != 0) m_line.Item("system");
    if ((event.flags & qor::kNoBackingImage) != 0) m_line.Item("no_backing_image");
    m_line.EndList();
  }

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
    char columns[128];
    std::snprintf(columns, sizeof(columns), "%-15.15s  %-5s  %7u %7s %7s  %-20s  ",
                  event.timestamp ? m_time.FromMonotonic(*event.timestamp).data() + 11 : "?", What(event),
                  event.pid, Shown(event.parentPid).c_str(), Shown(event.userId).c_str(),
                  Shown(event.uniquePid).c_str());
    m_text = columns;
    if (event.imagePath)
      AppendShown(m_text, *event.imagePath);
    else
      m_text += '?';
    if (event.commandLine && event.type == system_interceptors::event_type::kCreateProcess) {
      m_text += ": ";
      AppendShown(m_text, *event.commandLine);
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
