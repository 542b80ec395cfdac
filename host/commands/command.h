// One command of pmhost.
#pragma once

#include "host/options.h"

namespace CLI {
class App;
}

namespace pmhost {

// Owns its options, which the command line fills: it lives as long as that is parsed and until it has run.
class Command {
 public:
  Command() = default;
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // Adds the subcommand and its options.
  virtual CLI::App& AddTo(CLI::App& app) = 0;
  // Called when the command line is parsed. Throws CLI::ValidationError for options that don't go together.
  virtual void Check(const GlobalOptions&) {}
  // Throws Failure.
  virtual void Run(const GlobalOptions& global) = 0;
};

}  // namespace pmhost
