#include "host/commands/ps.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/process_tree.h"
#include "host/output/shown_text.h"
#include "host/output/user_names.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using Processes = std::vector<KnownProcess>;

constexpr const char* kUnknown = "?";

std::string NumberText(std::optional<std::uint32_t> number) {
  return number ? std::to_string(*number) : kUnknown;
}

// What is missing is told where it disturbs no reader of the list.
void TellGaps(const ProcessReader& reader, const Processes& processes) {
  const auto denied = std::ranges::count_if(processes, &KnownProcess::denied);
  if (denied != 0)
    std::fprintf(stderr,
                 "pmhost: %ld of %zu processes could be told in part only, as they belong to other users or "
                 "are protected: %s\n",
                 static_cast<long>(denied), processes.size(), MissingRight().c_str());
  if (reader.AreOthersHidden())
    std::fprintf(stderr,
                 "pmhost: processes of other users are not listed, as /proc is mounted with hidepid: %s\n",
                 MissingRight().c_str());
}

void WriteJson(const Processes& processes, LineWriter& writer) {
  JsonLine json;
  TimeText time;
  for (const KnownProcess& process : processes) {
    json.Begin();
    WriteProcess(json, time, process.Shown());
    if (!writer.WriteLine(json.End())) return;
  }
}

// Columns for a person.
class ProcessTable {
 public:
  ProcessTable(const Processes& processes, LineWriter& writer)
      : m_processes(processes), m_writer(writer), m_width(writer.Width()) {
    for (const KnownProcess& process : processes)
      m_nameWidth = std::max(m_nameWidth, static_cast<int>(UserOf(process).size()));
  }

  void WriteHeading() {
    char columns[256];
    std::snprintf(columns, sizeof(columns), "%7s %7s %7s  %-*s  %-19s  COMMAND", "PID", "PPID", "UID",
                  m_nameWidth, "USER", "STARTED (UTC)");
    m_line = columns;
    Write();
  }

  // `branches`: what stands in front of the command. False: the reader is gone.
  bool WriteRow(std::size_t index, const std::string& branches) {
    const KnownProcess& known = m_processes[index];
    const ShownProcess process = known.Shown();
    char columns[256];
    std::snprintf(columns, sizeof(columns), "%7u %7s %7s  %-*s  %-19s  ", process.pid,
                  NumberText(process.parentPid).c_str(), NumberText(process.userId).c_str(), m_nameWidth,
                  UserOf(known).c_str(), StartOf(process).c_str());
    m_line = columns + branches;
    AppendCommand(process);
    return Write();
  }

 private:
  std::string UserOf(const KnownProcess& process) {
    std::string name;
    AppendShown(name, std::string_view(process.userId ? m_names.NameOf(*process.userId) : kUnknown));
    return name;
  }

  // To the second: "2026-03-01 08:00:00".
  std::string StartOf(const ShownProcess& process) {
    if (!process.startTime) return kUnknown;
    std::string text(m_time.FromDatetime(*process.startTime).substr(0, 19));
    text[10] = ' ';
    return text;
  }

  // The arguments; what has none, as the kernel's own threads, by the name of its image.
  void AppendCommand(const ShownProcess& process) {
    if (process.imagePath && (process.pid == 0 || !process.commandLine)) {
      AppendShown(m_line, *process.imagePath);
      if (process.commandLine) m_line += ": ";
    }
    if (process.commandLine)
      AppendShown(m_line, *process.commandLine);
    else if (!process.imagePath)
      m_line += kUnknown;
  }

  bool Write() {
    CutToWidth(m_line, m_width);
    return m_writer.WriteLine(m_line);
  }

  const Processes& m_processes;
  LineWriter& m_writer;
  const std::size_t m_width;
  int m_nameWidth = 4;
  UserNames m_names;
  TimeText m_time;
  std::string m_line;
};

void WriteTree(const Processes& processes, ProcessTable& table) {
  std::vector<TreeNode> nodes;
  for (const KnownProcess& process : processes)
    nodes.push_back({.pid = process.record.pid, .parentPid = process.Shown().parentPid});
  WalkTree(nodes, [&table](std::size_t index, const std::string& branches) {
    return table.WriteRow(index, branches);
  });
}

void WriteTable(const Processes& processes, bool tree, LineWriter& writer) {
  ProcessTable table(processes, writer);
  table.WriteHeading();
  if (tree) return WriteTree(processes, table);
  for (std::size_t i = 0; i < processes.size() && table.WriteRow(i, ""); ++i) continue;
}

}  // namespace

void ListProcesses(const GlobalOptions& global, const PsOptions& options) {
  const Host host(global);
  ProcessReader reader(host);
  const Processes processes = reader.ReadAll();
  LineWriter writer(STDOUT_FILENO);
  if (global.json)
    WriteJson(processes, writer);
  else
    WriteTable(processes, options.tree, writer);
  writer.Finish();
  TellGaps(reader, processes);
}

}  // namespace pmhost
