#include "host/output/process_columns.h"

namespace pmhost {
namespace {

Value Flags(const ProcessRecord& process) {
  if (!process.flags) return NotKnown();
  Names names;
  if ((*process.flags & qor::kSystemProcess) != 0) names.emplace_back("system");
  if ((*process.flags & qor::kNoBackingImage) != 0) names.emplace_back("no_backing_image");
  return names;
}

Value ExitTime(const ProcessRecord& process) {
  return process.exitTime || process.state == qor::kTerminated ? KnownTime(process.exitTime) : Nothing();
}

Value Shown(const zym::types::string16_t& text) {
  return KnownText(std::u16string_view(text));
}

}  // namespace

const std::vector<Column<ProcessRecord>>& ProcessColumns() {
  using P = ProcessRecord;
  static const std::vector<Column<P>> columns = {
      {{"pid", Kind::kNumber, "PID", 7}, [](const P& p) { return Value(p.pid); }},
      {{"unique_pid", Kind::kLongNumber, "UNIQUE PID", 20}, [](const P& p) { return Known(p.uniquePid); }},
      {{"parent_pid", Kind::kNumber, "PPID", 7}, [](const P& p) { return Known(p.parentPid); }},
      {{"unique_parent_pid", Kind::kLongNumber}, [](const P& p) { return Known(p.uniqueParentPid); }},
      {{"creator_pid", Kind::kNumber}, [](const P& p) { return Known(p.creatorPid); }},
      {{"unique_creator_pid", Kind::kLongNumber}, [](const P& p) { return Known(p.uniqueCreatorPid); }},
      {{"session_id", Kind::kNumber}, [](const P& p) { return Known(p.sessionId); }},
      {{"start_time", Kind::kTime, "STARTED (UTC)", 19}, [](const P& p) { return KnownTime(p.startTime); }},
      {{"exit_time", Kind::kTime}, ExitTime},
      {{"image_path", Kind::kText}, [](const P& p) { return Shown(p.imagePath); }},
      {{"working_directory", Kind::kText}, [](const P& p) { return Shown(p.workingDirectory); }},
      {{"command_line", Kind::kText}, [](const P& p) { return Shown(p.commandLine); }},
      {{"user_id", Kind::kUser, "UID", 7}, [](const P& p) { return Known(p.userId); }},
      {{"flags", Kind::kNames}, Flags},
      {{"state", Kind::kText}, [](const P& p) { return Value(StateName(p.state)); }},
  };
  return columns;
}

}  // namespace pmhost
