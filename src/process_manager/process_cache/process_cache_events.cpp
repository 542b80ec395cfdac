// What the event sources report: IEventInfoProvider.
#include <utility>

#include "process_manager/process_cache/process_cache.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

PidType ToPid(pid_t pid) {
  return static_cast<PidType>(pid);
}

template <class T>
void AssignIfDifferent(T& target, const T& value) {
  if (target != value) target = value;
}

}  // namespace

void ProcessCache::OnFork(ProcessInformation&& info, EventInfo& create) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << info.pid << ", ppid: " << info.parentPid);
  const std::scoped_lock lock(m_mutex);
  Entry& entry = LinkParent(info.pid, info.parentPid, true);
  // On the first version, although a permission path may have appended a later image already: the events of
  // the first image come in order, and the later one stays in the queues for its own report.
  Version& first = entry.First();
  if (first.startSequence == 0) first.startSequence = ++m_sequence;
  if (info.state == kTerminated)
    MergeGone(info, first.info, true);
  else
    Merge(info, first.info, true);
  entry.creationQueue.PopFront();
  create.isFork = true;
  create.sequence = first.startSequence;
  create.info = first.info;
  DropReported(entry);
}

void ProcessCache::OnExecPerm(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << info.pid);
  const std::scoped_lock lock(m_mutex);
  Entry& entry = LinkParent(info.pid, info.parentPid, false);
  const zym::datetime_t time = info.startTime;
  Version& old = entry.Last();
  if (old.startSequence == 0) old.startSequence = ++m_sequence;
  End(old, time);
  exit.isExec = true;
  exit.sequence = old.endSequence;
  exit.info = old.info;

  Version& image = AppendVersion(entry, time);
  Merge(info, image.info, false);
  create.sequence = image.startSequence;
  create.info = image.info;
}

// Possibly the second report of this transition: after OnExecPerm it reports the same numbers again.
void ProcessCache::OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << info.pid);
  const std::scoped_lock lock(m_mutex);
  const bool gone = info.state == kTerminated;
  Entry& entry = gone ? FindOrCreate(info.pid) : LinkParent(info.pid, info.parentPid, false);
  const zym::datetime_t time = info.startTime;

  Version& old = VersionToEnd(entry);
  if (old.endSequence == 0) End(old, time);
  // The creation of the old image, if it wasn't reported yet, will never be.
  if (old.startSequence == 0) entry.creationQueue.PopFront();
  entry.terminationQueue.PopFront();
  exit.isExec = true;
  exit.sequence = old.endSequence;
  exit.info = old.info;
  const std::optional<std::uint32_t> realUserId = old.info.realUserId;
  const std::optional<std::uint32_t> realGroupId = old.info.realGroupId;

  Version& image = VersionToCreate(entry, time);
  if (gone && entry.ready)
    MergeGone(info, image.info, false);
  else
    Merge(info, image.info, false);
  // An exec doesn't change the real ids; one that the old image lacks, the new image lacks too.
  image.info.realUserId = realUserId;
  image.info.realGroupId = realGroupId;
  entry.creationQueue.PopFront();
  create.sequence = image.startSequence;
  create.info = image.info;
  DropReported(entry);
}

void ProcessCache::OnExit(pid_t pid, EventInfo& exit) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << pid);
  const zym::datetime_t now = m_surroundings.now();
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) {
    exit.skip = true;
    return;
  }
  Version& version = VersionToEnd(*entry);
  End(version, now);
  entry->terminationQueue.PopFront();
  exit.sequence = version.endSequence;
  exit.info = version.info;
  DropReported(*entry);
}

void ProcessCache::OnExitProcess(EventInfo& exit) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << exit.info.pid);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(exit.info.pid);
  if (entry == nullptr) {
    exit.skip = true;
    return;
  }
  if (exit.isExec) return;
  if (!entry->creationQueue.Empty() && entry->creationQueue.Front() != 0) {
    ZYM_TRACE(
        GetTracer(), zym::trace::kWarning,
        __PRETTY_FUNCTION__ << " pid: " << entry->pid << ", not erased: " << entry->creationQueue.Front());
    entry->exitPending = true;
    return;
  }
  entry->Last().info.state = kTerminated;
  Bury(*entry);
}

void ProcessCache::OnExecDeny(ProcessInformation&& info, EventInfo& exit, EventInfo& create,
                              EventInfo& forkExit, EventInfo& forkCreate) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << info.pid);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(info.pid);
  ZYM_CHECK_OR_THROW(entry != nullptr, "A process that was denied an exec isn't known, pid: " << info.pid);
  ZYM_CHECK_OR_THROW(entry->exitPending || entry->VersionCount() > 1,
                     "An exec was denied that nobody announced, pid: " << info.pid);
  const zym::datetime_t time = info.startTime;

  Version& last = entry->Last();
  End(last, time);
  entry->creationQueue.PopBack();
  entry->terminationQueue.PopBack();
  forkExit.isExec = !entry->exitPending;
  forkExit.sequence = last.endSequence;
  forkExit.info = last.info;
  if (entry->exitPending) {
    exit.skip = true;
    create.skip = true;
    forkCreate.skip = true;
    Bury(*entry);
    return;
  }

  entry->terminationQueue.PopBack();
  const Version& previous = entry->At(entry->VersionCount() - 2);
  exit.isExec = true;
  exit.sequence = previous.endSequence;
  exit.info = previous.info;

  // The process goes on as what it was, under a new unique pid.
  Version& next = AppendVersion(*entry, time);
  Merge(info, next.info, false);
  next.info.creatorPid = previous.info.creatorPid;
  next.info.creatorUniquePid = previous.info.creatorUniquePid;
  forkCreate.sequence = next.startSequence;
  forkCreate.info = next.info;
  entry->creationQueue.PopBack();
  create.sequence = next.startSequence;
  create.info = next.info;
  DropReported(*entry);
}

zym::result_t ProcessCache::OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << create.info.pid);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(create.info.pid);
  if (entry == nullptr) {
    create.skip = true;
    return zym::ZYM_E_NOT_FOUND;
  }
  if (!shouldUpdateExecInfo) return zym::ZYM_OK;
  Version* const version = entry->FindByUniquePid(create.info.uniquePid);
  ZYM_CHECK_AS(GetTracer(), "procInfo", version != nullptr, zym::ZYM_E_NOT_FOUND);
  AssignIfDifferent(version->info.imagePath, create.info.imagePath);
  AssignIfDifferent(version->info.commandLine, create.info.commandLine);  // by pointer
  AssignIfDifferent(version->info.environment, create.info.environment);
  AssignIfDifferent(version->info.flags, create.info.flags);
  return zym::ZYM_OK;
}

void ProcessCache::OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() pid: " << pid << ", ruid: " << realUserId << ", euid: " << effectiveUserId);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) return;
  entry->Last().info.realUserId = realUserId;
  entry->Last().info.effectiveUserId = effectiveUserId;
}

void ProcessCache::OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) {
  ZYM_TRACE(GetTracer(), kCall,
            __func__ << "() pid: " << pid << ", rgid: " << realGroupId << ", egid: " << effectiveGroupId);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) return;
  entry->Last().info.realGroupId = realGroupId;
  entry->Last().info.effectiveGroupId = effectiveGroupId;
}

}  // namespace qor::process_manager
