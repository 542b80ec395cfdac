// Processes as the module reads them, and what everybody may read where it can't.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/process_reach.h"
#include "host/process_record.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_manager.h"

namespace pmhost {

struct ListedProcess {
  ProcessRecord facts;
  bool denied = false;  // read in part, for a want of CAP_SYS_PTRACE
};

// Reads processes one by one or all at once. What the module's objects take from the owner and the time of a
// process's directory in /proc, which are the effective user and when somebody first looked at it (proc(5)),
// is read again from where the kernel reports the real user and the start.
//
// The module has no object of a process that it can't read in full: one of another user, or one whose texts
// are not UTF-8. Such a process is read in part, by what everybody may read of it. One that has ended is left
// out, even while its parent has yet to collect it.
class ProcessReader {
 public:
  explicit ProcessReader(Host& host);

  // Absent: there is no such process, or it has ended.
  std::optional<ListedProcess> Read(std::uint32_t pid);
  // By pid, the kernel last. Throws Failure.
  std::vector<ListedProcess> ReadAll();
  // The one that has the pid now and had it already when the image `uniquePid` was named, for an id of
  // another run of the module says no more.
  std::optional<ListedProcess> ReadByUniquePid(std::uint64_t uniquePid);

  // A sentence for a person: what couldn't be done to a process that Read didn't find, and why.
  std::string ExplainAbsence(const std::string& what, std::uint32_t pid);

  [[nodiscard]] zym::datetime_t StartTimeOf(const qor::procfs::Stat& stat) const;
  // It runs no more, even if its parent has yet to collect it.
  static bool HasEnded(const qor::procfs::Stat& stat);

  // The kernel lists no process but the caller's own (the option hidepid of the mount of /proc).
  [[nodiscard]] bool AreOthersHidden() const { return m_othersHidden; }

 private:
  using IProcessInformation = system_interceptors::process_manager::IProcessInformation;

  std::vector<unsigned int> ListProcesses();
  std::optional<ListedProcess> Complete(IProcessInformation& information);
  std::optional<ListedProcess> ReadInPart(std::uint32_t pid);
  Reach ReachOfLiving(std::uint32_t pid, qor::procfs::Stat& stat);
  void ReadIds(ProcessRecord& process);

  const zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> m_manager;
  const zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  const std::int64_t m_bootTime;  // nanoseconds since 1970
  bool m_othersHidden = false;
};

}  // namespace pmhost
