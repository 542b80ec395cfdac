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

// An end that the host hands on itself: no report of the kernel will make an event of it.
struct LateEnd : qor::process_manager::process_cache::EventInfo {
  // The number of the event by which the image began; 0: nobody was told of it. The end is to follow it.
  std::uint64_t createSequence = 0;
};

// Stands in the locator under both ids of the process cache, in front of the module's own. The cache is
// bounded and forgets; a process that it forgot loses its events. The guard keeps who is alive, under which
// unique pid and with which facts, so that whatever the cache forgets:
//
//   * every fork, exec and end that the kernel reported becomes its events, with one unique pid for each
//     image, and each create before its exit, however long the events wait for a slow handler;
//   * a pid that is given again while its former owner's end still waits is another process; and images of
//     one pid within one second differ, of which the module can name 512;
//   * the end of a first thread is no end of its process. An exec by another thread then replaces the image;
//     the end of the last thread is handed out by EndLate, since the kernel's report of it doesn't say whose
//     it is;
//   * an event's times are those of the event: the start of an image is when it was executed, and not when
//     its process began.
//
// One entry for each process that is alive, and one for each that has ended until its exit event is complete.
// A process whose end was lost stays until its pid is given again, until LoseMissing, or until there are too
// many. To which owner of a pid a report belongs is said by its time stamp: the kernel reports an end when it
// has already let the pid go, so that the next owner's start may come before it.
//
// Any thread, under one mutex, in which the cache is called.
class ProcessGuard : public zym::object::Ifaces<qor::process_manager::IProcessInfoProvider,
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

  // Who sees to them. Both are called on the thread that finds it out, mostly the source's, with no lock that
  // an operation of the guard needs; they don't call SetWatcher.
  struct Watcher {
    // A first thread has ended and its process goes on: watch it (pidfd_open(2)), and call EndLate when it
    // has ended.
    std::function<void(qor::PidType)> onGoesOn;
    // There is something for TakeLostEnds, now or soon.
    std::function<void()> onLostEnd;
  };

  // With a null onGoesOn, which is how the guard begins, nobody watches: the end of a first thread counts as
  // that of its process. Otherwise calls it at once for the processes that go on already. When SetWatcher
  // returns, the former watcher isn't running and won't be called again.
  void SetWatcher(Watcher watcher);

  // The end of a process that outlived its first thread. Nothing: somebody of that pid still runs, it has
  // executed another image since, or its end is known. `timestamp` in nanoseconds of CLOCK_MONOTONIC.
  std::optional<LateEnd> EndLate(qor::PidType pid, std::uint64_t timestamp);

  // Takes the ends of all processes for lost that run no longer. Those whose pid is another's by now, of whom
  // no report came, are not found.
  void LoseMissing();

  // Lost ends, each once: those that were found before `before`, as fakes, for a report that is late ends its
  // process after all; and those that were reported while their pid was another's already, as what they are.
  std::vector<LateEnd> TakeLostEnds(std::uint64_t before);
  [[nodiscard]] bool HasLostEnds() const;

  // Of the events that the guard has made so far.
  [[nodiscard]] std::uint64_t NewestSequence() const;

  // Of processes that are alive, as far as was reported.
  [[nodiscard]] std::size_t Size() const;

 private:
  struct Process {
    ProcessInformation image;  // as it was last given out, without its environment
    // Under which the cache has the image: another one after the cache has forgotten it.
    qor::UniquePidType cacheId = 0;
    std::uint64_t since = 0;           // when it was first met, by CLOCK_MONOTONIC: it began then, or earlier
    std::uint64_t createSequence = 0;  // as in LateEnd
    std::uint64_t leaderEnded = 0;     // when the end of its first thread was reported; 0: it wasn't
  };

  struct LostEnd {
    LateEnd end;
    std::uint64_t found = 0;  // by CLOCK_MONOTONIC; 0: its report has come
  };

  static constexpr std::size_t kMostUntaken = 1024;
  static constexpr std::size_t kFirstLook = 8192;

  // All below are called with m_mutex held.
  Process* Find(qor::PidType pid);
  qor::UniquePidType Distinct(qor::UniquePidType uniquePid);
  Process& Remember(const ProcessInformation& image, qor::UniquePidType cacheId, std::uint64_t since);
  bool LoseFormerOwner(qor::PidType pid, std::uint64_t begin);
  void Lose(Process& process, std::uint64_t latest);
  void LoseAllMissing();
  void LookForMissing();
  void Begin(ProcessInformation&& info, EventInfo& create);
  void TakeParent(ProcessInformation& image, qor::PidType parentPid);
  void End(Process& process, std::uint64_t timestamp, EventInfo& exit);
  LateEnd EndWithoutReport(Process& process, std::uint64_t timestamp);
  bool TakeLostEnd(qor::PidType pid, EventInfo& exit);
  void EndInCache(const ProcessInformation& image, EventInfo& exit);
  void Forget(qor::PidType pid);

  // Called without it.
  bool IsWatched();
  void ReportGoesOn(qor::PidType pid);
  void ReportLostEnd();

  const zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> m_questions;
  const zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> m_events;
  const GuardSurroundings m_surroundings;

  std::mutex m_watcherMutex;  // guards m_watcher; held while the watcher is called, and outside of m_mutex
  Watcher m_watcher;

  mutable std::mutex m_mutex;  // guards all below
  std::unordered_map<qor::PidType, Process> m_processes;
  std::unordered_map<qor::UniquePidType, ProcessInformation> m_ended;  // until their exit event is complete
  std::vector<LostEnd> m_lostEnds;
  std::uint64_t m_newestSequence = 0;
  bool m_isWatched = false;  // as m_watcher says
  std::size_t m_nextLook = kFirstLook;
  std::unordered_set<qor::UniquePidType> m_newIds;  // given in the last second
  std::uint64_t m_newestSecond = 0;
};

}  // namespace host_kit
