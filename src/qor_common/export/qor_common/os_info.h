// What this machine runs: distribution, kernel, workstation or server.
#pragma once

#include <compare>
#include <string>

#include "zym/tracer.h"

namespace qor {

struct OsInfo {
  std::string name;
  std::string version;      // empty when only uname(2) knew anything
  std::string description;  // one line for a person; empty likewise
};

// The numbers at the beginning of the kernel's release; -1 for those that are missing. Ordered by
// significance.
struct KernelVersion {
  int major = -1;
  int minor = -1;
  int patch = -1;
  int build = -1;

  friend auto operator<=>(const KernelVersion&, const KernelVersion&) = default;
};

// Reads the first release file that can be read and understood, else uname(2). `root` stands before each
// path. ZYM_E_UNSPECIFIED: even uname failed.
zym::result_t GetOsInfo(zym::ITracer* tracer, OsInfo& info, const std::string& root = "");

// A machine with a web browser counts as a workstation, any other as a server. Can't fail.
bool IsWorkstation(zym::ITracer* tracer, const std::string& root = "");

KernelVersion GetLinuxKernelRelease(zym::ITracer* tracer);

// The version in a text such as "5.4.0-42-generic".
KernelVersion ParseKernelRelease(const char* release);

}  // namespace qor
