#include "host/commands/ps.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/output/process_columns.h"
#include "host/output/process_tree.h"
#include "host/output/table.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using Processes = std::vector<ListedProcess>;

// The arguments; what has none, as the kernel's own threads, by the name of its image.
Value CommandText(const ListedProcess& process) {
  const ProcessRecord& facts = process.facts;
  if (facts.commandLine.empty()) return KnownText(std::u16string_view(facts.imagePath));
  if (facts.pid != 0 || facts.imagePath.empty()) return std::u16string_view(facts.commandLine);
  return facts.imagePath + u": " + facts.commandLine;
}

std::vector<Column<ListedProcess>> Columns() {
  return ColumnsOf(&ListedProcess::facts, ProcessColumns()) +
         std::vector<Column<ListedProcess>>{
             {{"user_name", Kind::kUserName, "USER", 4, Audience::kPerson},
              [](const ListedProcess& process) { return Known(process.facts.userId); }},
             {{"command", Kind::kText, "COMMAND", 0, Audience::kPerson}, CommandText},
         };
}

// What is missing is reported where it disturbs no reader of the list.
void ReportGaps(const ProcessReader& reader, const Processes& processes) {
  const auto denied = std::ranges::count_if(processes, &ListedProcess::denied);
  if (denied != 0)
    std::fprintf(stderr,
                 "pmhost: %ld of %zu processes could be read in part only, as they belong to other users or "
                 "are protected: %s\n",
                 static_cast<long>(denied), processes.size(), MissingRight().c_str());
  if (reader.AreOthersHidden())
    std::fprintf(stderr,
                 "pmhost: processes of other users are not listed, as /proc is mounted with hidepid: %s\n",
                 MissingRight().c_str());
}

void PrintTree(const Processes& processes, Table<ListedProcess>& table) {
  std::vector<TreeNode> nodes;
  for (const ListedProcess& process : processes)
    nodes.push_back({.pid = process.facts.pid, .parentPid = process.facts.parentPid});
  table.Fit(processes);
  table.PrintHeading();
  WalkTree(nodes, [&](std::size_t index, const std::string& branches) {
    return table.Print(processes[index], branches);
  });
}

class Ps final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("ps", "List all processes, the kernel last");
    command.add_flag("--tree", m_tree, "Draw them as a tree of parents and children");
    return command;
  }

  void Check(const GlobalOptions& global) override {
    if (m_tree && global.json) throw CLI::ValidationError("--tree", "excludes --json, which has parent_pid");
  }

  void Run(const GlobalOptions& global) override {
    Host host(global);
    ProcessReader reader(host);
    const Processes processes = reader.ReadAll();
    LineWriter writer(STDOUT_FILENO);
    Table<ListedProcess> table(global.json ? Layout::kJson : Layout::kTable, Columns(), writer,
                               {"pid", "parent_pid", "user_id", "user_name", "start_time", "command"});
    if (m_tree)
      PrintTree(processes, table);
    else
      table.PrintAll(processes);
    writer.Finish();
    ReportGaps(reader, processes);
  }

 private:
  bool m_tree = false;
};

}  // namespace

std::unique_ptr<Command> MakePs() {
  return std::make_unique<Ps>();
}

}  // namespace pmhost
