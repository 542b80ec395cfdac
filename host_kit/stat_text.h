// The text of a process's stat file as values, whatever its name holds.
#pragma once

#include <string_view>

#include "process_manager/proc_parser.h"

namespace host_kit {

// `text` is the whole file. A process chooses its name, and the kernel writes it there as it is, with line
// ends and parentheses: only what stands behind the last ')' is the kernel's own. Sets the fields that come
// from the file. False: it is no such text, and `stat` is untouched.
[[nodiscard]] bool ParseStatText(std::string_view text, qor::procfs::Stat& stat);

}  // namespace host_kit
