#include "qor_common/tools.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "zym/exception.h"

namespace qor::tools {

bool IsDeepNestedFile(std::string_view path) {
  return path == kPathIsTooLong;
}

bool IsDeepNestedFile(std::u16string_view path) {
  return path == kPathIsTooLong16;
}

zym::result_t GetDescriptorPath(int fd, NativePath& path) {
  char link[32];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  // The kernel builds the path in one page, and says ENAMETOOLONG when it doesn't fit (d_path in
  // fs/d_path.c).
  char target[4096];
  const ssize_t length = ::readlink(link, target, sizeof(target));
  const int error = errno;
  if (length < 0 && error != ENAMETOOLONG) return zym::ErrnoToResult(error);
  if (length < 0 || length == static_cast<ssize_t>(sizeof(target)))
    path = kPathIsTooLong;
  else
    path.assign(target, static_cast<std::size_t>(length));
  return zym::ZYM_OK;
}

NativePath Realpath(const NativePath& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  const int error = errno;
  if (!resolved) throw zym::SystemException(__FILE__, __LINE__, error, "Cannot resolve path " + path);
  return resolved.get();
}

}  // namespace qor::tools
