// Files as another process sees them, without entering its mount namespace.
#pragma once

#include <string>
#include <string_view>

#include "process_manager/types.h"
#include "qor_common/unique_fd.h"
#include "zym/result.h"

namespace qor::tools {

// Opens the directory of `path` from the root of the process, or from its working directory when `path` is
// relative. Below that the kernel follows links as for this process, so `path` should hold none, which is so
// for the targets that /proc gives. ZYM_E_UNSPECIFIED: the process or the directory can't be opened. `dirFd`
// gets the descriptor and closes what it held; it is left alone when the process itself can't be opened.
zym::result_t OpenDirectoryOfPath(PidType pid, std::u16string_view path, UniqueFd& dirFd);

// The same, and then the file itself, for reading.
zym::result_t OpenFileOfPath(PidType pid, std::u16string_view path, UniqueFd& dirFd, UniqueFd& fileFd);

// openat(2) for a path of any length: goes down piece by piece where the kernel takes at most 4095 bytes. -1
// and errno on a failure, with nothing left open.
int OpenLongPath(int dirFd, std::string_view path, int flags);

// The path runs through the root of a process: "/proc/[0-9]+/root/.*" matches it whole.
bool IsProcRootPath(std::string_view path);

// What follows the root in such a path; empty when nothing follows, or for any other path. Reads with the
// format "/proc/%d/root%4096s": the result ends at the first white space, and at 4096 bytes.
std::string StripProcRoot(const std::string& path);

}  // namespace qor::tools
