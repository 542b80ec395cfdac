// Guard in front of the process cache: each image under one unique pid, and each event once.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "process_manager/process_cache.h"
#include "process_manager/process_records.h"
#include "process_manager/types.h"
#include "zym/datetime.h"
#include "zym/intrusive_ptr.h"
#include "zym/object.h"

namespace host_kit {

// What the guard asks the machine; a test puts its own in.
struct GuardSurroundings {
  // A thread of the process still runs, its first or another.
  std::function<bool(qor::PidType)> hasRunningThread;
  // Nanoseconds of CLOCK_MONOTONIC, by which the kernel stamps its reports.
  std::function<std::uint64_t()> now;
  // The wall clock's time of such a stamp, in 100-nanosecond units since 1601.
  std::function<zym::datetime_t(std::uint64_t)> wallTime;

  static GuardSurroundings Real();
};

// Stands in the locator under both ids of the process cache, in front of the module's own. The cache is bounded
// and forgets; a process that it forgot loses its events. The guard keeps who is alive, under which unique pid
// and with which facts, so that whatever the cache forgets:
//
//   * every fork, exec and end that the kernel reported becomes its events, with one unique pid for each image,
//     and each create before its exit, however long the events wait for a slow handler;
//   * a pid that is given again while its former owner's end still waits is another process; and images of one pid
//     within one second differ, of which the module can name 512;
//   * the end of a first thread is no end of its process. An exec by another thread then replaces the image; the
//     end of the last thread is handed out by EndLate, since the kernel's report of it doesn't say whose it is;
//   * an event's times are those of the event: the start of an image is when it was executed, and not when its
//     process began.
//
// One entry for each process that is alive, and one for each that has ended until its exit event is complete. A
// process whose end was lost stays until its pid is given again, or until EndMissing. When a report belongs to
// which owner of a pid is said by its time stamp: the kernel's reports of one pid are not always in order.
//
// Any thread, under one mutex, in which the cache is called.
class ProcessGuard
    : public zym::object::Ifaces<qor::process_manager::IProcessInfoProvider,
                                 qor::process_manager::IEventInfoProvider> {
 public:
  using ProcessInformation = qor::process_manager::process_cache::ProcessInformation;
  using EventInfo = qor::process_manager::process_cache::EventInfo;

  // Both are the module's cache.
  ProcessGuard(zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> questions,
               zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> events,
               GuardSurroundings surroundings = GuardSurroundings::Real());

  // --- for the module ---

  bool Get(pid_t pid, ProcessInformation& info) override;
  bool GetByUniquePid(qor::UniquePidType uniquePid, ProcessInformation& info) override;
  void Update(ProcessInformation& info) override;
  bool UpdateAdditionalInfo(ProcessInformation& info) override;

  void OnFork(ProcessInformation&& info, EventInfo& create) override;
  void OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) override;
  void OnExit(pid_t pid, EventInfo& exit) override;
  void OnExecPerm(ProcessInformation&& info, EventInfo& exit, EventInfo& create) override;
  void OnExecDeny(ProcessInformation&& info, EventInfo& exit, EventInfo& create, EventInfo& forkExit,
                  EventInfo& forkCreate) override;
  zym::result_t OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) override;
  void OnExitProcess(EventInfo& exit) override;
  void OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) override;
  void OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) override;

  // --- for the host: ends that no report of the kernel names ---

  // Called on the source's thread when a first thread has ended and its process goes on. The host watches the
  // process (pidfd_open(2)), and calls EndLate when it has ended. Set before the source starts.
  void SetOnGoesOn(std::function<void(qor::PidType)> onGoesOn) { m_onGoesOn = std::move(onGoesOn); }

  // The end of a process that outlived its first thread. Nothing: it has executed another image since, or its
  // end is known. `timestamp` in nanoseconds of CLOCK_MONOTONIC.
  std::optional<EventInfo> EndLate(qor::PidType pid, std::uint64_t timestamp);

  // The ends, as fakes, of all processes that are not in `alive`: the kernel's report of them was lost.
  std::vector<EventInfo> EndMissing(const std::unordered_set<qor::PidType>& alive, std::uint64_t timestamp);

  // Ends that were found to be lost when their pid was given again, as fakes. Each is given once.
  std::vector<EventInfo> TakeLostEnds();

  // Of processes that are alive, as far as was reported.
  [[nodiscard]] std::size_t Size() const;

 private:
  struct Process {
    ProcessInformation image;  // as it was last given out, without its environment
    // Under which the cache has the image: another one after the cache has forgotten it.
    qor::UniquePidType cacheId = 0;
    std::uint64_t since = 0;   // when it was first met, by CLOCK_MONOTONIC: it began then, or earlier
    bool leaderEnded = false;  // its first thread has ended
  };

  // All below are called with m_mutex held.
  Process* Find(qor::PidType pid);
  qor::UniquePidType Distinct(qor::UniquePidType uniquePid);
  Process& Remember(const ProcessInformation& image, qor::UniquePidType cacheId, std::uint64_t since);
  void TakeParent(ProcessInformation& image, qor::PidType parentPid);
  void End(Process& process, std::uint64_t timestamp, EventInfo& exit);
  bool TakeLostEnd(qor::PidType pid, EventInfo& exit);
  void EndInCache(const ProcessInformation& image, EventInfo& exit);
  void Forget(qor::PidType pid);

  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_questions;
  const zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> m_events;
  const GuardSurroundings m_surroundings;
  std::function<void(qor::PidType)> m_onGoesOn;

  mutable std::mutex m_mutex;  // guards all below
  std::unordered_map<qor::PidType, Process> m_processes;
  std::unordered_map<qor::UniquePidType, ProcessInformation> m_ended;  // until their exit event is complete
  std::vector<EventInfo> m_lostEnds;
  std::unordered_set<qor::UniquePidType> m_newIds;  // given in the last second
  std::uint64_t m_newestSecond = 0;
};

}  // namespace host_kit
