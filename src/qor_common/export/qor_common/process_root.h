// Paths as another process sees them, opened without entering its mount namespace.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "qor_common/unique_fd.h"
#include "zym/result.h"

namespace qor::tools {

// Opens the directory of `path`, from the root of `pid` if the path is absolute, else from its working
// directory, and replaces what `dirFd` held. ZYM_E_UNSPECIFIED: it can't be opened.
zym::result_t OpenDirectoryOfPath(std::uint32_t pid, std::u16string_view path, UniqueFd& dirFd);

// The same, and then the file itself, read-only.
zym::result_t OpenFileOfPath(std::uint32_t pid, std::u16string_view path, UniqueFd& dirFd, UniqueFd& fileFd);

// openat(2) with a path of any length: one beyond PATH_MAX is walked in pieces. -1 with errno on failure.
int OpenLongPath(int dirFd, std::string_view path, int flags);

// A path through another process's root: "/proc/<pid>/root/...".
bool IsProcRootPath(const std::string& path);
// What follows the root in such a path.
std::string StripProcRoot(const std::string& path);

// The path behind an own descriptor, by its link in /proc/self/fd; empty when there is none.
std::string GetDescriptorPath(int fd);

}  // namespace qor::tools
