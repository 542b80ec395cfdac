// Starting a program that has nothing to do with its starter any more.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "zym/result.h"

namespace qor {

struct SpawnContext {
  static constexpr std::size_t kMaxStrings = 50;  // arguments, and likewise variables; more are left out
  static constexpr std::size_t kMaxStringLength = 4095;  // bytes; longer ones are cut

  std::string program;                   // an absolute path
  std::vector<std::string> arguments;    // behind the program's own name
  std::vector<std::string> environment;  // "NAME=value"
  std::string workingDirectory = "/";
  std::optional<uid_t> userId;
  std::optional<gid_t> groupId;
  std::vector<gid_t> supplementaryGroups;  // set when any of the two ids is
  // Inherited as the standard streams; those that aren't given are /dev/null.
  std::optional<int> standardInput;
  std::optional<int> standardOutput;
  std::optional<int> standardError;
};

// Starts the program as a session leader of its own, with no other descriptors, no blocked signals and no tie
// to this process, whose death it survives. Returns when it is on its way; what becomes of it isn't told.
// ZYM_E_INVALID_ARGUMENT: a descriptor isn't open. ZYM_E_NOT_FOUND: no such executable. Else an errno.
zym::result_t SecureDaemonSpawn(const SpawnContext& spawnContext);

}  // namespace qor
