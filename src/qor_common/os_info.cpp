#include "qor_common/os_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "qor_common/release_parsers.h"
#include "qor_common/unique_fd.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor {
namespace {

using zym::trace::kCall;

struct ReleaseFile {
  int kind;  // unique to the row
  const char* path;
  zym::result_t (*parse)(const std::string& text, OsInfo& info);
};

// There is no parser: such a file is known, but not understood.
zym::result_t ParseNothing(const std::string&, OsInfo&) {
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

// In the order of the search.
constexpr auto kReleaseFiles = std::to_array<ReleaseFile>({
    {0, "/etc/os-release", &ParseOsRelease},        {1, "/etc/lsb-release", &ParseLsbRelease},
    {2, "/etc/system-release", &ParseReleaseLine},  {8, "/etc/SuSE-release", &ParseSuseRelease},
    {23, "/etc/gentoo-release", &ParseReleaseLine}, {3, "/etc/centos-release", &ParseReleaseLine},
    {4, "/etc/redhat-release", &ParseReleaseLine},  {5, "/etc/oracle-release", &ParseNothing},
    {6, "/etc/altlinux-release", &ParseNothing},    {7, "/etc/redos-release", &ParseNothing},
    {9, "/etc/fedora-release", &ParseNothing},      {10, "/etc/rosa-release", &ParseNothing},
    {11, "/etc/goslinux-release", &ParseNothing},   {12, "/etc/plesk-release", &ParseNothing},
    {13, "/etc/sangoma-release", &ParseNothing},    {14, "/etc/eyesofnetwork-release", &ParseNothing},
    {15, "/etc/novell-release", &ParseNothing},     {16, "/etc/initrd-release", &ParseNothing},
    {17, "/etc/iredmail-release", &ParseNothing},   {18, "/etc/spacewalk-release", &ParseNothing},
    {19, "/etc/tenable-release", &ParseNothing},    {20, "/etc/cloud-release", &ParseNothing},
    {21, "/etc/cp-release", &ParseNothing},         {22, "/etc/mageia-release", &ParseNothing},
    {24, "/etc/debian_version", &ParseNothing},     {25, "/etc/arch-release", &ParseNothing},
    {26, "/etc/slackware-release", &ParseNothing},  {27, "/etc/slackware-version", &ParseNothing},
});

// Well above any real one. A link to a device without an end must not take the memory.
constexpr std::size_t kMaxReleaseFileSize = 4 * 1024 * 1024;

// 0 or an errno.
int ReadWholeFile(const std::string& path, std::string& text) {
  // Not to wait for the writer of a FIFO.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  const int openError = errno;
  const UniqueFd file(fd);
  if (!file) return openError;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(file.Get(), buffer, sizeof(buffer));
    const int readError = errno;
    if (count < 0 && readError == EINTR) continue;
    if (count < 0) return readError;
    if (count == 0) return 0;
    if (text.size() + static_cast<std::size_t>(count) > kMaxReleaseFileSize) return EFBIG;
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

zym::result_t Parse(zym::ITracer* tracer, const ReleaseFile& file, const std::string& text,
                    OsInfo& info) try {
  return file.parse(text, info);
} catch (...) {
  // In the name of the operation that it is a part of.
  return zym::ExceptionInFunctionToResult(tracer, "GetOsInfo");
}

bool TakeReleaseFile(zym::ITracer* tracer, const std::string& root, const ReleaseFile& file, OsInfo& info) {
  const std::string path = root + file.path;
  std::string text;
  if (const int error = ReadWholeFile(path, text); error != 0) {
    ZYM_TRACE(tracer, kCall, "Fail to read file '" << path << "': error: " << std::strerror(error));
    return false;
  }
  if (text.empty()) {
    ZYM_TRACE(tracer, zym::trace::kWarning, "Unexpected empty file '" << path << "'");
    return false;
  }
  const zym::result_t result = Parse(tracer, file, text, info);
  if (ZYM_SUCCEEDED(result))
    ZYM_TRACE(tracer, kCall, "File '" << path << "' was successfully parsed");
  else if (result == zym::ZYM_E_NOT_IMPLEMENTED)
    ZYM_TRACE(tracer, kCall, "File '" << path << "' was found but we do not have the parser for it");
  else
    ZYM_TRACE(tracer, kCall, "Cannot parse file '" << path << "'");
  return ZYM_SUCCEEDED(result);
}

zym::result_t AskKernel(zym::ITracer* tracer, OsInfo& info) {
  ZYM_TRACE(tracer, kCall, "Cannot get OS info from config file, use ::uname");
  utsname uname{};
  ZYM_CHECK(tracer, ::uname(&uname) == 0, zym::ZYM_E_UNSPECIFIED,
            "Error on call ::uname(): " << std::strerror(errno));
  info.name = std::string(uname.sysname) + " " + uname.version + " " + uname.machine;
  return zym::ZYM_OK;
}

}  // namespace

zym::result_t GetOsInfo(zym::ITracer* tracer, OsInfo& info, const std::string& root) try {
  OsInfo found;
  bool taken = false;
  for (const ReleaseFile& file : kReleaseFiles) {
    taken = TakeReleaseFile(tracer, root, file, found);
    if (taken) break;
  }
  if (!taken) {
    if (const zym::result_t result = AskKernel(tracer, found); !ZYM_SUCCEEDED(result)) return result;
  }
  info = std::move(found);
  ZYM_TRACE(tracer, kCall, __func__ << ": osName:" << info.name << ", osVersion:" << info.version);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, __func__);
}

bool IsWorkstation(zym::ITracer* tracer, const std::string& root) {
  constexpr const char* kDirectories[] = {"/usr/bin", "/usr/local/bin", "/snap/bin",
                                          "/var/lib/snapd/snap/bin"};
  constexpr const char* kBrowsers[] = {"chrome",  "chromium",      "chromium-browser",
                                       "firefox", "firefox-esr",   "google-chrome",
                                       "opera",   "yandex-browser"};
  for (const char* const name : kBrowsers) {
    for (const char* const directory : kDirectories) {
      struct stat status {};
      if (::stat((root + directory + "/" + name).c_str(), &status) != 0) continue;
      ZYM_TRACE(
          tracer, kCall,
          "A browser \"" << name
                         << "\" was found on the machine, we believe that we are working on a workstation.");
      return true;
    }
  }
  ZYM_TRACE(tracer, kCall,
            "A browser was not found on the machine, we believe that we are working on a server.");
  return false;
}

KernelVersion ParseKernelRelease(const char* release) {
  KernelVersion version;
  // Where the conversion stops, the rest stays -1.
  static_cast<void>(
      std::sscanf(release, "%d.%d.%d-%d", &version.major, &version.minor, &version.patch, &version.build));
  return version;
}

KernelVersion GetLinuxKernelRelease(zym::ITracer* tracer) {
  utsname uname{};
  ZYM_CHECK(tracer, ::uname(&uname) == 0, {}, "Error on call ::uname(): " << std::strerror(errno));
  return ParseKernelRelease(uname.release);
}

}  // namespace qor
