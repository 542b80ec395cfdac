// The reader of /proc and /sys/module (class ids class_ids::kProcParser and class_ids::kLocalProcParser).
//
// Stateless: every operation opens, parses and closes, and any thread may call any of them at once. Paths of
// processes begin at the procfs root: "/proc/", or the value of VORN_HOST_PROCFS in the environment if it
// names something that exists, read once. LocalProcParser differs in what doesn't belong to one process: the
// lists of processes, iomem, modules, the kernel's settings and its command line always come from "/proc".
//
// Result codes: ZYM_OK; ZYM_E_UNSPECIFIED, a file or a line that can't be opened, read or parsed;
// ZYM_E_NOT_FOUND, the process is gone; ZYM_E_ACCESS_DENIED, the kernel hides its addresses.
//
// Ranges: an `end` is the first address behind its range, a `last` the last address in it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor::procfs {

// A process's stat file, proc(5), and two facts of its directory.
struct Stat {
  static constexpr std::uint32_t kKernelThread = 0x200000;  // of flags: PF_KTHREAD (include/linux/sched.h)

  std::uint32_t pid = 0;
  std::string comm;  // between the first '(' and the last ')'
  char state = 0;
  std::uint32_t ppid = 0, pgrp = 0, session = 0, tty_nr = 0, tpgid = 0, flags = 0;
  std::uint64_t minflt = 0, cminflt = 0, majflt = 0, cmajflt = 0;
  std::int64_t utime = 0, stime = 0, cutime = 0, cstime = 0, priority = 0, nice = 0, num_threads = 0,
               itrealvalue = 0;
  std::uint64_t starttime = 0;           // clock ticks since boot
  std::uint64_t vsize = 0;               // bytes
  std::int64_t rss = 0;                  // pages
  std::uint64_t rsslim = 0;              // bytes
  std::int64_t directoryChangeTime = 0;  // st_ctime of the process's directory, seconds since 1970
  std::uint32_t uid = 0;                 // st_uid of the same

  [[nodiscard]] bool IsKernelThread() const noexcept { return (flags & kKernelThread) != 0; }
};

struct IOCounters {
  std::uint64_t rchar = 0, wchar = 0, syscr = 0, syscw = 0, read_bytes = 0, write_bytes = 0,
                cancelled_write_bytes = 0;
};

// Users and groups in the order real, effective, saved, filesystem.
struct Creds {
  std::uint32_t uid[4] = {};
  std::uint32_t gid[4] = {};
  std::vector<std::uint32_t> groups;
};

// One mapping: [begin, end).
struct MapsEntry {
  std::uint64_t begin = 0, end = 0;
  std::uint32_t permissions = 0;  // bits: 1 read, 2 write, 4 execute, 8 shared
  std::uint32_t protection = 0;   // a constant of process_memory_manager::protection
  std::uint64_t offset = 0;
  std::uint32_t deviceMajor = 0, deviceMinor = 0;
  std::uint32_t inode = 0;  // 0 for an inode beyond 32 bits
  std::string path;         // empty for a mapping without one
};

// By start address; mappings with equal starts are all kept.
using Maps = std::multimap<std::uint64_t, std::shared_ptr<MapsEntry>>;

// One line of iomem: [first, last].
struct IOMemRange {
  std::uint64_t first = 0, last = 0;
  std::string name;
};
using IOMemMap = std::vector<IOMemRange>;  // in the file's order, without its nesting

// A kernel module: [offset, offset + size).
struct ModuleEntry {
  std::string name;
  std::uint64_t size = 0;  // bytes
  std::uint32_t referenceCount = 0;
  std::uint32_t state = 3;   // 0 live, 1 loading, 2 unloading, 3 anything else
  std::uint64_t offset = 0;  // where it is loaded
};
using ModulesList = std::vector<ModuleEntry>;

// A section of a kernel module: [address, address + size).
struct ModuleSection {
  std::uint64_t size = 0;  // bytes
  std::uint64_t address = 0;
  std::string name;
  std::shared_ptr<ModuleEntry> module;
};
using ModulesSections = std::vector<ModuleSection>;

struct DescriptorInfo {
  std::uint64_t inode = 0;
  // 0 regular or unknown, 1 directory, 2 character device, 3 block device, 4 FIFO, 5 symbolic link, 6 socket
  std::uint32_t fileType = 0;
};

// A pid of 0 is the kernel. Of it GetStat, GetIOCounters, GetMaps and GetCreds read nothing: they trace that,
// leave the record alone and succeed.
struct IParser : zym::IObject {
  static constexpr zym::iid_t kIid = 0xc9b36ad4;

  virtual zym::result_t GetStat(PidType pid, Stat& stat) = 0;
  virtual zym::result_t GetIOCounters(PidType pid, IOCounters& counters) = 0;
  // The target of the link `name` in the process's directory, as the kernel gives it. ZYM_E_NOT_FOUND: there
  // is no such link, or no such process; ZYM_E_UNSPECIFIED: the link can't be read. On failure `errno`
  // carries the reason, that of readlink(2), and `target` is left alone. The same goes for GetImagePath and
  // GetWorkingDir, which read the links "exe" and "cwd".
  virtual zym::result_t GetProcLink(PidType pid, const NativePath& name, NativePath& target) = 0;
  virtual zym::result_t GetMaps(PidType pid, Maps& maps) = 0;
  // The arguments joined by single blanks. ZYM_FALSE: there are none. Pid 0: the kernel's own command line.
  virtual zym::result_t GetCmdline(PidType pid, zym::types::string16_t& cmdline) = 0;
  // Appends, in the order of the directory.
  virtual zym::result_t GetProcessList(std::vector<unsigned int>& pids) = 0;
  // Replaces, newest first.
  virtual zym::result_t GetProcessListByRelevance(std::vector<unsigned int>& pids) = 0;
  virtual zym::result_t GetIOMemMap(IOMemMap& map) = 0;
  virtual zym::result_t GetImagePath(PidType pid, NativePath& path) = 0;
  virtual zym::result_t GetDescriptors(PidType pid, std::vector<unsigned int>& fds) = 0;
  virtual zym::result_t GetDescriptorInfo(PidType pid, unsigned int fd, DescriptorInfo& info) = 0;
  // Lifts kptr_restrict and perf_event_paranoid for the time of one read when the kernel hides its addresses.
  // This one and the next let zym::CheckFailedException out when those settings can't be changed.
  virtual zym::result_t GetModules(ModulesList& modules) = 0;
  // Appends, by ascending address. Each section ends at the latest where the next one begins, and the last
  // one at `kernelModulesSectionEndVaddr`; those that are empty then are left out.
  virtual zym::result_t GetModulesSections(const ModulesList& modules, ModulesSections& modulesSections,
                                           std::uint64_t kernelModulesSectionEndVaddr) = 0;
  virtual zym::result_t GetCreds(PidType pid, Creds& creds) = 0;
  // A variable that isn't there leaves `value` as it was and succeeds.
  virtual zym::result_t GetEnvironmentVariable(PidType pid, const char* name, std::string& value) = 0;
  virtual zym::result_t GetWorkingDir(PidType pid, NativePath& cwd) = 0;
  virtual zym::result_t GetComm(PidType pid, std::string& comm) = 0;
  // Replaces the list by "NAME=value" texts.
  virtual zym::result_t GetEnvironmentVariables(PidType pid,
                                                zym::types::vector_t<zym::types::string_t>& variables) = 0;
  // The inode of /proc/<pid>/ns/mnt; 0 on a kernel without such files.
  virtual zym::result_t GetMountNamespaceId(PidType pid, std::uint64_t& id) = 0;

 protected:
  ~IParser() = default;
};

}  // namespace qor::procfs
