// Files of processes in /proc, for what the module's reader doesn't offer.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qor_common/unique_fd.h"

namespace pmhost {

// The file or link `name` in the directory of a process, below the procfs root.
std::string ProcPath(std::uint32_t pid, const std::string& name);

// For reading. Empty: `errno` has the reason.
qor::UniqueFd OpenProcFile(std::uint32_t pid, const std::string& name);
// The whole file; empty when it can't be read.
std::string ReadProcFile(std::uint32_t pid, const std::string& name);
// 0, or the errno of reading a link.
int TryProcLink(std::uint32_t pid, const std::string& name);

// The arguments of a process, joined by single blanks, as bytes; everybody may read them.
std::string ReadCommandLine(std::uint32_t pid);

// The process to which `id` belongs, which for the id of a thread is another than `id`. Absent: there is
// neither.
std::optional<std::uint32_t> ProcessOfThread(std::uint32_t id);

// The ids of the threads of a process; empty when there is no such process.
std::vector<std::uint32_t> ThreadsOf(std::uint32_t pid);

// What the stat file of a process or thread says of its run: proc(5). The module's reader refuses a name with
// a line end in it, and a process that is to be stopped may have such a name.
struct RunState {
  char state = 0;
  std::string startTime;  // clock ticks since boot: the same pid with another one is another process
};
// Absent: there is no such process or thread.
std::optional<RunState> ReadRunState(std::uint32_t id);

}  // namespace pmhost
