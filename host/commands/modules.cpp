#include "host/commands/modules.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <optional>
#include <string>

#include "host/commands/arguments.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/mapped_path.h"
#include "host/output/table.h"
#include "host/process_reach.h"
#include "process_manager/process_modules.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

struct Row {
  std::uint64_t base = 0;
  std::uint64_t size = 0;
  std::optional<std::string> path;
};

// JSON has the path first, a person last.
std::vector<Column<Row>> Columns() {
  return {
      {{"path", Kind::kText, "PATH"}, [](const Row& row) { return MappedPath(row.path); }},
      {{"base", Kind::kAddress, "BASE", 18}, [](const Row& row) { return Value(row.base); }},
      {{"size", Kind::kLongNumber, "SIZE", 10}, [](const Row& row) { return Value(row.size); }},
  };
}

class Modules final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    CLI::App& command = *app.add_subcommand("modules", "List the code that is loaded in a process");
    AddPid(command, m_pid)->required();
    return command;
  }

  void Run(const GlobalOptions& global) override {
    Host host(global);
    const auto manager = host.Make<IProcessModuleManager>(qor::class_ids::kProcessModuleManager,
                                                          "the manager of loaded modules");
    zym::intrusive_ptr<IProcessModuleEnumerator> enumerator;
    if (const zym::result_t result = manager->EnumerateModules(m_pid, enumerator.Ref());
        !ZYM_SUCCEEDED(result))
      throw Failure(ExplainProcess("cannot list the modules of process " + std::to_string(m_pid), m_pid,
                                   "maps", std::string(zym::ResultText(result))));

    LineWriter writer(STDOUT_FILENO);
    Table<Row> table(global.json ? Layout::kJson : Layout::kTable, Columns(), writer,
                     {"base", "size", "path"});
    table.PrintHeading();
    MappedPaths paths(host.GetParser(), m_pid);
    zym::intrusive_ptr<IProcessModule> module;
    zym::result_t next = zym::ZYM_OK;
    while ((next = enumerator->Next(module.Ref())) == zym::ZYM_OK)
      if (!table.Print(Read(*module, paths))) break;
    Require(next, "cannot read the modules of process " + std::to_string(m_pid) + " to their end");
    writer.Finish();
  }

 private:
  static Row Read(IProcessModule& module, MappedPaths& paths) {
    Row row;
    zym::types::string16_t path;
    Require(module.GetBaseAddress(row.base), "cannot read the base of a module");
    Require(module.GetSize(row.size), "cannot read the size of a module");
    const zym::result_t result = module.GetImagePath(path);
    row.path = paths.Path(result, path, row.base);
    return row;
  }

  std::uint32_t m_pid = 0;
};

}  // namespace

std::unique_ptr<Command> MakeModules() {
  return std::make_unique<Modules>();
}

}  // namespace pmhost
