// The place of /proc.
#pragma once

#include <string>

namespace qor::procfs {

// "/proc/", or the value of VORN_HOST_PROCFS if it is set and exists; always with a slash at its end.
// Computed at the first use and kept. Read in a program that has more rights than its starter too (file
// capabilities, set-user-id), as an agent in a container may have: a program that doesn't trust its starter
// removes the variable at its beginning, as pmhost does.
const std::string& GetProcfsRoot();

}  // namespace qor::procfs
