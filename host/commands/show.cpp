#include "host/commands/show.h"

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host/failure.h"
#include "host/host.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/shown_text.h"
#include "host/output/user_names.h"
#include "host/process_details.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

constexpr std::uint64_t kUnitsPerSecond = zym::datetime::kUnitsPerSecond;

std::vector<const char*> AttributeNames(std::uint32_t flags) {
  std::vector<const char*> names;
  if ((flags & kInvisibleProcess) != 0) names.push_back("invisible");
  return names;
}

// --- JSON --------------------------------------------------------------------------------------------------

void WriteLists(JsonLine& json, const ProcessDetails& details) {
  if (details.environment) {
    json.BeginList("environment");
    for (const zym::types::string_t& variable : *details.environment) json.Item(variable);
    json.EndList();
  } else {
    json.Null("environment");
  }
  json.LongNumber("mount_namespace", details.mountNamespace);
  details.hostMountNamespace ? json.Boolean("host_mount_namespace", *details.hostMountNamespace)
                             : json.Null("host_mount_namespace");
  json.Text("localization",
            details.localization ? std::optional<std::u16string_view>(*details.localization) : std::nullopt);
  if (!details.attributes) return json.Null("attributes");
  json.BeginList("attributes");
  for (const char* name : AttributeNames(*details.attributes)) json.Item(name);
  json.EndList();
}

void WriteCounters(JsonLine& json, const ProcessDetails& details) {
  if (details.times) {
    json.BeginObject("times");
    json.Number("kernel_seconds", details.times->kernelTime / kUnitsPerSecond);
    json.Number("user_seconds", details.times->userTime / kUnitsPerSecond);
    json.EndObject();
  } else {
    json.Null("times");
  }
  if (!details.io) return json.Null("io");
  json.BeginObject("io");
  json.LongNumber("read_operations", details.io->readOperations);
  json.LongNumber("write_operations", details.io->writeOperations);
  json.LongNumber("read_bytes", details.io->readBytes);
  json.LongNumber("write_bytes", details.io->writeBytes);
  json.EndObject();
}

void WriteJson(const ShownProcess& process, const ProcessDetails& details, LineWriter& writer) {
  JsonLine json;
  TimeText time;
  json.Begin();
  WriteProcess(json, time, process);
  json.Number("effective_user_id", details.effectiveUserId);
  json.Number("real_group_id", details.realGroupId);
  json.Number("effective_group_id", details.effectiveGroupId);
  WriteLists(json, details);
  WriteCounters(json, details);
  writer.WriteLine(json.End());
}

// --- for a person ------------------------------------------------------------------------------------------

// One name and one value a line.
class Sheet {
 public:
  explicit Sheet(LineWriter& writer) : m_writer(writer), m_width(writer.Width()) {}

  template <class C>
  void Text(const char* name, std::optional<std::basic_string_view<C>> value) {
    char column[32];
    std::snprintf(column, sizeof(column), "%-22s", name);
    m_line = column;
    if (value)
      AppendShown(m_line, *value);
    else
      m_line += '?';
    CutToWidth(m_line, m_width);
    m_writer.WriteLine(m_line);
  }
  void Text(const char* name, const std::string& value) {
    Text(name, std::optional<std::string_view>(value));
  }
  void Number(const char* name, std::optional<std::uint64_t> value) {
    Text(name, value ? std::to_string(*value) : "?");
  }
  void Time(const char* name, std::optional<zym::datetime_t> time) {
    Text(name, time ? std::optional(m_time.FromDatetime(*time)) : std::nullopt);
  }
  void User(const char* name, std::optional<std::uint32_t> id) {
    Text(name, id ? std::to_string(*id) + " (" + m_names.NameOf(*id) + ")" : "?");
  }

 private:
  LineWriter& m_writer;
  const std::size_t m_width;
  TimeText m_time;
  UserNames m_names;
  std::string m_line;
};

std::string Joined(const std::vector<const char*>& names) {
  std::string text;
  for (const char* name : names) text += (text.empty() ? "" : ", ") + std::string(name);
  return text.empty() ? "none" : text;
}

std::string FlagsText(std::optional<std::uint32_t> flags) {
  if (!flags) return "?";
  std::vector<const char*> names;
  if ((*flags & qor::kSystemProcess) != 0) names.push_back("system");
  if ((*flags & qor::kNoBackingImage) != 0) names.push_back("no backing image");
  return Joined(names);
}

void WriteFacts(Sheet& sheet, const ShownProcess& process) {
  sheet.Number("pid", process.pid);
  sheet.Number("unique pid", process.uniquePid);
  sheet.Number("parent pid", process.parentPid);
  sheet.Number("unique parent pid", process.uniqueParentPid);
  sheet.Number("creator pid", process.creatorPid);
  sheet.Number("unique creator pid", process.uniqueCreatorPid);
  sheet.Number("session", process.sessionId);
  sheet.Time("start time", process.startTime);
  if (process.exitTime) sheet.Time("exit time", process.exitTime);
  sheet.Text("image path", process.imagePath);
  sheet.Text("working directory", process.workingDirectory);
  sheet.Text("command line", process.commandLine);
  sheet.User("user", process.userId);
  sheet.Text("flags", FlagsText(process.flags));
  sheet.Text("state", StateName(process.state));
}

void WriteDetails(Sheet& sheet, const ProcessDetails& details) {
  sheet.User("effective user", details.effectiveUserId);
  sheet.Number("group", details.realGroupId);
  sheet.Number("effective group", details.effectiveGroupId);
  const std::string whose = !details.hostMountNamespace   ? ""
                            : *details.hostMountNamespace ? " (the host's)"
                                                          : " (another than the host's)";
  sheet.Text("mount namespace",
             (details.mountNamespace ? std::to_string(*details.mountNamespace) : "?") + whose);
  sheet.Text("localization",
             details.localization ? std::optional<std::u16string_view>(*details.localization) : std::nullopt);
  sheet.Text("attributes", details.attributes ? Joined(AttributeNames(*details.attributes)) : "?");
  const auto seconds = [](std::uint64_t time) { return std::to_string(time / kUnitsPerSecond) + " s"; };
  sheet.Text("kernel time", details.times ? seconds(details.times->kernelTime) : "?");
  sheet.Text("user time", details.times ? seconds(details.times->userTime) : "?");
  const auto amount = [](std::uint64_t operations, std::uint64_t bytes) {
    return std::to_string(bytes) + " bytes in " + std::to_string(operations) + " operations";
  };
  sheet.Text("read", details.io ? amount(details.io->readOperations, details.io->readBytes) : "?");
  sheet.Text("written", details.io ? amount(details.io->writeOperations, details.io->writeBytes) : "?");
  const char* name = "environment";
  if (!details.environment || details.environment->empty())
    return sheet.Text(name, details.environment ? "none" : "?");
  for (const zym::types::string_t& variable : *details.environment) {
    sheet.Text(name, std::optional<std::string_view>(variable));
    name = "";
  }
}

// --- which process -----------------------------------------------------------------------------------------

KnownProcess Find(ProcessReader& reader, const ShowOptions& options) {
  if (options.pid) {
    std::optional<KnownProcess> process = reader.Read(*options.pid);
    if (!process)
      throw Failure(
          reader.ExplainAbsence("cannot show process " + std::to_string(*options.pid), *options.pid));
    return std::move(*process);
  }
  const std::uint64_t uniquePid = options.uniquePid.value();
  const std::uint32_t pid = qor::PidOf(uniquePid);
  std::optional<KnownProcess> process = reader.ReadByUniquePid(uniquePid);
  if (!process)
    throw Failure("cannot show the image with the unique pid " + std::to_string(uniquePid) +
                  ": it is gone, and process " + std::to_string(pid) +
                  " is another or none; pmhost ps tells which processes there are");
  if (process->record.uniquePid != uniquePid)
    std::fprintf(stderr,
                 "pmhost: the unique pid is of another run of the module: process %u was there already, but "
                 "whether it has replaced its image since can't be told\n",
                 pid);
  return std::move(*process);
}

}  // namespace

void ShowProcess(const GlobalOptions& global, const ShowOptions& options) {
  const Host host(global);
  ProcessReader reader(host);
  const KnownProcess process = Find(reader, options);
  const ProcessDetails details = ReadDetails(host, reader, process.record.pid);
  LineWriter writer(STDOUT_FILENO);
  if (global.json) {
    WriteJson(process.Shown(), details, writer);
  } else {
    Sheet sheet(writer);
    WriteFacts(sheet, process.Shown());
    WriteDetails(sheet, details);
  }
  writer.Finish();
  if (process.denied)
    std::fprintf(stderr,
                 "pmhost: process %u could be told in part only, as it belongs to another user or is "
                 "protected: %s\n",
                 process.record.pid, MissingRight().c_str());
}

}  // namespace pmhost
