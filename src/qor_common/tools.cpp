#include "qor_common/tools.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "zym/exception.h"

namespace qor::tools {
namespace {

bool IsSameFile(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return ::fstatat(AT_FDCWD, a.c_str(), &first, 0) == 0 && ::fstatat(AT_FDCWD, b.c_str(), &second, 0) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

bool IsDeepNestedFile(std::string_view path) {
  return path == kPathIsTooLong;
}
bool IsDeepNestedFile(std::u16string_view path) {
  return path == kPathIsTooLong16;
}

bool IsTrustedExecutable(const std::string& path) {
  // The daemon, its control tool, its graphical client, the sibling tools, the management agent.
  static const std::string executables[] = {
      "/opt/quelmarin/vorn/libexec/vorn",         "/opt/quelmarin/vorn/bin/vorn-control",
      "/opt/quelmarin/vorn/libexec/vorn-gui",     "/opt/quelmarin/brelsh/bin/brelsh",
      "/opt/quelmarin/brelsh/bin/brelsh-control", "/opt/quelmarin/brelsh/bin/brelsh-update",
      "/opt/quelmarin/agent/bin/agent",
  };
  return std::ranges::any_of(executables, [&](const std::string& own) { return IsSameFile(path, own); });
}

bool IsAccessOk(zym::io_access_mode::Type requested, zym::io_access_mode::Type available) {
  return (requested & ~available) == 0;
}

std::string Realpath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  if (!resolved) throw zym::SystemException(__FILE__, __LINE__, errno, "Cannot resolve " + path);
  return resolved.get();
}

}  // namespace qor::tools
