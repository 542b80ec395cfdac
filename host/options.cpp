#include "host/options.h"

#include <CLI/CLI.hpp>

#include "host/commands/arguments.h"

namespace pmhost {

void AddGlobalOptions(CLI::App& app, GlobalOptions& options) {
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
  app.add_option_function<std::vector<std::string>>(
         "--feature",
         [&options](const std::vector<std::string>& names) {
           for (const std::string& name : names) options.features[name] = true;
         },
         "Turn a named switch of the module on; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  app.add_option("--exclude-process", options.excludedProcesses,
                 "Leave processes alone whose image matches GLOB; may be repeated")
      ->type_name("GLOB")
      ->allow_extra_args(false)
      ->check(CheckPattern);
  app.add_flag("--show-private", options.showPrivate, "Allow command lines and environments in the trace");
  app.add_flag("--json", options.json, "Print one JSON object a line");
  app.fallthrough();
}

}  // namespace pmhost
