// What the command line said that every command needs.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace pmhost {

struct GlobalOptions {
  std::string module;            // empty: the one built or installed with pmhost
  std::uint32_t traceLevel = 0;  // 0: nothing is traced
  std::string traceFile;         // empty: standard error
  bool showPrivate = false;
  bool json = false;
  std::map<std::string, bool> features;        // named switches
  std::vector<std::string> excludedProcesses;  // patterns of images that interception is to leave alone
};

// `options` takes what is parsed, and lives as long as `app`.
void AddGlobalOptions(CLI::App& app, GlobalOptions& options);

}  // namespace pmhost
