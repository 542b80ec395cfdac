#include "host_kit/process_guard.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "host_kit/running_threads.h"
#include "host_kit/wall_time.h"

namespace host_kit {
namespace {

using qor::PidType;
using qor::UniquePidType;

PidType ToPid(pid_t pid) {
  return static_cast<PidType>(pid);
}

// The kernel's own entry, and the parent that the kernel doesn't have, are no processes that end.
bool IsProcess(PidType pid) {
  return pid != 0 && pid != qor::kNoPid;
}

std::uint64_t MonotonicNow() {
  std::timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

zym::datetime_t ToDatetime(WallTime time) {
  const auto nanoseconds = time.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(nanoseconds);
  return zym::datetime::FromUnix({.tv_sec = seconds.count(), .tv_nsec = (nanoseconds - seconds).count()});
}

void TakeCredentials(const ProcessGuard::ProcessInformation& from, ProcessGuard::ProcessInformation& to) {
  if (!to.realUserId) to.realUserId = from.realUserId;
  if (!to.effectiveUserId) to.effectiveUserId = from.effectiveUserId;
  if (!to.realGroupId) to.realGroupId = from.realGroupId;
  if (!to.effectiveGroupId) to.effectiveGroupId = from.effectiveGroupId;
}

void TakeIds(const ProcessGuard::ProcessInformation& from, ProcessGuard::ProcessInformation& to) {
  to.uniquePid = from.uniquePid;
  to.parentPid = from.parentPid;
  to.parentUniquePid = from.parentUniquePid;
  to.creatorPid = from.creatorPid;
  to.creatorUniquePid = from.creatorUniquePid;
}

}  // namespace

GuardSurroundings GuardSurroundings::Real() {
  return {.hasRunningThread = &HasRunningThread, .now = &MonotonicNow, .wallTime = [](std::uint64_t stamp) {
            return ToDatetime(WallTimeOfMonotonic(stamp));
          }};
}

ProcessGuard::ProcessGuard(zym::intrusive_ptr<qor::process_manager::IProcessInfoProvider> questions,
                           zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> events,
                           GuardSurroundings surroundings)
    : m_questions(std::move(questions)),
      m_events(std::move(events)),
      m_surroundings(std::move(surroundings)) {}

// --- the pieces ---

ProcessGuard::Process* ProcessGuard::Find(PidType pid) {
  const auto found = m_processes.find(pid);
  return found != m_processes.end() ? &found->second : nullptr;
}

// An id that no other image has. The counter in it comes round after 512 images of all processes together, so
// a process that executes fast enough gets one twice in a second: then the next that is free, if need be of
// the next second.
UniquePidType ProcessGuard::Distinct(UniquePidType uniquePid) {
  constexpr int kSecondsShift = 32;
  constexpr UniquePidType kNextCount = UniquePidType{1} << 23;
  // A clock that is set back begins anew: ids of later seconds stay until it has come there again.
  if (const std::uint64_t second = uniquePid >> kSecondsShift; second != m_newestSecond) {
    m_newestSecond = second;
    std::erase_if(m_newIds, [second](UniquePidType id) { return id >> kSecondsShift < second; });
  }
  while (!m_newIds.insert(uniquePid).second) uniquePid += kNextCount;
  return uniquePid;
}

ProcessGuard::Process& ProcessGuard::Remember(const ProcessInformation& image, UniquePidType cacheId,
                                              std::uint64_t since) {
  Process& process = m_processes[image.pid];
  process = {.image = image, .cacheId = cacheId, .since = since};
  process.image.environment = {};  // the largest fact, which no event carries
  return process;
}

// The parent under the unique pid that it was reported by. The cache may have forgotten it and made another.
void ProcessGuard::TakeParent(ProcessInformation& image, PidType parentPid) {
  const Process* const parent = Find(parentPid);
  if (parent == nullptr) return;
  image.parentPid = parentPid;
  image.parentUniquePid = parent->image.uniquePid;
}

// Makes the cache end its current image of the process, and give it a number. The cache may have forgotten
// the process: then it is shown the process once more, which is the way to a number.
void ProcessGuard::EndInCache(const ProcessInformation& image, EventInfo& exit) {
  m_events->OnExit(static_cast<pid_t>(image.pid), exit);
  if (exit.skip) {
    EventInfo unused;
    m_events->OnFork(ProcessInformation(image), unused);
    exit.skip = false;
    m_events->OnExit(static_cast<pid_t>(image.pid), exit);
  }
  Forget(image.pid);
}

// The cache has no entry of the pid from here on: the next owner of the pid must not find this one's. An
// entry with an image that was announced and never came stays behind an end, and goes with a denial.
void ProcessGuard::Forget(PidType pid) {
  EventInfo exit;
  exit.info.pid = pid;
  m_events->OnExitProcess(exit);
  m_events->OnExitProcess(exit);
  if (exit.skip) return;
  ProcessInformation info;
  info.pid = pid;
  EventInfo unused[4];
  m_events->OnExecDeny(std::move(info), unused[0], unused[1], unused[2], unused[3]);
}

void ProcessGuard::End(Process& process, std::uint64_t timestamp, EventInfo& exit) {
  EndInCache(process.image, exit);
  exit.timestamp = timestamp;
  exit.info = std::move(process.image);
  exit.info.state = qor::kTerminated;
  exit.info.exitTime = m_surroundings.wallTime(timestamp);
  m_processes.erase(exit.info.pid);
  m_ended.insert_or_assign(exit.info.uniquePid, exit.info);
}

LateEnd ProcessGuard::EndWithoutReport(Process& process, std::uint64_t timestamp) {
  LateEnd end;
  end.createSequence = process.createSequence;
  End(process, timestamp, end);
  return end;
}

// Whoever was met after the pid was given again is its owner, read before the report of the start came.
// Whoever was met before has ended, and the report of that is late or lost. True: there was somebody.
bool ProcessGuard::LoseFormerOwner(PidType pid, std::uint64_t begin) {
  Process* const known = Find(pid);
  if (known == nullptr || known->since >= begin) return false;
  Lose(*known, begin);
  return true;
}

// The process has ended, at `latest` or before. A first thread's end that was reported was its end, then.
void ProcessGuard::Lose(Process& process, std::uint64_t latest) {
  const std::uint64_t reported = process.leaderEnded;
  LostEnd lost{.end = EndWithoutReport(process, reported != 0 ? reported : latest),
               .found = reported != 0 ? 0 : m_surroundings.now()};
  lost.end.isFake = reported == 0;
  m_lostEnds.push_back(std::move(lost));
  // Where nobody takes them they wait for their reports alone, the latest of them.
  if (m_isWatched || m_lostEnds.size() <= kMostUntaken) return;
  m_ended.erase(m_lostEnds.front().end.info.uniquePid);
  m_lostEnds.erase(m_lostEnds.begin());
}

void ProcessGuard::LoseAllMissing() {
  std::vector<PidType> missing;
  for (const auto& [pid, process] : m_processes)
    if (!m_surroundings.hasRunningThread(pid)) missing.push_back(pid);
  const std::uint64_t now = m_surroundings.now();
  for (const PidType pid : missing) Lose(m_processes.at(pid), now);
}

// Whoever was lost is found when there are twice as many as ran the last time. A host that runs no source,
// and asks for many processes in the course of time, hears of no end.
void ProcessGuard::LookForMissing() {
  if (m_processes.size() < m_nextLook) return;
  LoseAllMissing();
  m_nextLook = std::max(kFirstLook, 2 * m_processes.size());
}

// The end of the pid's former owner, which was taken for lost.
bool ProcessGuard::TakeLostEnd(PidType pid, EventInfo& exit) {
  const auto found = std::ranges::find_if(
      m_lostEnds, [pid](const LostEnd& lost) { return lost.found != 0 && lost.end.info.pid == pid; });
  if (found == m_lostEnds.end()) return false;
  const std::uint64_t timestamp = exit.timestamp;
  exit = std::move(static_cast<EventInfo&>(found->end));
  exit.isFake = false;
  exit.timestamp = timestamp;
  exit.info.exitTime = m_surroundings.wallTime(timestamp);
  m_lostEnds.erase(found);
  return true;
}

// --- the watcher ---

void ProcessGuard::SetWatcher(Watcher watcher) {
  const std::scoped_lock watching(m_watcherMutex);
  m_watcher = std::move(watcher);
  std::vector<PidType> goingOn;
  {
    const std::scoped_lock lock(m_mutex);
    m_isWatched = static_cast<bool>(m_watcher.onGoesOn);
    if (!m_isWatched) return;
    for (const auto& [pid, process] : m_processes)
      if (process.leaderEnded != 0) goingOn.push_back(pid);
  }
  for (const PidType pid : goingOn) m_watcher.onGoesOn(pid);
}

bool ProcessGuard::IsWatched() {
  const std::scoped_lock watching(m_watcherMutex);
  return static_cast<bool>(m_watcher.onGoesOn);
}

void ProcessGuard::ReportGoesOn(PidType pid) {
  const std::scoped_lock watching(m_watcherMutex);
  if (m_watcher.onGoesOn) m_watcher.onGoesOn(pid);
}

void ProcessGuard::ReportLostEnd() {
  const std::scoped_lock watching(m_watcherMutex);
  if (m_watcher.onLostEnd) m_watcher.onLostEnd();
}

// --- what the sources report ---

void ProcessGuard::OnFork(ProcessInformation&& info, EventInfo& create) {
  bool lost = false;
  {
    const std::scoped_lock lock(m_mutex);
    lost = LoseFormerOwner(info.pid, create.timestamp);
    Begin(std::move(info), create);
  }
  if (lost) ReportLostEnd();
}

void ProcessGuard::Begin(ProcessInformation&& info, EventInfo& create) {
  const PidType parentPid = info.parentPid;
  const Process* const known = Find(info.pid);
  info.startTime = m_surroundings.wallTime(create.timestamp);
  m_events->OnFork(std::move(info), create);
  ProcessInformation& image = create.info;
  const UniquePidType cacheId = image.uniquePid;
  image.uniquePid = known != nullptr ? known->image.uniquePid : Distinct(cacheId);
  if (const Process* const parent = Find(parentPid); parent != nullptr) {
    TakeParent(image, parentPid);
    image.creatorPid = parentPid;
    image.creatorUniquePid = parent->image.uniquePid;
    // A child looks like its parent until something better is known; the cache may have forgotten the parent.
    if (image.imagePath.empty()) {
      image.imagePath = parent->image.imagePath;
      image.flags = parent->image.flags;
    }
    if (!image.commandLine) image.commandLine = parent->image.commandLine;
    TakeCredentials(parent->image, image);
  }
  Remember(image, cacheId, create.timestamp).createSequence = create.sequence;
  m_newestSequence = std::max(m_newestSequence, create.sequence);
}

void ProcessGuard::OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  const PidType pid = info.pid;
  const zym::datetime_t time = m_surroundings.wallTime(create.timestamp);
  info.startTime = time;
  m_events->OnExec(std::move(info), exit, create);

  ProcessInformation& image = create.info;
  const UniquePidType cacheId = image.uniquePid;
  image.uniquePid = Distinct(cacheId);
  image.startTime = time;
  const Process* const known = Find(pid);
  if (known == nullptr) {
    // The process began before anybody looked, or the report of its start was lost: no event named the
    // image that ends here.
    exit.skip = true;
    TakeParent(image, image.parentPid);
  } else {
    exit.info = known->image;
    exit.info.state = qor::kTerminated;
    exit.info.exitTime = time;
    image.parentPid = known->image.parentPid;
    image.parentUniquePid = known->image.parentUniquePid;
    image.creatorPid = pid;
    image.creatorUniquePid = known->image.uniquePid;
    TakeCredentials(known->image, image);
  }
  Remember(image, cacheId, create.timestamp).createSequence = create.sequence;
  m_newestSequence = std::max(m_newestSequence, create.sequence);
}

void ProcessGuard::OnExit(pid_t reportedPid, EventInfo& exit) {
  const PidType pid = ToPid(reportedPid);
  const bool goesOn = IsWatched() && m_surroundings.hasRunningThread(pid);
  {
    const std::scoped_lock lock(m_mutex);
    Process* const known = Find(pid);
    if (known == nullptr || exit.timestamp < known->since) {
      exit.skip = !TakeLostEnd(pid, exit);  // else the start of who ended was reported to nobody
      if (known == nullptr) Forget(pid);
      // Who was read after its first thread had ended gets no other report.
      if (known == nullptr || !exit.skip || !goesOn) return;
    } else if (!goesOn) {
      End(*known, exit.timestamp, exit);
      return;
    }
    exit.skip = true;
    known->leaderEnded = exit.timestamp;
  }
  ReportGoesOn(pid);
}

void ProcessGuard::OnExecPerm(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  const PidType pid = info.pid;
  m_events->OnExecPerm(std::move(info), exit, create);
  const Process* const known = Find(pid);
  if (known == nullptr) return;
  TakeIds(known->image, exit.info);
  create.info.parentPid = known->image.parentPid;
  create.info.parentUniquePid = known->image.parentUniquePid;
  create.info.creatorUniquePid = known->image.uniquePid;
}

void ProcessGuard::OnExecDeny(ProcessInformation&& info, EventInfo& exit, EventInfo& create,
                              EventInfo& forkExit, EventInfo& forkCreate) {
  const std::scoped_lock lock(m_mutex);
  m_events->OnExecDeny(std::move(info), exit, create, forkExit, forkCreate);
  // The process goes on as what it was, under a new unique pid.
  if (!forkCreate.skip) Remember(forkCreate.info, forkCreate.info.uniquePid, m_surroundings.now());
}

// --- what happens to events that were dispatched ---

// Never says that the event is to be dropped: the cache may have forgotten the process since.
zym::result_t ProcessGuard::OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  Process* const known = Find(create.info.pid);
  if (known == nullptr || known->image.uniquePid != create.info.uniquePid) return zym::ZYM_OK;
  if (shouldUpdateExecInfo) {
    known->image.imagePath = create.info.imagePath;
    known->image.commandLine = create.info.commandLine;
    known->image.flags = create.info.flags;
  }
  EventInfo inCache = create;
  inCache.info.uniquePid = known->cacheId;
  static_cast<void>(m_events->OnCreateProcess(shouldUpdateExecInfo, inCache));  // it may have forgotten it
  return zym::ZYM_OK;
}

// The cache has let go of the process when it ended.
void ProcessGuard::OnExitProcess(EventInfo& exit) {
  const std::scoped_lock lock(m_mutex);
  m_ended.erase(exit.info.uniquePid);
}

void ProcessGuard::OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) {
  const std::scoped_lock lock(m_mutex);
  m_events->OnUidChange(pid, realUserId, effectiveUserId);
  if (Process* const known = Find(ToPid(pid)); known != nullptr) {
    known->image.realUserId = realUserId;
    known->image.effectiveUserId = effectiveUserId;
  }
}

void ProcessGuard::OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) {
  const std::scoped_lock lock(m_mutex);
  m_events->OnGidChange(pid, realGroupId, effectiveGroupId);
  if (Process* const known = Find(ToPid(pid)); known != nullptr) {
    known->image.realGroupId = realGroupId;
    known->image.effectiveGroupId = effectiveGroupId;
  }
}

// --- questions ---

bool ProcessGuard::Get(pid_t pid, ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  const Process* const known = Find(ToPid(pid));
  if (known == nullptr) return m_questions->Get(pid, info);
  if (m_questions->Get(pid, info) && info.uniquePid == known->cacheId)
    TakeIds(known->image, info);
  else
    info = known->image;
  return true;
}

bool ProcessGuard::GetByUniquePid(UniquePidType uniquePid, ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  if (const Process* const known = Find(qor::PidOf(uniquePid));
      known != nullptr && known->image.uniquePid == uniquePid) {
    if (m_questions->GetByUniquePid(known->cacheId, info))
      TakeIds(known->image, info);
    else
      info = known->image;
    return true;
  }
  if (m_questions->GetByUniquePid(uniquePid, info)) return true;
  const auto ended = m_ended.find(uniquePid);
  if (ended == m_ended.end()) return false;
  info = ended->second;
  return true;
}

void ProcessGuard::Update(ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  LookForMissing();
  m_questions->Update(info);
  const UniquePidType cacheId = info.uniquePid;
  if (Process* const known = Find(info.pid); known != nullptr) {
    known->cacheId = cacheId;
    TakeIds(known->image, info);
    return;
  }
  TakeParent(info, info.parentPid);
  // What has ended since it was read would stay for good: its exit may have been reported before.
  const std::uint64_t since = m_surroundings.now();
  if (!IsProcess(info.pid) || !m_surroundings.hasRunningThread(info.pid)) return;
  info.uniquePid = Distinct(cacheId);
  Remember(info, cacheId, since);
}

bool ProcessGuard::UpdateAdditionalInfo(ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  Process* const known = Find(info.pid);
  if (known == nullptr || known->image.uniquePid != info.uniquePid)
    return m_questions->UpdateAdditionalInfo(info);
  known->image.effectiveUserId = info.effectiveUserId;
  known->image.realGroupId = info.realGroupId;
  known->image.effectiveGroupId = info.effectiveGroupId;
  ProcessInformation inCache = info;
  inCache.uniquePid = known->cacheId;
  static_cast<void>(m_questions->UpdateAdditionalInfo(inCache));  // it may have forgotten it
  return true;
}

// --- ends that no report names ---

std::optional<LateEnd> ProcessGuard::EndLate(PidType pid, std::uint64_t timestamp) {
  const std::scoped_lock lock(m_mutex);
  Process* const known = Find(pid);
  if (known == nullptr || known->leaderEnded == 0 || m_surroundings.hasRunningThread(pid))
    return std::nullopt;
  return EndWithoutReport(*known, timestamp);
}

void ProcessGuard::LoseMissing() {
  {
    const std::scoped_lock lock(m_mutex);
    LoseAllMissing();
  }
  ReportLostEnd();
}

std::vector<LateEnd> ProcessGuard::TakeLostEnds(std::uint64_t before) {
  const std::scoped_lock lock(m_mutex);
  std::vector<LateEnd> ends;
  for (LostEnd& lost : m_lostEnds)
    if (lost.found < before) ends.push_back(std::move(lost.end));
  std::erase_if(m_lostEnds, [before](const LostEnd& lost) { return lost.found < before; });
  return ends;
}

bool ProcessGuard::HasLostEnds() const {
  const std::scoped_lock lock(m_mutex);
  return !m_lostEnds.empty();
}

std::uint64_t ProcessGuard::NewestSequence() const {
  const std::scoped_lock lock(m_mutex);
  return m_newestSequence;
}

std::size_t ProcessGuard::Size() const {
  const std::scoped_lock lock(m_mutex);
  return m_processes.size();
}

}  // namespace host_kit
