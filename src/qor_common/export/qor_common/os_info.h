// The software of this machine: distribution, kernel, workstation or server.
#pragma once

#include <compare>
#include <string>

#include "zym/tracer.h"

namespace qor {

struct OsInfo {
  std::string name;  // as the release file writes it, with its quotes; else "<sysname> <version> <machine>"
  std::string version;      // empty when only uname(2) knew anything, and of a distribution without versions
  std::string description;  // for a person: a line, or the whole text of the file; empty with uname(2)
};

// The numbers at the beginning of the kernel's release; -1 for those that are missing. Ordered by
// significance.
struct KernelVersion {
  int major = -1;
  int minor = -1;
  int patch = -1;
  int build = -1;

  // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the 0 of a defaulted comparison for a pointer
  friend auto operator<=>(const KernelVersion&, const KernelVersion&) = default;
};

// Reads the first of a fixed list of release files below /etc that can be read (up to 4 MiB) and understood,
// else uname(2). `root` stands before each path. Any thread; nothing is kept. ZYM_E_UNSPECIFIED: even uname
// failed; `info` is left alone.
zym::result_t GetOsInfo(zym::ITracer* tracer, OsInfo& info, const std::string& root = "");

// A machine with a web browser counts as a workstation, any other as a server: no system call shows the
// difference. `root` stands before each path. Can't fail.
bool IsWorkstation(zym::ITracer* tracer, const std::string& root = "");

// The running kernel's, by uname(2); all -1 when that fails.
KernelVersion GetLinuxKernelRelease(zym::ITracer* tracer);

// The version in a text such as "5.4.0-42-generic".
KernelVersion ParseKernelRelease(const char* release);

}  // namespace qor
