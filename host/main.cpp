// pmhost: the reference host.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "host/commands/features.h"
#include "host/commands/kill.h"
#include "host/commands/memory.h"
#include "host/commands/modules.h"
#include "host/commands/os.h"
#include "host/commands/ps.h"
#include "host/commands/show.h"
#include "host/commands/watch.h"
#include "host/options.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

std::string ExplainBadUsage(const CLI::App* app, const CLI::Error& e) {
  std::string command = "pmhost";
  for (const CLI::App* subcommand : app->get_subcommands()) command += " " + subcommand->get_name();
  return "pmhost: " + std::string(e.what()) + "; see " + command + " --help\n";
}

int Run(int argc, char** argv) {
  const std::unique_ptr<pmhost::Command> commands[] = {
      pmhost::MakeWatch(),  pmhost::MakePs(),      pmhost::MakeShow(), pmhost::MakeKill(),
      pmhost::MakeMemory(), pmhost::MakeModules(), pmhost::MakeOs(),   pmhost::MakeFeatures(),
  };
  pmhost::Command* chosen = commands[0].get();

  CLI::App app("Load the process manager module and use it. Without a command: watch.", "pmhost");
  app.set_version_flag("--version", "pmhost " PMHOST_VERSION);
  app.require_subcommand(0, 1);
  app.failure_message(ExplainBadUsage);
  app.footer(
      "pmhost COMMAND --help lists the options of a command; those above go with each of them.\n"
      "Exit status: 0 done, 1 the work failed, 2 bad usage.");
  pmhost::GlobalOptions global;
  AddGlobalOptions(app, global);
  for (const auto& command : commands)
    command->AddTo(app).callback([&, command = command.get()] {
      command->Check(global);
      chosen = command;
    });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kDone : kBadUsage;
  }
  chosen->Run(global);
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // the write that fails reports a reader that is gone
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "pmhost: %s\n", e.what());
    return kFailed;
  }
}
