// pmhost: the reference host.
#include <CLI/CLI.hpp>

#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "host/commands/features.h"
#include "host/commands/kill.h"
#include "host/commands/memory.h"
#include "host/commands/modules.h"
#include "host/commands/os.h"
#include "host/commands/ps.h"
#include "host/commands/show.h"
#include "host/commands/watch.h"
#include "host/options.h"
#include "host/services/path_pattern.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

// What is wrong with a pattern; nothing if it is one.
std::string CheckPattern(const std::string& text) {
  try {
    static_cast<void>(pmhost::PathPattern(text));
    return {};
  } catch (const std::invalid_argument& e) {
    return "'" + text + "' is no pattern: " + e.what();
  }
}

void AddGlobalOptions(CLI::App& app, pmhost::GlobalOptions& options, std::vector<std::string>& features) {
  app.set_version_flag("--version", "pmhost " PMHOST_VERSION);
  app.set_config("--config", "", "Read options from FILE (INI or TOML)")->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.add_option("--module", options.module, "The module (default: the one built or installed with pmhost)")
      ->type_name("FILE");
  app.add_option("--trace", options.traceLevel,
                 "Trace up to LEVEL: 300 failures, 500 warnings, 700 notices, 800 calls")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({300, 500, 700, 800}));
  app.add_option("--trace-file", options.traceFile, "Append the trace to FILE (default: standard error)")
      ->type_name("FILE");
  app.add_option("--feature", features, "Turn a named switch of the module on; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  app.add_option("--exclude-process", options.excludedProcesses,
                 "Interception leaves processes alone whose image matches GLOB; may be repeated")
      ->type_name("GLOB")
      ->allow_extra_args(false)
      ->check(CheckPattern);
  app.add_flag("--show-private", options.showPrivate, "Let command lines and environments into the trace");
  app.add_flag("--json", options.json, "Print one JSON object a line");
  app.fallthrough();
}

// A number in decimal, and nothing else: with a leading zero too, and never a sign.
template <class T>
T TakeNumber(const char* option, const std::string& text, T last) {
  const char* const end = text.data() + text.size();
  T number = 0;
  const auto [parsed, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || parsed != end || number > last)
    throw CLI::ValidationError(option, text + " is no number from 0 to " + std::to_string(last));
  return number;
}

constexpr std::uint32_t kLastPid = 0x7fffffff;  // pid_t is signed

// `take` gets the pid. Commands for which the kernel is no process don't take 0.
CLI::Option& AddPid(CLI::App& command, const std::function<void(std::uint32_t)>& take, bool takesKernel) {
  const auto parse = [take, takesKernel](const std::string& text) {
    const std::uint32_t pid = TakeNumber("PID", text, kLastPid);
    if (pid == 0 && !takesKernel) throw CLI::ValidationError("PID", "0 is the kernel, and not a process");
    take(pid);
  };
  return *command.add_option_function<std::string>("PID", parse, "The process")->type_name("");
}

// `numbers` keeps the texts of ADDRESS and LENGTH.
CLI::App& AddMemory(CLI::App& app, pmhost::MemoryOptions& options, std::vector<std::string>& numbers) {
  CLI::App& command =
      *app.add_subcommand("memory", "Tell the regions of a process's memory, or what is in it");
  AddPid(
      command, [&options](std::uint32_t pid) { options.pid = pid; }, false)
      .required();
  const CLI::Validator number(
      [](const std::string& text) {
        return pmhost::ParseMemoryNumber(text) ? std::string() : text + " is no number: 4096, or 0x1000";
      },
      "");
  CLI::Option* const read = command.add_option("--read", numbers, "Print LENGTH bytes at ADDRESS")
                                ->type_name("ADDRESS LENGTH")
                                ->expected(2)
                                ->check(number);
  command.add_flag("--raw", options.raw, "Print the bytes as they are, and not as a hex dump")->needs(read);
  return command;
}

// Throws CLI::ValidationError.
void TakeRange(pmhost::MemoryOptions& options, const std::vector<std::string>& numbers) {
  if (numbers.size() != 2) return;
  const pmhost::MemoryRange range{.address = pmhost::ParseMemoryNumber(numbers[0]).value(),
                                  .length = pmhost::ParseMemoryNumber(numbers[1]).value()};
  if (range.address + range.length < range.address)
    throw CLI::ValidationError("--read", "the range goes beyond the last address");
  options.read = range;
}

// Nothing if it is a time to wait.
std::string CheckSeconds(const std::string& text) {
  constexpr double kLongest = 1e9;
  const char* const end = text.data() + text.size();
  double seconds = 0;
  const auto [parsed, error] = std::from_chars(text.data(), end, seconds);
  const bool isTime = error == std::errc() && parsed == end && seconds >= 0 && seconds <= kLongest;  // no NaN
  return isTime ? std::string() : text + " is no number of seconds from 0 to 1000000000";
}

CLI::App& AddWatch(CLI::App& app, pmhost::WatchOptions& options) {
  CLI::App& command =
      *app.add_subcommand("watch", "Tell every process that starts, replaces its image, or ends");
  command.add_flag("--full", options.full, "Read credentials and environments too");
  command.add_option("--for", options.seconds, "End after so many seconds")
      ->type_name("SECONDS")
      ->check(CheckSeconds);
  const auto take = [&options](const std::string& text) {
    options.count = TakeNumber("--count", text, std::numeric_limits<std::uint64_t>::max());
    if (options.count == 0U) throw CLI::ValidationError("--count", "0 is no number of events to wait for");
  };
  command.add_option_function<std::string>("--count", take, "End after so many events")->type_name("N");
  return command;
}

CLI::App& AddShow(CLI::App& app, pmhost::ShowOptions& options) {
  CLI::App& command = *app.add_subcommand("show", "Tell all that is known of one process");
  CLI::Option& pid = AddPid(
      command, [&options](std::uint32_t value) { options.pid = value; }, true);
  const auto take = [&options](const std::string& text) {
    options.uniquePid = TakeNumber("--unique", text, std::numeric_limits<std::uint64_t>::max());
  };
  command.add_option_function<std::string>("--unique", take, "The process with this image")
      ->type_name("ID")
      ->excludes(&pid);
  return command;
}

CLI::App& AddKill(CLI::App& app, pmhost::KillOptions& options) {
  CLI::App& command = *app.add_subcommand("kill", "Ask a process to end (SIGTERM)");
  AddPid(
      command, [&options](std::uint32_t pid) { options.pid = pid; }, true)
      .required();
  const auto take = [&options](const std::string& text) {
    options.wait = TakeNumber("--wait", text, std::numeric_limits<std::uint32_t>::max());
  };
  command
      .add_option_function<std::string>("--wait", take,
                                        "Wait for its end so many milliseconds, and then force it (SIGKILL)")
      ->type_name("MS");
  return command;
}

std::string ExplainBadUsage(const CLI::App* app, const CLI::Error& e) {
  std::string command = "pmhost";
  for (const CLI::App* subcommand : app->get_subcommands()) command += " " + subcommand->get_name();
  return "pmhost: " + std::string(e.what()) + "; " + command + " --help tells what there is\n";
}

int Run(int argc, char** argv) {
  pmhost::GlobalOptions global;
  pmhost::WatchOptions watch;
  std::vector<std::string> features;
  std::function<void()> command = [&] { pmhost::Watch(global, watch); };

  CLI::App app("Loads the process manager module and shows what it can do. Without a command: watch.",
               "pmhost");
  app.require_subcommand(0, 1);
  app.failure_message(ExplainBadUsage);
  app.footer(
      "pmhost COMMAND --help tells the options of a command; those above go with each of them.\n"
      "Exit status: 0 done, 1 the work failed, 2 bad usage.");
  AddGlobalOptions(app, global, features);

  AddWatch(app, watch);
  pmhost::PsOptions ps;
  CLI::App& psCommand = *app.add_subcommand("ps", "List all processes, the kernel last");
  psCommand.add_flag("--tree", ps.tree, "Draw them as a tree of parents and children");
  psCommand.callback([&] {
    if (ps.tree && global.json) throw CLI::ValidationError("--tree", "excludes --json: parent_pid tells it");
    command = [&] { pmhost::ListProcesses(global, ps); };
  });
  pmhost::ShowOptions show;
  AddShow(app, show).callback([&] {
    if (!show.pid && !show.uniquePid) throw CLI::ValidationError("show", "needs PID or --unique ID");
    command = [&] { pmhost::ShowProcess(global, show); };
  });
  pmhost::KillOptions kill;
  AddKill(app, kill).callback([&] { command = [&] { pmhost::KillProcess(global, kill); }; });
  pmhost::MemoryOptions memory;
  std::vector<std::string> numbers;
  AddMemory(app, memory, numbers).callback([&] {
    TakeRange(memory, numbers);
    if (memory.raw && global.json) throw CLI::ValidationError("--raw", "excludes --json");
    command = [&] { pmhost::ShowMemory(global, memory); };
  });
  std::uint32_t modulesPid = 0;
  CLI::App& modulesCommand = *app.add_subcommand("modules", "Tell the code that is loaded in a process");
  AddPid(
      modulesCommand, [&modulesPid](std::uint32_t pid) { modulesPid = pid; }, false)
      .required();
  modulesCommand.callback([&] { command = [&] { pmhost::ShowModules(global, modulesPid); }; });
  app.add_subcommand("os", "Tell what the module thinks it runs on")->callback([&] {
    command = [&] { pmhost::ShowOs(global); };
  });
  app.add_subcommand("features", "Tell which features run, and by which technologies")->callback([&] {
    command = [&] { pmhost::ShowFeatures(global); };
  });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kDone : kBadUsage;
  }
  for (const std::string& name : features) global.features[name] = true;
  command();
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away is told by the write that fails.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "pmhost: %s\n", e.what());
    return kFailed;
  }
}
