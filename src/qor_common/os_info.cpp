#include "qor_common/os_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

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
  ReleaseParser parser;  // null: such a file is known, but not understood
};

// In the order of the search.
constexpr auto kReleaseFiles = std::to_array<ReleaseFile>({
    {0, "/etc/os-release", &ParseOsRelease},
    {1, "/etc/lsb-release", &ParseLsbRelease},
    {2, "/etc/system-release", &ParseReleaseLine},
    {8, "/etc/SuSE-release", &ParseSuse},
    {23, "/etc/gentoo-release", &ParseReleaseLine},
    {3, "/etc/centos-release", &ParseReleaseLine},
    {4, "/etc/redhat-release", &ParseReleaseLine},
    {5, "/etc/oracle-release", nullptr},
    {6, "/etc/altlinux-release", nullptr},
    {7, "/etc/redos-release", nullptr},
    {9, "/etc/fedora-release", nullptr},
    {10, "/etc/rosa-release", nullptr},
    {11, "/etc/goslinux-release", nullptr},
    {12, "/etc/plesk-release", nullptr},
    {13, "/etc/sangoma-release", nullptr},
    {14, "/etc/eyesofnetwork-release", nullptr},
    {15, "/etc/novell-release", nullptr},
    {16, "/etc/initrd-release", nullptr},
    {17, "/etc/iredmail-release", nullptr},
    {18, "/etc/spacewalk-release", nullptr},
    {19, "/etc/tenable-release", nullptr},
    {20, "/etc/cloud-release", nullptr},
    {21, "/etc/cp-release", nullptr},
    {22, "/etc/mageia-release", nullptr},
    {24, "/etc/debian_version", nullptr},
    {25, "/etc/arch-release", nullptr},
    {26, "/etc/slackware-release", nullptr},
    {27, "/etc/slackware-version", nullptr},
});

// 0 or an errno.
int ReadWholeFile(const std::string& path, std::string& text) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return errno;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(file.Get(), buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

zym::result_t Parse(const ReleaseFile& file, const std::string& text, OsInfo& info) try {
  return file.parser != nullptr ? file.parser(text, info) : zym::ZYM_E_NOT_IMPLEMENTED;
} catch (const std::exception&) {
  return zym::ZYM_E_NOT_MATCHED;  // a hostile or broken file is one that can't be parsed
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
  const zym::result_t result = Parse(file, text, info);
  if (ZYM_SUCCEEDED(result))
    ZYM_TRACE(tracer, kCall, "File '" << path << "' was successfully parsed");
  else if (result == zym::ZYM_E_NOT_IMPLEMENTED)
    ZYM_TRACE(tracer, kCall, "File '" << path << "' was found but we do not have the parser for it");
  else
    ZYM_TRACE(tracer, kCall, "Cannot parse file '" << path << "'");
  return ZYM_SUCCEEDED(result);
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
    ZYM_TRACE(tracer, kCall, "Cannot get OS info from config file, use ::uname");
    utsname uname{};
    ZYM_CHECK(tracer, ::uname(&uname) == 0, zym::ZYM_E_UNSPECIFIED,
              "Error on call ::uname(): " << std::strerror(errno));
    found.name = std::string(uname.sysname) + " " + uname.version + " " + uname.machine;
  }
  info = std::move(found);
  ZYM_TRACE(tracer, kCall, __func__ << ": osName:" << info.name << ", osVersion:" << info.version);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(tracer, "GetOsInfo");
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
