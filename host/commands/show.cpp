#include "host/commands/show.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "host/commands/arguments.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/process_columns.h"
#include "host/output/table.h"
#include "host/process_details.h"
#include "host/process_reader.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

struct Row {
  ProcessRecord process;
  ProcessDetails details;
};

constexpr std::uint64_t kUnitsPerSecond = zym::datetime::kUnitsPerSecond;

Value Environment(const Row& row) {
  if (!row.details.environment) return NotKnown();
  return Names(row.details.environment->begin(), row.details.environment->end());
}

Value Localization(const Row& row) {
  const auto& localization = row.details.localization;
  return localization ? Value(std::u16string_view(*localization)) : Value(NotKnown());
}

Value Attributes(const Row& row) {
  if (!row.details.attributes) return NotKnown();
  Names names;
  if ((*row.details.attributes & kInvisibleProcess) != 0) names.emplace_back("invisible");
  return names;
}

// --- what JSON has as objects ------------------------------------------------------------------------------

Value Times(const Row& row) {
  const auto& times = row.details.times;
  if (!times) return NotKnown();
  return Members{{"kernel_seconds", Kind::kNumber, times->kernelTime / kUnitsPerSecond},
                 {"user_seconds", Kind::kNumber, times->userTime / kUnitsPerSecond}};
}

Value Io(const Row& row) {
  const auto& io = row.details.io;
  if (!io) return NotKnown();
  return Members{{"read_operations", Kind::kLongNumber, io->readOperations},
                 {"write_operations", Kind::kLongNumber, io->writeOperations},
                 {"read_bytes", Kind::kLongNumber, io->readBytes},
                 {"write_bytes", Kind::kLongNumber, io->writeBytes}};
}

Value Seconds(const Row& row, std::uint64_t ProcessTimes::*time) {
  const auto& times = row.details.times;
  return times ? Value(std::to_string((*times).*time / kUnitsPerSecond) + " s") : Value(NotKnown());
}

Value Amount(const Row& row, std::uint64_t ProcessIoCounters::*operations,
             std::uint64_t ProcessIoCounters::*bytes) {
  const auto& io = row.details.io;
  if (!io) return NotKnown();
  return std::to_string((*io).*bytes) + " bytes in " + std::to_string((*io).*operations) + " operations";
}

// --- the command -------------------------------------------------------------------------------------------

std::vector<Column<Row>> Columns() {
  const auto detail = [](auto ProcessDetails::*member) {
    return [member](const Row& row) { return Known(row.details.*member); };
  };
  constexpr auto kJson = Audience::kJson;
  constexpr auto kPerson = Audience::kPerson;
  return ColumnsOf(&Row::process, ProcessColumns()) +
         std::vector<Column<Row>>{
             {{"effective_user_id", Kind::kUser}, detail(&ProcessDetails::effectiveUserId)},
             {{"real_group_id", Kind::kNumber}, detail(&ProcessDetails::realGroupId)},
             {{"effective_group_id", Kind::kNumber}, detail(&ProcessDetails::effectiveGroupId)},
             {{"environment", Kind::kLines}, Environment},
             {{"mount_namespace", Kind::kLongNumber}, detail(&ProcessDetails::mountNamespace)},
             {{"host_mount_namespace", Kind::kYesNo}, detail(&ProcessDetails::hostMountNamespace)},
             {{"localization", Kind::kText}, Localization},
             {{"attributes", Kind::kNames}, Attributes},
             {{"times", Kind::kObject, "", 0, kJson}, Times},
             {{"io", Kind::kObject, "", 0, kJson}, Io},
             {{"kernel_time", Kind::kText, "", 0, kPerson},
              [](const Row& row) { return Seconds(row, &ProcessTimes::kernelTime); }},
             {{"user_time", Kind::kText, "", 0, kPerson},
              [](const Row& row) { return Seconds(row, &ProcessTimes::userTime); }},
             {{"read", Kind::kText, "", 0, kPerson},
              [](const Row& row) {
                return Amount(row, &ProcessIoCounters::readOperations, &ProcessIoCounters::readBytes);
              }},
             {{"written", Kind::kText, "", 0, kPerson},
              [](const Row& row) {
                return Amount(row, &ProcessIoCounters::writeOperations, &ProcessIoCounters::writeBytes);
              }},
         };
}

class Show final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("show", "Show all that is known of one process");
    m_pidOption = AddPid(command, m_pid, TakesKernel::kYes);
    m_uniqueOption = AddNumber(command, "--unique", kAnyNumber, "Show the process with this image",
                               [this](std::uint64_t uniquePid) { m_uniquePid = uniquePid; });
    m_uniqueOption->type_name("ID");
    m_uniqueOption->excludes(m_pidOption);
    return command;
  }

  void Check(const GlobalOptions&) override {
    if (!*m_pidOption && !*m_uniqueOption) throw CLI::ValidationError("show", "needs PID or --unique ID");
  }

  void Run(const GlobalOptions& global) override {
    Host host(global);
    ProcessReader reader(host);
    ListedProcess process = Find(reader);
    const std::uint32_t pid = process.facts.pid;
    LineWriter writer(STDOUT_FILENO);
    Table<Row>(global.json ? Layout::kJson : Layout::kSheet, Columns(), writer)
        .Print({std::move(process.facts), ReadDetails(host, pid)});
    writer.Finish();
    if (process.denied)
      std::fprintf(stderr,
                   "pmhost: process %u could be read in part only, as it belongs to another user or is "
                   "protected: %s\n",
                   pid, MissingRight().c_str());
  }

 private:
  ListedProcess Find(ProcessReader& reader) const {
    if (!*m_uniqueOption) {
      std::optional<ListedProcess> process = reader.Read(m_pid);
      if (!process)
        throw Failure(reader.ExplainAbsence("cannot show process " + std::to_string(m_pid), m_pid));
      return std::move(*process);
    }
    const std::uint32_t pid = qor::PidOf(m_uniquePid);
    std::optional<ListedProcess> process = reader.ReadByUniquePid(m_uniquePid);
    if (!process)
      throw Failure("cannot show the image with the unique pid " + std::to_string(m_uniquePid) +
                    ": it is gone, and process " + std::to_string(pid) +
                    " is another or not there; pmhost ps lists the processes");
    if (process->facts.uniquePid != m_uniquePid)
      std::fprintf(
          stderr,
          "pmhost: the unique pid is of another run of the module: process %u was there already, but "
          "whether it has replaced its image since is not known\n",
          pid);
    return std::move(*process);
  }

  std::uint32_t m_pid = 0;
  std::uint64_t m_uniquePid = 0;
  CLI::Option* m_pidOption = nullptr;
  CLI::Option* m_uniqueOption = nullptr;  // one of the two is given
};

}  // namespace

std::unique_ptr<Command> MakeShow() {
  return std::make_unique<Show>();
}

}  // namespace pmhost
