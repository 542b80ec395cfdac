#include "host_kit/procfs_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "host_kit/stat_text.h"
#include "qor_common/procfs_root.h"
#include "qor_common/unique_fd.h"
#include "zym/utf.h"

namespace host_kit {
namespace {

using qor::NativePath;
using qor::PidType;

std::string PathOf(PidType pid, const char* name) {
  return qor::procfs::GetProcfsRoot() + std::to_string(pid) + "/" + name;
}

ssize_t ReadSome(int fd, char* buffer, std::size_t size) {
  ssize_t count = 0;
  do {
    count = ::read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

// What a file begins with.
struct Beginning {
  enum { kRead, kCannotOpen, kCannotRead } result = kRead;
  std::string text;
  bool isCut = false;  // there is more
};

// errno says why a file can't be read.
Beginning ReadBeginning(const std::string& path, std::size_t limit) {
  Beginning beginning;
  const qor::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return {.result = Beginning::kCannotOpen, .text = {}};
  char buffer[4096];
  ssize_t count = 0;
  while (beginning.text.size() <= limit && (count = ReadSome(file.Get(), buffer, sizeof(buffer))) > 0)
    beginning.text.append(buffer, static_cast<std::size_t>(count));
  if (count < 0) beginning.result = Beginning::kCannotRead;
  beginning.isCut = beginning.text.size() > limit;
  if (beginning.isCut) beginning.text.resize(limit);
  return beginning;
}

// Drops the first bytes of a character at the end of `text` whose last ones were cut off.
void DropPartOfCharacter(std::string& text) {
  constexpr unsigned char kContinuationMask = 0xc0;
  constexpr unsigned char kContinuation = 0x80;
  constexpr std::size_t kLongest = 4;
  for (std::size_t length = 1; length < kLongest && length <= text.size(); ++length) {
    const auto byte = static_cast<unsigned char>(text[text.size() - length]);
    if ((byte & kContinuationMask) == kContinuation) continue;
    const std::size_t whole = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
    if (whole > length) text.resize(text.size() - length);
    return;
  }
}

// As the link's reader left it: a path that the kernel has no room to write.
bool IsTooDeep(zym::result_t result) {
  return !ZYM_SUCCEEDED(result) && errno == ENAMETOOLONG;
}

}  // namespace

ProcfsReader::ProcfsReader(zym::intrusive_ptr<qor::procfs::IParser> inner, const ReadLimits& limits)
    : m_inner(std::move(inner)), m_limits(limits) {}

// --- what it reads itself ---

zym::result_t ProcfsReader::GetStat(PidType pid, qor::procfs::Stat& stat) try {
  qor::procfs::Stat read;
  zym::result_t result = m_inner->GetStat(pid, read);
  if (result == zym::ZYM_E_UNSPECIFIED) {
    constexpr std::size_t kLongest = 4096;  // 52 numbers and a name of 15 bytes, or 63 of a kernel thread
    const Beginning file = ReadBeginning(PathOf(pid, "stat"), kLongest);
    if (file.result == Beginning::kRead && ParseStatText(file.text, read)) result = zym::ZYM_OK;
  }
  if (ZYM_SUCCEEDED(result) && pid != 0) stat = std::move(read);
  return result;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t ProcfsReader::GetCmdline(PidType pid, zym::types::string16_t& cmdline) try {
  if (pid == 0) return m_inner->GetCmdline(pid, cmdline);
  Beginning file = ReadBeginning(PathOf(pid, "cmdline"), m_limits.commandLine);
  if (file.result == Beginning::kCannotOpen && errno == ENOENT) return zym::ZYM_E_NOT_FOUND;
  if (file.result == Beginning::kCannotRead && errno == ESRCH) return zym::ZYM_E_NOT_FOUND;
  if (file.result != Beginning::kRead) return zym::ZYM_E_UNSPECIFIED;
  if (file.text.empty()) {
    struct stat process {};
    if (::stat(PathOf(pid, "").c_str(), &process) != 0) return zym::ZYM_E_NOT_FOUND;
    cmdline.clear();
    return zym::ZYM_FALSE;
  }
  if (file.isCut) DropPartOfCharacter(file.text);
  std::ranges::replace(file.text, '\0', ' ');
  if (file.isCut)
    file.text += kCut;
  else if (file.text.ends_with(' '))
    file.text.pop_back();
  cmdline = zym::Utf8ToUtf16Lossy(file.text);
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t ProcfsReader::GetEnvironmentVariables(
    PidType pid, zym::types::vector_t<zym::types::string_t>& variables) try {
  const Beginning file = ReadBeginning(PathOf(pid, "environ"), m_limits.environment);
  // What has no memory, as a thread of the kernel or a process that has ended, has no environment either. A
  // newer kernel refuses to open the file with ESRCH then (seen on 6.18).
  const bool hasNone = file.result == Beginning::kCannotOpen && errno == ESRCH;
  if (file.result != Beginning::kRead && !hasNone) return zym::ZYM_E_UNSPECIFIED;
  zym::types::vector_t<zym::types::string_t> list;
  std::string_view text = file.text;
  while (!text.empty()) {
    const std::size_t end = text.find('\0');
    if (end == std::string_view::npos && file.isCut) break;
    if (const std::string_view variable = text.substr(0, end); !variable.empty()) list.emplace_back(variable);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
  if (file.isCut) list.emplace_back(kCut);
  variables = std::move(list);
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t ProcfsReader::GetWorkingDir(PidType pid, NativePath& cwd) try {
  const zym::result_t result = m_inner->GetWorkingDir(pid, cwd);
  if (!IsTooDeep(result)) return result;
  cwd = kTooDeep;
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t ProcfsReader::GetImagePath(PidType pid, NativePath& path) try {
  const zym::result_t result = m_inner->GetImagePath(pid, path);
  if (!IsTooDeep(result)) return result;
  path = kTooDeep;
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

// --- what it passes on ---

zym::result_t ProcfsReader::GetIOCounters(PidType pid, qor::procfs::IOCounters& counters) {
  return m_inner->GetIOCounters(pid, counters);
}

zym::result_t ProcfsReader::GetProcLink(PidType pid, const NativePath& name, NativePath& target) {
  return m_inner->GetProcLink(pid, name, target);
}

zym::result_t ProcfsReader::GetMaps(PidType pid, qor::procfs::Maps& maps) {
  return m_inner->GetMaps(pid, maps);
}

zym::result_t ProcfsReader::GetProcessList(std::vector<unsigned int>& pids) {
  return m_inner->GetProcessList(pids);
}

zym::result_t ProcfsReader::GetProcessListByRelevance(std::vector<unsigned int>& pids) {
  return m_inner->GetProcessListByRelevance(pids);
}

zym::result_t ProcfsReader::GetIOMemMap(qor::procfs::IOMemMap& map) {
  return m_inner->GetIOMemMap(map);
}

zym::result_t ProcfsReader::GetDescriptors(PidType pid, std::vector<unsigned int>& fds) {
  return m_inner->GetDescriptors(pid, fds);
}

zym::result_t ProcfsReader::GetDescriptorInfo(PidType pid, unsigned int fd,
                                              qor::procfs::DescriptorInfo& info) {
  return m_inner->GetDescriptorInfo(pid, fd, info);
}

zym::result_t ProcfsReader::GetModules(qor::procfs::ModulesList& modules) {
  return m_inner->GetModules(modules);
}

zym::result_t ProcfsReader::GetModulesSections(const qor::procfs::ModulesList& modules,
                                               qor::procfs::ModulesSections& modulesSections,
                                               std::uint64_t kernelModulesSectionEndVaddr) {
  return m_inner->GetModulesSections(modules, modulesSections, kernelModulesSectionEndVaddr);
}

zym::result_t ProcfsReader::GetCreds(PidType pid, qor::procfs::Creds& creds) {
  return m_inner->GetCreds(pid, creds);
}

zym::result_t ProcfsReader::GetEnvironmentVariable(PidType pid, const char* name, std::string& value) {
  return m_inner->GetEnvironmentVariable(pid, name, value);
}

zym::result_t ProcfsReader::GetComm(PidType pid, std::string& comm) {
  return m_inner->GetComm(pid, comm);
}

zym::result_t ProcfsReader::GetMountNamespaceId(PidType pid, std::uint64_t& id) {
  return m_inner->GetMountNamespaceId(pid, id);
}

}  // namespace host_kit
