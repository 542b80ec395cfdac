// The module's record of processes: each image under a unique pid, through fork, exec and exit.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>

#include "process_manager/process_cache.h"
#include "process_manager/process_cache/process_cache_entry.h"
#include "process_manager/process_cache/process_cache_table.h"
#include "process_manager/services/metrics.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// What the cache takes from the machine, and a bound that a test lowers: a test puts its own in.
struct ProcessCacheSurroundings {
  std::function<zym::datetime_t()> now;  // the clock of exit times and of the retention
  std::function<std::time_t()> seconds;  // since 1970; the upper half of a unique pid
  std::function<std::uint16_t()> counterStart;
  std::function<bool(zym::ITracer*)> isWorkstation;
  // Of one process, those whose begin and end were both reported; at least Entry::kFewestKept.
  std::uint32_t imagesKept = 4096;

  // The real ones. The counter starts at random, so that unique pids of two runs of the module within one
  // second differ.
  static ProcessCacheSurroundings Real();
};

// The event sources report to it what happens; whoever looks for a process asks it. Both tables are bounded,
// and nothing runs on a timer: an entry is touched, evicted or erased only by a call. The cache is not filled
// at start: processes enter by events, and by reads that are passed to Update.
//
// Of one process at most 4,096 images are kept whose begin and end were both reported: the first, which holds
// the link to the parent, and the newest. An image that still awaits a report is never dropped.
//
// One mutex over everything, a leaf: no call out of it blocks, and answers are copies. Each operation traces
// its entry before it takes the mutex, and whatever else it traces inside.
class ProcessCache : public zym::object::Ifaces<IProcessInfoProvider, IEventInfoProvider>,
                     public zym::TracerProvider,
                     public zym::NonCopyable {
 public:
  using ProcessInformation = process_cache::ProcessInformation;
  using EventInfo = process_cache::EventInfo;

  static constexpr std::uint32_t kWorkstationCapacity = 2500;
  static constexpr std::uint32_t kServerCapacity = 5000;
  static constexpr std::uint32_t kDeadCapacity = 512;

  // `deadEntryRetention`: how long a process that ended is still answered, in 100-nanosecond units. Throws
  // when the tracer, the category filter, the metric source or the metrics registry is missing or fails.
  ProcessCache(zym::IServiceLocator* locator, std::int64_t deadEntryRetention,
               ProcessCacheSurroundings surroundings = ProcessCacheSurroundings::Real());
  ~ProcessCache();

  bool Get(pid_t pid, ProcessInformation& info) override;
  bool GetByUniquePid(UniquePidType uniquePid, ProcessInformation& info) override;
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

 private:
  using Entry = process_cache::Entry;
  using Version = process_cache::Version;

  // One finished process.
  struct DeadRecord {
    DeadRecord(ProcessInformation&& info_, std::int64_t retention_)
        : info(std::move(info_)), retention(retention_) {}

    ProcessInformation info;
    std::int64_t retention;
  };

  class SizeCollector;

  void ReportSize();

  // All below are called with m_mutex held.
  Entry* Find(PidType pid);
  Entry& FindOrCreate(PidType pid);
  UniquePidType NewUniquePid(PidType pid);
  Entry& LinkParent(PidType pid, PidType parentPid, bool force);
  Version& AppendVersion(Entry& entry, zym::datetime_t time);
  Version& VersionToCreate(Entry& entry, zym::datetime_t time);
  static Version& VersionToEnd(Entry& entry);
  void End(Version& version, zym::datetime_t time);
  void DropReported(Entry& entry);
  void Bury(Entry& entry);
  bool GetDead(PidType pid, ProcessInformation& info);
  Version* FindByUniquePid(UniquePidType uniquePid);
  [[nodiscard]] std::string Describe(const ProcessInformation& info) const;

  const ProcessCacheSurroundings m_surroundings;
  const std::int64_t m_deadEntryRetention;
  const zym::intrusive_ptr<zym::ITracerCategoryFilter> m_tracerCategoryFilter;
  const zym::telemetry::TableMetrics m_metrics;

  std::mutex m_mutex;  // guards the tables and both counters
  ProcessCacheTable<Entry> m_live;
  ProcessCacheTable<DeadRecord> m_dead;
  std::uint16_t m_uniqueCounter;
  std::uint64_t m_sequence = 0;

  const zym::intrusive_ptr<zym::telemetry::IMetricsRegistry> m_metricsRegistry;
  zym::intrusive_ptr<SizeCollector> m_collector;
  std::uint64_t m_collectorToken = 0;
};

}  // namespace qor::process_manager
