#include "process_manager/process_cache.h"

#include <ctime>
#include <random>
#include <utility>

#include "process_manager/process_description.h"
#include "qor_common/os_info.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

constexpr int kCounterShift = 23;
constexpr std::uint64_t kCounterMask = 0x1ff;  // the low 9 bits of the counter reach the unique pid

// The counter starts at random: unique pids of two runs of the module within a second differ.
std::uint16_t RandomStart() {
  std::random_device device("default");
  std::mt19937 engine(device());
  return std::uniform_int_distribution<std::uint16_t>()(engine);
}

PidType ToPid(pid_t pid) {
  return static_cast<PidType>(pid);
}

zym::telemetry::TableMetrics TakeMetrics(zym::IServiceLocator* locator) {
  zym::telemetry::TableMetrics metrics;
  ZYM_CHECK_RESULT_OR_THROW(zym::RequireInterface<zym::telemetry::IMetricSource>(locator)->GetTableMetrics(
      "process_cache", metrics));
  return metrics;
}

void CopyIdsThatAreKnown(const process_cache::ProcessInformation& from,
                         process_cache::ProcessInformation& to) {
  if (from.realUserId) to.realUserId = from.realUserId;
  if (from.effectiveUserId) to.effectiveUserId = from.effectiveUserId;
  if (from.realGroupId) to.realGroupId = from.realGroupId;
  if (from.effectiveGroupId) to.effectiveGroupId = from.effectiveGroupId;
}

template <class T>
void AssignIfDifferent(T& target, const T& value) {
  if (target != value) target = value;
}

}  // namespace

// Keeps no reference to the cache, which unregisters it before it goes.
class ProcessCache::SizeCollector : public zym::object::Ifaces<zym::telemetry::ICollector> {
 public:
  explicit SizeCollector(ProcessCache& cache) : m_cache(cache) {}

  void Collect() override {
    const std::scoped_lock lock(m_cache.m_mutex);
    m_cache.m_metrics.size->Set(static_cast<std::int64_t>(m_cache.m_live.Size()));
  }

 private:
  ProcessCache& m_cache;
};

ProcessCache::ProcessCache(zym::IServiceLocator* locator, std::int64_t deadEntryRetention,
                           zym::datetime_t (*now)() noexcept)
    : TracerProvider(locator, "ProcessCache"),
      m_live(IsWorkstation(GetTracer()) ? kWorkstationCapacity : kServerCapacity),
      m_dead(kDeadCapacity),
      m_deadEntryRetention(deadEntryRetention),
      m_uniqueCounter(RandomStart()),
      m_now(now),
      m_tracerCategoryFilter(zym::RequireInterface<zym::ITracerCategoryFilter>(locator)),
      m_metrics(TakeMetrics(locator)),
      m_metricsRegistry(zym::RequireInterface<zym::telemetry::IMetricsRegistry>(locator)) {
  m_live.Insert(0, Entry(0, 0));  // the kernel: the one pid whose unique pid is fixed
  const auto collector = zym::CreateObject<SizeCollector>(*this);
  ZYM_CHECK_RESULT_OR_THROW(m_metricsRegistry->RegisterCollector(collector.get(), &m_collectorToken),
                            "Cannot register the collector of the process cache");
}

ProcessCache::~ProcessCache() {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  {
    const std::scoped_lock lock(m_mutex);
    m_live.Clear();
    m_dead.Clear();
  }
  ZYM_REPORT_RESULT(GetTracer(), m_metricsRegistry->UnregisterCollector(m_collectorToken));
}

// --- the pieces
// ---------------------------------------------------------------------------------------------

std::string ProcessCache::Describe(const ProcessInformation& info) const {
  return DescribeProcess(info, m_tracerCategoryFilter.get());
}

ProcessCache::Entry* ProcessCache::Find(PidType pid) {
  Entry* const entry = m_live.Find(pid);
  (entry != nullptr ? m_metrics.hits : m_metrics.misses)->Increment();
  return entry;
}

ProcessCache::Entry& ProcessCache::FindOrCreate(PidType pid) {
  if (Entry* const entry = Find(pid); entry != nullptr) return *entry;
  return m_live.Insert(pid, Entry(pid, NewUniquePid(pid)));
}

UniquePidType ProcessCache::NewUniquePid(PidType pid) {
  ++m_uniqueCounter;
  if (pid == kNoPid) return kNoUniquePid;
  const auto seconds = static_cast<std::uint64_t>(std::time(nullptr));
  // The pid is combined without a mask: Linux has none beyond 22 bits.
  return seconds << 32 | (m_uniqueCounter & kCounterMask) << kCounterShift | pid;
}

// A child looks like its parent until something better comes. A parent that was never seen gets an entry that
// isn't ready.
ProcessCache::Entry& ProcessCache::LinkParent(PidType pid, PidType parentPid, bool force) {
  Entry& entry = FindOrCreate(pid);
  // Making the parent's entry may evict the coldest one, which the child's isn't.
  const ProcessInformation& parent = FindOrCreate(parentPid).Last().info;
  ProcessInformation& first = entry.First().info;
  first.parentPid = parent.pid;
  first.parentUniquePid = parent.uniquePid;
  if (!force && entry.ready) return entry;
  first.creatorPid = parent.pid;
  first.creatorUniquePid = parent.uniquePid;
  first.imagePath = parent.imagePath;
  first.commandLine = parent.commandLine;
  first.realUserId = parent.realUserId;
  first.effectiveUserId = parent.effectiveUserId;
  first.realGroupId = parent.realGroupId;
  first.effectiveGroupId = parent.effectiveGroupId;
  first.flags = parent.flags;
  entry.ready = true;
  return entry;
}

ProcessCache::Version& ProcessCache::AppendVersion(Entry& entry, zym::datetime_t time) {
  return entry.AppendVersion(NewUniquePid(entry.Last().info.pid), ++m_sequence, time);
}

ProcessCache::Version& ProcessCache::VersionToCreate(Entry& entry, zym::datetime_t time) {
  Version* const awaited = entry.FrontOf(entry.creationQueue);
  return awaited != nullptr ? *awaited : AppendVersion(entry, time);
}

ProcessCache::Version& ProcessCache::VersionToEnd(Entry& entry) {
  Version* const version = entry.FrontOf(entry.terminationQueue);
  ZYM_CHECK_OR_THROW(version != nullptr, "No image of the process awaits its end, pid: " << entry.pid);
  return *version;
}

void ProcessCache::Bury(Entry& entry) {
  const PidType pid = entry.pid;
  m_dead.Insert(pid, DeadRecord{std::move(entry.Last().info), m_deadEntryRetention});
  m_live.Erase(pid);
}

// --- reports of the event sources
// ---------------------------------------------------------------------------

void ProcessCache::OnFork(ProcessInformation&& info, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  Entry& entry = LinkParent(info.pid, info.parentPid, true);
  // On the first version, although a permission path may have appended a later image already: the events of
  // the first image are told in order, and the later one stays in the queues for its own report.
  Version& first = entry.First();
  if (first.startSequence == 0) first.startSequence = ++m_sequence;
  const auto merge = info.state == kTerminated ? &process_cache::MergeGone : &process_cache::Merge;
  merge(info, first.info, true);
  process_cache::PopFront(entry.creationQueue);
  create.isFork = true;
  create.sequence = first.startSequence;
  create.info = first.info;
}

void ProcessCache::OnExecPerm(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  Entry& entry = LinkParent(info.pid, info.parentPid, false);
  const zym::datetime_t time = info.startTime;
  Version& old = entry.Last();
  if (old.startSequence == 0) old.startSequence = ++m_sequence;
  old.endSequence = ++m_sequence;
  old.info.state = kTerminated;
  old.info.exitTime = time;
  exit.isExec = true;
  exit.sequence = old.endSequence;
  exit.info = old.info;

  Version& image = AppendVersion(entry, time);
  process_cache::Merge(info, image.info, false);
  create.sequence = image.startSequence;
  create.info = image.info;
}

// Possibly the second report of this transition: after OnExecPerm the numbers that it gave are told again.
void ProcessCache::OnExec(ProcessInformation&& info, EventInfo& exit, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  const bool gone = info.state == kTerminated;
  Entry& entry = gone ? FindOrCreate(info.pid) : LinkParent(info.pid, info.parentPid, false);
  const zym::datetime_t time = info.startTime;

  Version& old = VersionToEnd(entry);
  if (old.endSequence == 0) {
    old.endSequence = ++m_sequence;
    old.info.state = kTerminated;
    old.info.exitTime = time;
  }
  // The creation of the old image, if it wasn't told yet, will never be.
  if (old.startSequence == 0) process_cache::PopFront(entry.creationQueue);
  process_cache::PopFront(entry.terminationQueue);
  exit.isExec = true;
  exit.sequence = old.endSequence;
  exit.info = old.info;
  const std::optional<std::uint32_t> realUserId = old.info.realUserId;
  const std::optional<std::uint32_t> realGroupId = old.info.realGroupId;

  Version& image = VersionToCreate(entry, time);
  if (gone && entry.ready)
    process_cache::MergeGone(info, image.info, false);
  else
    process_cache::Merge(info, image.info, false);
  // An exec doesn't change the real ids; that the old image had none read is kept too.
  image.info.realUserId = realUserId;
  image.info.realGroupId = realGroupId;
  process_cache::PopFront(entry.creationQueue);
  create.sequence = image.startSequence;
  create.info = image.info;
}

void ProcessCache::OnExit(pid_t pid, EventInfo& exit) {
  const zym::datetime_t now = m_now();
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) {
    exit.skip = true;
    return;
  }
  Version& version = VersionToEnd(*entry);
  version.endSequence = ++m_sequence;
  version.info.state = kTerminated;
  version.info.exitTime = now;
  process_cache::PopFront(entry->terminationQueue);
  exit.sequence = version.endSequence;
  exit.info = version.info;
}

void ProcessCache::OnExitProcess(EventInfo& exit) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(exit.info.pid);
  if (entry == nullptr) {
    exit.skip = true;
    return;
  }
  if (exit.isExec) return;
  if (!entry->creationQueue.empty() && entry->creationQueue.front() != 0) {
    ZYM_TRACE(
        GetTracer(), zym::trace::kWarning,
        __PRETTY_FUNCTION__ << " pid: " << entry->pid << ", not erased: " << entry->creationQueue.front());
    entry->exitPending = true;
    return;
  }
  entry->Last().info.state = kTerminated;
  Bury(*entry);
}

void ProcessCache::OnExecDeny(ProcessInformation&& info, EventInfo& exit, EventInfo& create,
                              EventInfo& forkExit, EventInfo& forkCreate) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(info.pid);
  ZYM_CHECK_OR_THROW(entry != nullptr, "A process that was denied an exec isn't known, pid: " << info.pid);
  const zym::datetime_t time = info.startTime;

  Version& last = entry->Last();
  last.endSequence = ++m_sequence;
  last.info.state = kTerminated;
  last.info.exitTime = time;
  process_cache::PopBack(entry->creationQueue);
  process_cache::PopBack(entry->terminationQueue);
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

  process_cache::PopBack(entry->terminationQueue);
  ZYM_CHECK_OR_THROW(entry->versions.size() > 1,
                     "An exec was denied that nobody announced, pid: " << info.pid);
  const Version previous = entry->versions[entry->versions.size() - 2];
  exit.isExec = true;
  exit.sequence = previous.endSequence;
  exit.info = previous.info;

  // The process goes on as what it was, under a new unique pid.
  Version& next = AppendVersion(*entry, time);
  process_cache::Merge(info, next.info, false);
  next.info.creatorPid = previous.info.creatorPid;
  next.info.creatorUniquePid = previous.info.creatorUniquePid;
  forkCreate.sequence = next.startSequence;
  forkCreate.info = next.info;
  process_cache::PopBack(entry->creationQueue);
  create.sequence = next.startSequence;
  create.info = next.info;
}

zym::result_t ProcessCache::OnCreateProcess(bool shouldUpdateExecInfo, EventInfo& create) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(create.info.pid);
  if (entry == nullptr) {
    create.skip = true;
    return zym::ZYM_E_NOT_FOUND;
  }
  if (!shouldUpdateExecInfo) return zym::ZYM_OK;
  Version* const procInfo = entry->FindByUniquePid(create.info.uniquePid);
  ZYM_CHECK(GetTracer(), procInfo, zym::ZYM_E_NOT_FOUND);
  AssignIfDifferent(procInfo->info.imagePath, create.info.imagePath);
  AssignIfDifferent(procInfo->info.commandLine, create.info.commandLine);  // by pointer
  AssignIfDifferent(procInfo->info.environment, create.info.environment);
  AssignIfDifferent(procInfo->info.flags, create.info.flags);
  return zym::ZYM_OK;
}

void ProcessCache::OnUidChange(pid_t pid, uid_t realUserId, uid_t effectiveUserId) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) return;
  entry->Last().info.realUserId = realUserId;
  entry->Last().info.effectiveUserId = effectiveUserId;
}

void ProcessCache::OnGidChange(pid_t pid, gid_t realGroupId, gid_t effectiveGroupId) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = Find(ToPid(pid));
  if (entry == nullptr) return;
  entry->Last().info.realGroupId = realGroupId;
  entry->Last().info.effectiveGroupId = effectiveGroupId;
}

// --- questions
// ----------------------------------------------------------------------------------------------

bool ProcessCache::Get(pid_t pid, ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = m_live.Find(ToPid(pid));
  if (entry == nullptr) return GetDead(ToPid(pid), info);
  if (!entry->ready) {
    m_metrics.misses->Increment();
    return false;
  }
  info = entry->Last().info;
  m_metrics.hits->Increment();
  ZYM_TRACE(GetTracer(), kCall, "Cache hit: " << Describe(info));
  return true;
}

// Records that are too old go here, and by eviction; nowhere else.
bool ProcessCache::GetDead(PidType pid, ProcessInformation& info) {
  const DeadRecord* const record = m_dead.Find(pid);
  if (record == nullptr) {
    m_metrics.misses->Increment();
    return false;
  }
  static_cast<void>(zym::datetime::ToUnix(record->info.exitTime));  // throws for a time that is none
  if (m_now() - record->info.exitTime > record->retention) {
    m_dead.Erase(pid);
    m_metrics.misses->Increment();
    return false;
  }
  info = record->info;
  m_metrics.hits->Increment();
  ZYM_TRACE(GetTracer(), kCall, "Cache hit (dead): " << Describe(info));
  return true;
}

// The version with this unique pid, in an entry that is ready; why there is none is traced. Counts a miss.
ProcessCache::Version* ProcessCache::FindByUniquePid(UniquePidType uniquePid, const char* function) {
  const PidType pid = PidOf(uniquePid);
  Entry* const entry = m_live.Find(pid);
  Version* version = nullptr;
  if (entry == nullptr) {
    ZYM_TRACE(GetTracer(), kCall,
              function << ": "
                       << "Cannot find process info by upid=" << uniquePid << ", pid=" << pid);
  } else if (!entry->ready) {
    ZYM_TRACE(GetTracer(), kCall,
              function << ": "
                       << "Process info is not ready yet upid=" << uniquePid);
  } else if (version = entry->FindByUniquePid(uniquePid); version == nullptr) {
    ZYM_TRACE(GetTracer(), kCall,
              function << ": "
                       << "Cannot find process info by upid=" << uniquePid);
  }
  (version != nullptr ? m_metrics.hits : m_metrics.misses)->Increment();
  return version;
}

bool ProcessCache::GetByUniquePid(UniquePidType uniquePid, ProcessInformation& info) try {
  const std::scoped_lock lock(m_mutex);
  const Version* const procInfo = FindByUniquePid(uniquePid, __func__);
  ZYM_CHECK(GetTracer(), procInfo, false);
  info = procInfo->info;
  return true;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), "GetByUniquePid");
  return false;
}

void ProcessCache::Update(ProcessInformation& info) {
  const std::scoped_lock lock(m_mutex);
  Entry& entry = FindOrCreate(info.pid);
  const ProcessInformation& parent = FindOrCreate(info.parentPid).Last().info;
  ProcessInformation& last = entry.Last().info;
  last.parentPid = parent.pid;
  last.parentUniquePid = parent.uniquePid;
  if (!entry.ready) {
    last.creatorPid = parent.pid;
    last.creatorUniquePid = parent.uniquePid;
    last.sessionId = info.sessionId;
    last.startTime = info.startTime;
    last.exitTime = info.exitTime;
    last.state = info.state;
    last.workingDirectory = info.workingDirectory;
    last.commandLine = info.commandLine;
    last.imagePath = info.imagePath;
    last.flags = info.flags;
    CopyIdsThatAreKnown(info, last);
    last.environment = info.environment;
    last.mountNamespaceId = info.mountNamespaceId;
    entry.ready = true;
  }
  info.uniquePid = last.uniquePid;
  info.parentUniquePid = last.parentUniquePid;
  info.creatorPid = last.creatorPid;
  info.creatorUniquePid = last.creatorUniquePid;
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " " << Describe(info));
}

bool ProcessCache::UpdateAdditionalInfo(ProcessInformation& info) try {
  const std::scoped_lock lock(m_mutex);
  Version* const procInfo = FindByUniquePid(info.uniquePid, __func__);
  ZYM_CHECK(GetTracer(), procInfo, false);
  procInfo->info.effectiveUserId = info.effectiveUserId;
  procInfo->info.realGroupId = info.realGroupId;
  procInfo->info.effectiveGroupId = info.effectiveGroupId;
  procInfo->info.environment = info.environment;
  ZYM_TRACE(GetTracer(), kCall, __func__ << " Updated info: " << Describe(procInfo->info));
  return true;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), "UpdateAdditionalInfo");
  return false;
}

}  // namespace qor::process_manager
