// The place of /proc.
#pragma once

#include <string>

namespace qor::procfs {

// "/proc/", or the value of VORN_HOST_PROCFS if it is set and exists; always with a slash at its end.
// Computed at the first use and kept.
const std::string& GetProcfsRoot();

}  // namespace qor::procfs
