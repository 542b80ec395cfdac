#include "process_manager/process_cache/process_cache.h"

#include <new>
#include <random>
#include <utility>

#include "process_manager/process/process_description.h"
#include "qor_common/os_info.h"
#include "zym/exception_to_result.h"
#include "zym/trace.h"

namespace qor::process_manager {
namespace {

using zym::trace::kCall;

constexpr int kCounterShift = 23;
constexpr std::uint64_t kCounterMask = 0x1ff;  // the low 9 bits of the counter reach the unique pid

std::uint16_t RandomCounterStart() {
  std::random_device device("default");
  std::mt19937 engine(device());
  return std::uniform_int_distribution<std::uint16_t>()(engine);
}

zym::telemetry::TableMetrics TakeMetrics(zym::IServiceLocator* locator) {
  zym::telemetry::TableMetrics metrics;
  ZYM_CHECK_RESULT_OR_THROW(zym::RequireInterface<zym::telemetry::IMetricSource>(locator)->GetTableMetrics(
                                "process_cache", metrics),
                            "Cannot get the metrics of the process cache");
  ZYM_CHECK_OR_THROW(metrics.size && metrics.hits && metrics.misses,
                     "The metrics of the process cache are incomplete");
  return metrics;
}

}  // namespace

ProcessCacheSurroundings ProcessCacheSurroundings::Real() {
  return {.now = &zym::datetime::Now,
          .seconds = [] { return std::time(nullptr); },
          .counterStart = &RandomCounterStart,
          .isWorkstation = [](zym::ITracer* tracer) { return IsWorkstation(tracer); }};
}

// Knows the cache without keeping it alive, until the cache lets go of it. A registry that calls it even then
// does no harm.
class ProcessCache::SizeCollector : public zym::object::Ifaces<zym::telemetry::ICollector> {
 public:
  explicit SizeCollector(ProcessCache& cache) : m_cache(&cache) {}

  void Collect() override {
    const std::scoped_lock lock(m_mutex);
    if (m_cache != nullptr) m_cache->ReportSize();
  }

  // When it returns, no call of Collect is in the cache, nor will be.
  void LetGo() {
    const std::scoped_lock lock(m_mutex);
    m_cache = nullptr;
  }

 private:
  std::mutex m_mutex;  // guards m_cache; the cache's mutex is taken inside it
  ProcessCache* m_cache;
};

ProcessCache::ProcessCache(zym::IServiceLocator* locator, std::int64_t deadEntryRetention,
                           ProcessCacheSurroundings surroundings)
    : TracerProvider(locator, "ProcessCache"),
      m_surroundings(std::move(surroundings)),
      m_deadEntryRetention(deadEntryRetention),
      m_tracerCategoryFilter(zym::RequireInterface<zym::ITracerCategoryFilter>(locator)),
      m_metrics(TakeMetrics(locator)),
      m_live(m_surroundings.isWorkstation(GetTracer()) ? kWorkstationCapacity : kServerCapacity),
      m_dead(kDeadCapacity),
      m_uniqueCounter(m_surroundings.counterStart()),
      m_metricsRegistry(zym::RequireInterface<zym::telemetry::IMetricsRegistry>(locator)),
      m_collector(zym::CreateObject<SizeCollector>(*this)) {
  m_live.Emplace(0, 0U, 0U);  // the kernel: the one pid whose unique pid is fixed
  // Last, for the registry may call the collector at once.
  const zym::result_t result = m_metricsRegistry->RegisterCollector(m_collector.get(), &m_collectorToken);
  if (!ZYM_SUCCEEDED(result)) m_collector->LetGo();
  ZYM_CHECK_RESULT_OR_THROW(result, "Cannot register the collector of the process cache");
}

ProcessCache::~ProcessCache() {
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__);
  {
    const std::scoped_lock lock(m_mutex);
    m_live.Clear();
    m_dead.Clear();
  }
  m_collector->LetGo();
  ZYM_REPORT_RESULT(GetTracer(), m_metricsRegistry->UnregisterCollector(m_collectorToken));
}

void ProcessCache::ReportSize() {
  const std::scoped_lock lock(m_mutex);
  m_metrics.size->Set(static_cast<std::int64_t>(m_live.Size()));
}

// --- the pieces ---

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
  return m_live.Emplace(pid, pid, NewUniquePid(pid));
}

UniquePidType ProcessCache::NewUniquePid(PidType pid) {
  ++m_uniqueCounter;
  if (pid == kNoPid) return kNoUniquePid;
  const auto seconds = static_cast<std::uint64_t>(m_surroundings.seconds());
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
  SetParent(parent, first);
  if (!force && entry.ready) return entry;
  SetCreator(parent, first);
  first.imagePath = parent.imagePath;
  first.commandLine = parent.commandLine;
  first.flags = parent.flags;
  AssignGroup<ProcessCredentials>(first, parent);
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

void ProcessCache::End(Version& version, zym::datetime_t time) {
  version.endSequence = ++m_sequence;
  version.info.state = kTerminated;
  version.info.exitTime = time;
}

ProcessCache::Version& ProcessCache::VersionToEnd(Entry& entry) {
  Version* const version = entry.FrontOf(entry.terminationQueue);
  ZYM_CHECK_OR_THROW(version != nullptr, "No image of the process awaits its end, pid: " << entry.pid);
  return *version;
}

// To be called when a report may have been the last that an image awaited.
void ProcessCache::DropReported(Entry& entry) try {
  if (!entry.DropReported(m_surroundings.imagesKept)) return;
  ZYM_TRACE(GetTracer(), zym::trace::kWarning,
            __PRETTY_FUNCTION__ << " pid: " << entry.pid
                                << ", drops the oldest images, keeps: " << m_surroundings.imagesKept);
} catch (const std::bad_alloc&) {
  // This only saves memory: the report goes on without it, and the next one tries again.
}

// A dead record of the last image takes the place of the entry.
void ProcessCache::Bury(Entry& entry) {
  m_dead.Emplace(entry.pid, std::move(entry.Last().info), m_deadEntryRetention);
  m_live.Erase(entry.pid);
}

// --- questions ---

bool ProcessCache::Get(pid_t pid, ProcessInformation& info) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << pid);
  const std::scoped_lock lock(m_mutex);
  Entry* const entry = m_live.Find(static_cast<PidType>(pid));
  if (entry == nullptr) return GetDead(static_cast<PidType>(pid), info);
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
  static_cast<void>(zym::datetime::ToUnix(record->info.exitTime));  // throws for what is no time
  if (m_surroundings.now() - record->info.exitTime > record->retention) {
    m_dead.Erase(pid);
    m_metrics.misses->Increment();
    return false;
  }
  info = record->info;
  m_metrics.hits->Increment();
  ZYM_TRACE(GetTracer(), kCall, "Cache hit (dead): " << Describe(info));
  return true;
}

// The version with this unique pid, in an entry that is ready; or null, and the trace says why. Counts.
ProcessCache::Version* ProcessCache::FindByUniquePid(UniquePidType uniquePid) {
  const PidType pid = PidOf(uniquePid);
  Entry* const entry = m_live.Find(pid);
  Version* version = nullptr;
  if (entry == nullptr) {
    ZYM_TRACE(GetTracer(), kCall, "Cannot find process info by upid=" << uniquePid << ", pid=" << pid);
  } else if (!entry->ready) {
    ZYM_TRACE(GetTracer(), kCall, "Process info is not ready yet upid=" << uniquePid);
  } else if (version = entry->FindByUniquePid(uniquePid); version == nullptr) {
    ZYM_TRACE(GetTracer(), kCall, "Cannot find process info by upid=" << uniquePid);
  }
  (version != nullptr ? m_metrics.hits : m_metrics.misses)->Increment();
  return version;
}

bool ProcessCache::GetByUniquePid(UniquePidType uniquePid, ProcessInformation& info) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() upid: " << uniquePid);
  const std::scoped_lock lock(m_mutex);
  const Version* const version = FindByUniquePid(uniquePid);
  ZYM_CHECK_AS(GetTracer(), "procInfo", version != nullptr, false);
  info = version->info;
  return true;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  return false;
}

void ProcessCache::Update(ProcessInformation& info) {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() pid: " << info.pid);
  const std::scoped_lock lock(m_mutex);
  Entry& entry = FindOrCreate(info.pid);
  const ProcessInformation& parent = FindOrCreate(info.parentPid).Last().info;
  ProcessInformation& last = entry.Last().info;
  SetParent(parent, last);
  if (!entry.ready) {
    SetCreator(parent, last);
    ProcessInformation read = info;
    Merge(read, last, false);
    entry.ready = true;
  }
  AssignGroup<ProcessIds>(info, last);
  ZYM_TRACE(GetTracer(), kCall, __PRETTY_FUNCTION__ << " " << Describe(info));
}

bool ProcessCache::UpdateAdditionalInfo(ProcessInformation& info) try {
  ZYM_TRACE(GetTracer(), kCall, __func__ << "() upid: " << info.uniquePid);
  const std::scoped_lock lock(m_mutex);
  Version* const version = FindByUniquePid(info.uniquePid);
  ZYM_CHECK_AS(GetTracer(), "procInfo", version != nullptr, false);
  ProcessInformation& known = version->info;
  known.effectiveUserId = info.effectiveUserId;
  known.realGroupId = info.realGroupId;
  known.effectiveGroupId = info.effectiveGroupId;
  known.environment = info.environment;
  ZYM_TRACE(GetTracer(), kCall, __func__ << " Updated info: " << Describe(known));
  return true;
} catch (...) {
  zym::ExceptionInFunctionToResult(GetTracer(), __func__);
  return false;
}

}  // namespace qor::process_manager
