// Processes as the module tells them, and what is left to tell where it can't.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "host/output/shown_process.h"
#include "host/process_reach.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_manager.h"
#include "process_manager/process_records.h"

namespace pmhost {

// Owns the texts that Shown() views.
struct KnownProcess {
  // Where the module could not tell a process, the fields that nobody knows are all ones, 0 or empty.
  system_interceptors::process_manager::ProcessInformation record;
  std::optional<std::uint32_t> sessionId;
  std::optional<std::uint32_t> userId;
  std::optional<std::uint32_t> flags;
  bool denied = false;  // told in part, for a want of CAP_SYS_PTRACE

  [[nodiscard]] ShownProcess Shown() const;
};

// Reads processes one by one or all at once. What the module's objects take from the owner and the time of a
// process's directory in /proc, which tell the effective user and when somebody first looked at it (proc(5)),
// is read again from where the kernel tells the real user and the start.
//
// The module has no object of a process that it can't read in full: one of another user, or one whose texts
// are no UTF-8. Such a process is told in part, by what everybody may read of it. One that has ended is left
// out, even while its parent has yet to collect it.
class ProcessReader {
 public:
  explicit ProcessReader(const Host& host);

  // Absent: there is no such process, or it has ended.
  std::optional<KnownProcess> Read(std::uint32_t pid);
  // By pid, the kernel last. Throws Failure.
  std::vector<KnownProcess> ReadAll();
  // The one that has `pid` now and had it already when the image `uniquePid` was named, for that is all that
  // an id of another run of the module tells.
  std::optional<KnownProcess> ReadByUniquePid(std::uint64_t uniquePid);

  // A sentence for a person: what couldn't be done to a process that Read didn't find, and why.
  std::string ExplainAbsence(const std::string& what, std::uint32_t pid);

  [[nodiscard]] zym::datetime_t StartTimeOf(const qor::procfs::Stat& stat) const;
  // It runs no more, even if its parent has yet to collect it.
  static bool HasEnded(const qor::procfs::Stat& stat);

  // The kernel lists no process but the caller's own (the option hidepid of the mount of /proc).
  [[nodiscard]] bool AreOthersHidden() const { return m_othersHidden; }

  [[nodiscard]] const zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager>& Manager()
      const {
    return m_manager;
  }
  [[nodiscard]] const zym::intrusive_ptr<qor::procfs::IParser>& Parser() const { return m_parser; }

 private:
  using IProcessInformation = system_interceptors::process_manager::IProcessInformation;

  std::vector<unsigned int> ListProcesses();
  std::optional<KnownProcess> Complete(IProcessInformation& information);
  std::optional<KnownProcess> ReadInPart(std::uint32_t pid);
  Reach ReachOfLiving(std::uint32_t pid, qor::procfs::Stat& stat);
  void ReadIds(KnownProcess& process);

  const zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> m_manager;
  const zym::intrusive_ptr<qor::procfs::IParser> m_parser;
  const std::int64_t m_bootTime;  // nanoseconds since 1970
  bool m_othersHidden = false;
};

}  // namespace pmhost
