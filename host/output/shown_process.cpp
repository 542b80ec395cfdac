#include "host/output/shown_process.h"

namespace pmhost {
namespace {

void WriteTime(JsonLine& line, TimeText& text, const char* name, std::optional<zym::datetime_t> time) {
  time ? line.Text(name, text.FromDatetime(*time)) : line.Null(name);
}

void WriteFlags(JsonLine& line, std::optional<std::uint32_t> flags) {
  if (!flags) return line.Null("flags");
  line.BeginList("flags");
  if ((*flags & qor::kSystemProcess) != 0) line.Item("system");
  if ((*flags & qor::kNoBackingImage) != 0) line.Item("no_backing_image");
  line.EndList();
}

}  // namespace

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

void WriteProcess(JsonLine& line, TimeText& time, const ShownProcess& process) {
  line.Number("pid", process.pid);
  line.LongNumber("unique_pid", process.uniquePid);
  line.Number("parent_pid", process.parentPid);
  line.LongNumber("unique_parent_pid", process.uniqueParentPid);
  line.Number("creator_pid", process.creatorPid);
  line.LongNumber("unique_creator_pid", process.uniqueCreatorPid);
  line.Number("session_id", process.sessionId);
  WriteTime(line, time, "start_time", process.startTime);
  WriteTime(line, time, "exit_time", process.exitTime);
  line.Text("image_path", process.imagePath);
  line.Text("working_directory", process.workingDirectory);
  line.Text("command_line", process.commandLine);
  line.Number("user_id", process.userId);
  WriteFlags(line, process.flags);
  line.Text("state", std::string_view(StateName(process.state)));
}

}  // namespace pmhost
