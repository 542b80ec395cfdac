#include "qor_common/process_root.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>

#include "qor_common/procfs_root.h"
#include "zym/exception_to_result.h"
#include "zym/utf.h"

namespace qor::tools {
namespace {

constexpr std::size_t kPathMax = 4096;       // with its terminator, as the kernel takes it (limits.h)
constexpr std::size_t kLongestPiece = 4094;  // of a walk
constexpr int kDirectory = O_DIRECTORY | O_CLOEXEC;
static_assert(kDirectory == 0x90000);

// openat for a path that isn't terminated and is shorter than kPathMax.
int OpenShortPath(int dirFd, std::string_view path, int flags) {
  char terminated[kPathMax];
  std::memcpy(terminated, path.data(), path.size());
  terminated[path.size()] = '\0';
  return ::openat(dirFd, terminated, flags);
}

std::string_view WithoutLeadingSlashes(std::string_view path) {
  return path.substr(std::min(path.find_first_not_of('/'), path.size()));
}

// A path of UTF-8 in its two halves, both below the root or the working directory that it starts from.
struct SplitPath {
  bool absolute;
  std::string_view directory;
  std::string_view name;
};

SplitPath Split(std::string_view path) {
  const bool absolute = path.starts_with('/');
  // All of the leading ones: a directory part that began with a slash would leave the process's root.
  path = WithoutLeadingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {absolute, {}, path};
  std::string_view directory = path.substr(0, slash);
  while (directory.ends_with('/')) directory.remove_suffix(1);
  return {absolute, directory, path.substr(slash + 1)};
}

UniqueFd OpenStart(PidType pid, bool absolute) {
  char name[16];
  std::snprintf(name, sizeof(name), "%u", pid);
  const std::string path = procfs::GetProcfsRoot() + name + (absolute ? "/root" : "/cwd");
  return UniqueFd(::open(path.c_str(), kDirectory));
}

zym::result_t OpenDirectory(PidType pid, const SplitPath& path, UniqueFd& dirFd) {
  UniqueFd start = OpenStart(pid, path.absolute);
  if (!start) return zym::ZYM_E_UNSPECIFIED;
  dirFd = path.directory.empty() ? std::move(start)
                                 : UniqueFd(OpenLongPath(start.Get(), path.directory, kDirectory));
  return dirFd ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

zym::result_t OpenDirectoryOfPath(PidType pid, std::u16string_view path, UniqueFd& dirFd) try {
  const std::optional<std::string> nativePath = zym::Utf16ToUtf8(path);
  if (!nativePath) return zym::ZYM_E_UNSPECIFIED;
  return OpenDirectory(pid, Split(*nativePath), dirFd);
} catch (...) {
  return zym::ExceptionInFunctionToResult(nullptr, __func__);
}

zym::result_t OpenFileOfPath(PidType pid, std::u16string_view path, UniqueFd& dirFd, UniqueFd& fileFd) try {
  const std::optional<std::string> nativePath = zym::Utf16ToUtf8(path);
  if (!nativePath) return zym::ZYM_E_UNSPECIFIED;
  const SplitPath split = Split(*nativePath);
  if (const zym::result_t result = OpenDirectory(pid, split, dirFd); !ZYM_SUCCEEDED(result)) return result;
  fileFd.Reset(OpenLongPath(dirFd.Get(), split.name, O_RDONLY | O_CLOEXEC));
  return fileFd ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
} catch (...) {
  return zym::ExceptionInFunctionToResult(nullptr, __func__);
}

int OpenLongPath(int dirFd, std::string_view path, int flags) {
  // The kernel would read such a path up to its NUL only, and open another file.
  if (path.find('\0') != std::string_view::npos) {
    errno = EINVAL;
    return -1;
  }
  if (dirFd == AT_FDCWD && path.size() < kPathMax) return OpenShortPath(dirFd, path, flags);

  UniqueFd walked;
  int current = dirFd;
  while (path.size() >= kPathMax) {
    const std::size_t slash = path.rfind('/', kLongestPiece);
    if (slash == std::string_view::npos || slash == 0) {  // a component that no file system has
      errno = ENAMETOOLONG;
      return -1;
    }
    UniqueFd next(OpenShortPath(current, path.substr(0, slash), kDirectory));
    if (!next) return -1;
    walked = std::move(next);
    current = walked.Get();
    // Slashes on both sides of the cut must not make the rest an absolute path.
    path = WithoutLeadingSlashes(path.substr(slash));
    if (path.empty()) path = ".";
  }
  return OpenShortPath(current, path, flags);
}

bool IsProcRootPath(std::string_view path) {
  constexpr std::string_view kProc = "/proc/";
  if (!path.starts_with(kProc)) return false;
  path.remove_prefix(kProc.size());
  const auto digits =
      static_cast<std::size_t>(std::find_if_not(path.begin(), path.end(), IsDigit) - path.begin());
  return digits != 0 && path.substr(digits).starts_with("/root/");
}

std::string StripProcRoot(const std::string& path) {
  int pid = 0;
  char rest[4096 + 1];
  if (!IsProcRootPath(path) || std::sscanf(path.c_str(), "/proc/%d/root%4096s", &pid, rest) != 2) return {};
  return rest;
}

}  // namespace qor::tools
