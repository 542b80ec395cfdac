// Small functions that several components ask for.
#pragma once

#include <cstdint>
#include <string_view>

#include "process_manager/types.h"
#include "zym/result.h"

namespace qor::tools {

// In place of a path that is too deep to be expressed.
inline constexpr std::string_view kPathIsTooLong = "<PATH IS TOO LONG>";
inline constexpr std::u16string_view kPathIsTooLong16 = u"<PATH IS TOO LONG>";

// The path is that placeholder, as a whole.
bool IsDeepNestedFile(std::string_view path);
bool IsDeepNestedFile(std::u16string_view path);

// Every bit of `requested` is in `available`.
constexpr bool IsAccessOk(std::uint32_t requested, std::uint32_t available) {
  return (requested & available) == requested;
}

// The path of an open descriptor of this process, as the link "/proc/self/fd/<fd>" gives it: a removed file
// has " (deleted)" behind its name, and a path that the kernel can't put into one page is kPathIsTooLong. A
// failure is the errno by ErrnoToResult and leaves `path` alone.
zym::result_t GetDescriptorPath(int fd, NativePath& path);

// realpath(3). Throws zym::SystemException, "Cannot resolve path ", when there is no such file.
NativePath Realpath(const NativePath& path);

}  // namespace qor::tools
