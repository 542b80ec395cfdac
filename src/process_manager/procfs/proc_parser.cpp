#include "process_manager/procfs/proc_parser.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "process_manager/procfs/proc_file.h"
#include "process_manager/procfs/proc_own_namespace.h"
#include "process_manager/procfs/proc_path.h"
#include "process_manager/procfs/procfs_text.h"
#include "qor_common/procfs_root.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::procfs {
namespace {

using zym::trace::kCall;
using zym::trace::kNotice;
using zym::trace::kWarning;

struct CloseDirectory {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// A directory that can't be opened is traced.
zym::result_t OpenDirectory(zym::ITracer* tracer, const char* path, Directory& directory) {
  directory.reset(::opendir(path));
  const int error = errno;
  ZYM_CHECK_AS(tracer, "dir", directory, zym::ZYM_E_UNSPECIFIED,
               "Cannot open " << path << ": " << std::strerror(error));
  return zym::ZYM_OK;
}

bool Exists(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0;
}

// What has no memory, as a thread of the kernel or a process that has ended, has no environment either. Older
// kernels show that by an empty file, newer ones refuse to open it with ESRCH (proc_mem_open in
// fs/proc/base.c; seen on 6.18). A process that isn't there at all gives ENOENT.
ReadResult ReadEnvironment(ProcFile& file, const ProcPath& path) {
  const ReadResult read = file.Read(path.c_str());
  return read == ReadResult::kCannotOpen && errno == ESRCH ? ReadResult::kDone : read;
}

std::uint32_t FileTypeOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 1;
    case S_IFCHR:
      return 2;
    case S_IFBLK:
      return 3;
    case S_IFIFO:
      return 4;
    case S_IFLNK:
      return 5;
    case S_IFSOCK:
      return 6;
    default:
      return 0;
  }
}

}  // namespace

ProcParser::ProcParser(zym::IServiceLocator* locator)
    : ServiceProvider(locator), m_ownMountNamespace(::open(kOwnMountNamespace, O_RDONLY | O_CLOEXEC)) {}

const NativePath& ProcParser::GetProcRoot() const {
  static const NativePath root = GetProcfsRoot();
  return root;
}

const NativePath& LocalProcParser::GetProcRoot() const {
  static const NativePath root = "/proc";
  return root;
}

// --- one process ---

zym::result_t ProcParser::GetStat(PidType pid, Stat& stat) try {
  if (pid == 0) {
    ZYM_TRACE(GetTracer(), kWarning, "Warning: Kernel statistic is not implemented");
    return zym::ZYM_OK;
  }
  ProcPath path(pid);
  struct stat directory {};
  if (::stat(path.c_str(), &directory) != 0) return zym::ZYM_E_NOT_FOUND;
  stat.directoryChangeTime = directory.st_ctim.tv_sec;
  stat.uid = directory.st_uid;

  path.Append("stat");
  ProcFile file;
  const ReadResult read = file.Read(path.c_str(), ReadUntil::kNewline);
  if (read == ReadResult::kCannotOpen) {
    ZYM_TRACE(GetTracer(), kWarning, __PRETTY_FUNCTION__ << ": Failed to open " << path.c_str());
    return zym::ZYM_E_UNSPECIFIED;
  }
  const std::string_view line = FirstLine(file.Text());
  if (read == ReadResult::kCannotRead || file.Text().empty()) {
    ZYM_TRACE(GetTracer(), kWarning, "procfs::GetStat(): Could not read from " << path.c_str());
    return zym::ZYM_E_UNSPECIFIED;
  }
  switch (ParseStat(line, stat)) {
    case StatResult::kParsed:
      return zym::ZYM_OK;
    case StatResult::kNoComm:
      ZYM_TRACE(GetTracer(), kWarning, "procfs::GetStat(): failed to parse from " << path.c_str());
      return zym::ZYM_E_UNSPECIFIED;
    case StatResult::kBadField:
      break;
  }
  ZYM_TRACE(GetTracer(), kWarning, "procfs::GetStat(): Couldn't parse line " << line);
  return zym::ZYM_E_UNSPECIFIED;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetIOCounters(PidType pid, IOCounters& counters) try {
  if (pid == 0) {
    ZYM_TRACE(GetTracer(), kWarning, "Warning: Kernel IO statistic is not implemented");
    return zym::ZYM_OK;
  }
  const ProcPath path(pid, "io");
  ProcFile file;
  if (file.Read(path.c_str()) == ReadResult::kDone && ParseIOCounters(file.Text(), counters))
    return zym::ZYM_OK;
  ZYM_TRACE(GetTracer(), kWarning, "Failed to parse " << path.c_str());
  return zym::ZYM_E_UNSPECIFIED;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetProcLink(PidType pid, const NativePath& name, NativePath& target) try {
  const ProcPath path(pid, name);
  char buffer[4096];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof(buffer) - 1);
  if (length >= 0) {
    target.assign(buffer, static_cast<std::size_t>(length));
    return zym::ZYM_OK;
  }
  const int error = errno;
  const bool exists = Exists(path.c_str());
  errno = error;  // the caller reads it
  return exists ? zym::ZYM_E_UNSPECIFIED : zym::ZYM_E_NOT_FOUND;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetImagePath(PidType pid, NativePath& path) {
  return GetProcLink(pid, "exe", path);
}

zym::result_t ProcParser::GetWorkingDir(PidType pid, NativePath& cwd) {
  return GetProcLink(pid, "cwd", cwd);
}

zym::result_t ProcParser::GetMaps(PidType pid, Maps& maps) try {
  if (pid == 0) {
    ZYM_TRACE(GetTracer(), kWarning, "Warning: Kernel statistic is not implemented");
    return zym::ZYM_OK;
  }
  const ProcPath path(pid, "maps");
  ProcFile file;
  if (file.Read(path.c_str()) == ReadResult::kCannotOpen) {
    ZYM_TRACE(GetTracer(), kWarning, "Unable to open file " << path.c_str());
    return zym::ZYM_E_UNSPECIFIED;
  }
  ParseMaps(file.Text(), maps);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetCmdline(PidType pid, zym::types::string16_t& cmdline) try {
  const ProcPath processPath(pid, "cmdline");
  const NativePath kernelPath = pid == 0 ? JoinPath(GetProcRoot(), "cmdline") : NativePath();
  const char* const path = pid == 0 ? kernelPath.c_str() : processPath.c_str();
  ProcFile file;
  // The kernel gives arguments as far as there is room, and less only where they end (get_mm_cmdline in
  // fs/proc/base.c); the parser's own root may be ordinary files, which do the same.
  const ReadResult read = file.Read(path, ReadUntil::kShortRead);
  if (read == ReadResult::kDone && !file.Text().empty()) {
    std::optional<zym::types::string16_t> text = ParseCmdline(file.Text());
    if (!text) throw std::ios_base::failure(std::string("not UTF-8: ") + path);
    cmdline = std::move(*text);
    return zym::ZYM_OK;
  }
  // A process that has vanished is told apart from one that can't be read, and from one without arguments.
  if (!Exists(path)) return zym::ZYM_E_NOT_FOUND;
  if (read != ReadResult::kDone) return zym::ZYM_E_UNSPECIFIED;
  cmdline.clear();
  return zym::ZYM_FALSE;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetDescriptors(PidType pid, std::vector<unsigned int>& fds) try {
  Directory directory;
  if (const zym::result_t result = OpenDirectory(GetTracer(), ProcPath(pid, "fd").c_str(), directory);
      !ZYM_SUCCEEDED(result))
    return result;
  while (const dirent* const entry = ::readdir(directory.get())) {
    char* end = nullptr;  // the kernel's names are numbers of type int, beside "." and ".."
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0') fds.push_back(static_cast<unsigned int>(fd));
  }
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetDescriptorInfo(PidType pid, unsigned int fd, DescriptorInfo& info) try {
  char path[4096];
  const int length = std::snprintf(path, sizeof(path), "%s%u/fd/%u", GetProcfsRoot().c_str(), pid, fd);
  // A path that is cut would name another descriptor.
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof(path)) return zym::ZYM_E_UNSPECIFIED;
  struct stat status {};
  if (::stat(path, &status) != 0) return zym::ZYM_E_UNSPECIFIED;
  info = {.inode = status.st_ino, .fileType = FileTypeOf(status.st_mode)};
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetCreds(PidType pid, Creds& creds) try {
  if (pid == 0) {
    ZYM_TRACE(GetTracer(), kWarning, "Warning: Kernel creds is not implemented");
    return zym::ZYM_OK;
  }
  const ProcPath path(pid, "status");
  ProcFile file;
  file.Read(path.c_str());  // what can't be read has none of the lines
  ZYM_CHECK_AS(GetTracer(), "ParseCreds(file, creds)", ParseCreds(file.Text(), creds), zym::ZYM_E_UNSPECIFIED,
               "Cannot parse " << path.c_str());
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetEnvironmentVariable(PidType pid, const char* name, std::string& value) try {
  const ProcPath path(pid, "environ");
  ProcFile file;
  const ReadResult read = ReadEnvironment(file, path);
  const int error = errno;
  if (read != ReadResult::kDone) {
    ZYM_TRACE(GetTracer(), kNotice, "Cannot read " << path.c_str() << ": " << std::strerror(error));
    return zym::ZYM_E_UNSPECIFIED;
  }
  ForEachVariable(file.Text(), [&](std::string_view variable) {
    const std::size_t equals = variable.find('=');
    if (equals == std::string_view::npos || variable.substr(0, equals) != name) return true;
    value.assign(variable.substr(equals + 1));
    return false;
  });
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetEnvironmentVariables(PidType pid,
                                                  zym::types::vector_t<zym::types::string_t>& variables) try {
  const ProcPath path(pid, "environ");
  ProcFile file;
  if (ReadEnvironment(file, path) != ReadResult::kDone) return zym::ZYM_E_UNSPECIFIED;
  zym::types::vector_t<zym::types::string_t> list;
  list.reserve(static_cast<std::size_t>(std::ranges::count(file.Text(), '\0')) + 1);
  ForEachVariable(file.Text(), [&](std::string_view variable) {
    if (!variable.empty()) list.emplace_back(variable);
    return true;
  });
  variables = std::move(list);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetComm(PidType pid, std::string& comm) try {
  ProcFile file;
  if (file.Read(ProcPath(pid, "comm").c_str()) != ReadResult::kDone || file.Text().empty())
    return zym::ZYM_E_UNSPECIFIED;
  comm.assign(FirstLine(file.Text()));
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetMountNamespaceId(PidType pid, std::uint64_t& id) try {
  if (OwnMountNamespaceId() == 0) {
    id = 0;
    return zym::ZYM_OK;
  }
  id = kNoMountNamespace;
  struct stat status {};
  const int error = ::stat(ProcPath(pid, "ns/mnt").c_str(), &status) == 0 ? 0 : errno;
  if (error == 0) id = status.st_ino;
  const zym::result_t result = zym::ErrnoToResult(error);
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() <- " << zym::trace::Code{result} << " nsid=" << id);
  return result;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

// --- all processes ---

zym::result_t ProcParser::GetProcessList(std::vector<unsigned int>& pids) try {
  Directory directory;
  if (const zym::result_t result = OpenDirectory(GetTracer(), GetProcRoot().c_str(), directory);
      !ZYM_SUCCEEDED(result))
    return result;
  while (const dirent* const entry = ::readdir(directory.get()))
    if (const std::optional<unsigned int> pid = ParseProcessName(entry->d_name)) pids.push_back(*pid);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

zym::result_t ProcParser::GetProcessListByRelevance(std::vector<unsigned int>& pids) try {
  Directory directory;
  if (const zym::result_t result = OpenDirectory(GetTracer(), GetProcRoot().c_str(), directory);
      !ZYM_SUCCEEDED(result))
    return result;
  std::vector<std::pair<unsigned int, time_t>> found;
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::optional<unsigned int> pid = ParseProcessName(entry->d_name);
    if (!pid) continue;
    struct stat status {};
    // One that can't be looked at has just ended.
    if (::fstatat(::dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    found.emplace_back(*pid, status.st_mtim.tv_sec);
  }
  std::ranges::sort(found, std::ranges::greater{}, &std::pair<unsigned int, time_t>::second);
  pids.clear();
  pids.reserve(found.size());
  for (const auto& [pid, time] : found) pids.push_back(pid);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(GetTracer(), __func__);
}

}  // namespace qor::procfs
