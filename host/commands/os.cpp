#include "host/commands/os.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <string>

#include "host/failure.h"
#include "host/output/table.h"
#include "host/services/tracer.h"
#include "qor_common/os_info.h"

namespace pmhost {
namespace {

struct Row {
  qor::OsInfo info;
  std::string kernel;
  bool workstation = false;
};

std::vector<Column<Row>> Columns() {
  const auto text = [](const std::string& value) { return KnownText(std::string_view(value)); };
  return {
      {{"name", Kind::kText}, [text](const Row& row) { return text(row.info.name); }},
      {{"version", Kind::kText}, [text](const Row& row) { return text(row.info.version); }},
      {{"description", Kind::kText}, [text](const Row& row) { return text(row.info.description); }},
      {{"kernel", Kind::kText}, [text](const Row& row) { return text(row.kernel); }},
      {{"workstation", Kind::kYesNo}, [](const Row& row) { return Value(row.workstation); }},
  };
}

// "6.1.0": as many numbers as are known.
std::string Shown(const qor::KernelVersion& kernel) {
  std::string text;
  const char* separator = "";
  for (const int number : {kernel.major, kernel.minor, kernel.patch, kernel.build}) {
    if (number < 0) break;
    text += separator + std::to_string(number);
    separator = ".";
  }
  return text;
}

// The release files are written for a shell: a value may stand in quotes, with a backslash before some
// characters. A text of another form is shown as it is.
std::string Unquoted(const std::string& value) {
  const char quote = value.empty() ? '\0' : value.front();
  if (value.size() < 2 || (quote != '"' && quote != '\'') || value.back() != quote) return value;
  std::string text;
  for (std::size_t i = 1; i + 1 < value.size(); ++i) {
    if (quote == '"' && value[i] == '\\' && i + 2 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

class Os final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    return *app.add_subcommand("os", "Show distribution and kernel, and whether this is a workstation");
  }

  void Run(const GlobalOptions& global) override {
    const auto tracer = zym::CreateObject<Tracer>(global.traceLevel, global.traceFile);
    Row row;
    Require(qor::GetOsInfo(tracer.get(), row.info), "cannot read what this machine runs");
    for (std::string* const value : {&row.info.name, &row.info.version, &row.info.description})
      *value = Unquoted(*value);
    row.kernel = Shown(qor::GetLinuxKernelRelease(tracer.get()));
    row.workstation = qor::IsWorkstation(tracer.get());
    LineWriter writer(STDOUT_FILENO);
    Table<Row>(global.json ? Layout::kJson : Layout::kSheet, Columns(), writer).Print(row);
    writer.Finish();
  }
};

}  // namespace

std::unique_ptr<Command> MakeOs() {
  return std::make_unique<Os>();
}

}  // namespace pmhost
