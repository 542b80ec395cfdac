// The start of a program that has no tie to this process.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "zym/result.h"

namespace qor {

struct SpawnContext {
  static constexpr std::size_t kMaxStrings = 50;
  static constexpr std::size_t kMaxStringLength = 4095;

  std::string program;  // the path of the executable, which becomes the first argument
  // Of each list the first kMaxStrings are taken, and of each string the first kMaxStringLength bytes.
  std::vector<std::string> arguments;    // those that follow the program's name
  std::vector<std::string> environment;  // "NAME=value"; nothing else is inherited
  std::string workingDirectory = "/";
  std::optional<uid_t> userId;
  std::optional<gid_t> groupId;
  // The supplementary groups. Absent while a user or a group is given: there are none.
  std::optional<std::vector<gid_t>> groups;
  // Descriptors of this process; /dev/null for one that is absent.
  std::optional<int> standardInput;
  std::optional<int> standardOutput;
  std::optional<int> standardError;
};

// Runs the program as the leader of a session of its own, as a child of init or of the next subreaper, with
// the standard streams open and nothing else, no signal blocked, SIGCHLD and SIGHUP ignored, and a umask of
// 0. Waits until it is on its own, not until it runs: what fails after that (the working directory, the ids,
// execve(2)) ends it with an exit status (the errno; 132 to 134 real, effective and saved group, 135 to 137
// the same of the user). Its new parent may see that status; an end before the change of parents goes unseen.
//
// Safe in a process with threads: between fork and execve only async-signal-safe calls are made, on memory
// that was laid out before. The process in between is no child for wait(2) of other threads, and raises no
// SIGCHLD.
//
// The program of a relative path is the one below the working directory of this process, and
// ZYM_E_FILE_NOT_FOUND says that this directory was removed. ZYM_E_INVALID_ARGUMENT: a descriptor isn't open.
// ZYM_E_NOT_FOUND: there is no executable file of that name. Otherwise a failure is the errno by
// ErrnoToResult. Throws only std::bad_alloc.
zym::result_t SecureDaemonSpawn(const SpawnContext& spawnContext);

}  // namespace qor
