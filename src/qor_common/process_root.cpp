#include "qor_common/process_root.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/regex.hpp>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <optional>

#include "qor_common/procfs_root.h"
#include "zym/utf.h"

namespace qor::tools {
namespace {

constexpr int kDirectoryFlags = O_DIRECTORY | O_CLOEXEC;
static_assert(kDirectoryFlags == 0x90000);

struct SplitPath {
  std::string directory;  // behind the leading slash, without trailing ones
  std::string name;
  bool absolute;
};

std::optional<SplitPath> Split(std::u16string_view path) {
  std::optional<std::string> text = zym::Utf16ToUtf8(path);
  if (!text || text->empty()) return std::nullopt;
  SplitPath split{.directory = {}, .name = {}, .absolute = text->front() == '/'};
  const std::size_t slash = text->rfind('/');
  split.name = slash == std::string::npos ? *text : text->substr(slash + 1);
  if (slash == std::string::npos) return split;
  split.directory = text->substr(split.absolute ? 1 : 0, slash - (split.absolute && slash > 0 ? 1 : 0));
  split.directory.erase(split.directory.find_last_not_of('/') + 1);
  return split;
}

zym::result_t OpenDirectory(std::uint32_t pid, const SplitPath& split, UniqueFd& dirFd) {
  char start[2048];
  std::snprintf(start, sizeof(start), "%s%u/%s", procfs::GetProcfsRoot().c_str(), pid,
                split.absolute ? "root" : "cwd");
  UniqueFd directory(::open(start, kDirectoryFlags));
  if (!directory) return zym::ZYM_E_UNSPECIFIED;
  if (!split.directory.empty())
    directory.Reset(OpenLongPath(directory.Get(), split.directory, kDirectoryFlags));
  dirFd = std::move(directory);
  return dirFd ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
}

}  // namespace

zym::result_t OpenDirectoryOfPath(std::uint32_t pid, std::u16string_view path, UniqueFd& dirFd) {
  const std::optional<SplitPath> split = Split(path);
  return split ? OpenDirectory(pid, *split, dirFd) : zym::ZYM_E_UNSPECIFIED;
}

zym::result_t OpenFileOfPath(std::uint32_t pid, std::u16string_view path, UniqueFd& dirFd, UniqueFd& fileFd) {
  const std::optional<SplitPath> split = Split(path);
  if (!split) return zym::ZYM_E_UNSPECIFIED;
  if (const zym::result_t result = OpenDirectory(pid, *split, dirFd); !ZYM_SUCCEEDED(result)) return result;
  fileFd.Reset(OpenLongPath(dirFd.Get(), split->name, O_RDONLY | O_CLOEXEC));
  return fileFd ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
}

int OpenLongPath(int dirFd, std::string_view path, int flags) {
  constexpr std::size_t kLongestPiece = PATH_MAX - 2;
  UniqueFd current;  // the directory reached so far, once it isn't the caller's
  int from = dirFd;
  while (path.size() >= PATH_MAX) {
    // The longest piece that ends before a slash; a single name of that length can't exist.
    const std::size_t slash = path.rfind('/', kLongestPiece);
    if (slash == std::string_view::npos || slash == 0) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const std::string piece(path.substr(0, slash));
    current.Reset(::openat(from, piece.c_str(), kDirectoryFlags));
    if (!current) return -1;
    from = current.Get();
    path.remove_prefix(slash + 1);
  }
  const std::string rest(path);
  return ::openat(from, rest.c_str(), flags);
}

bool IsProcRootPath(const std::string& path) {
  static const boost::regex pattern("/proc/[0-9]+/root/.*");
  return boost::regex_match(path, pattern);
}

std::string StripProcRoot(const std::string& path) {
  int pid = 0;
  char rest[4097] = "";
  return std::sscanf(path.c_str(), "/proc/%d/root%4096s", &pid, rest) == 2 ? rest : "";
}

std::string GetDescriptorPath(int fd) {
  char link[64];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char path[PATH_MAX];
  const ssize_t length = ::readlink(link, path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace qor::tools
