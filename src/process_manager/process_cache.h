// The module's memory of processes: each image under a unique pid, through fork, exec and exit.
#pragma once

#include <cstdint>
#include <mutex>

#include "process_manager/host_services.h"
#include "process_manager/process_cache_entry.h"
#include "process_manager/process_cache_faces.h"
#include "process_manager/process_cache_table.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

// Told by the event sources what happens, asked by whoever wants to know a process. Both tables are bounded;
// nothing runs on a timer: an entry is touched, evicted or erased only by a call. It is not filled at start:
// processes enter by events and by reads that are given back with Update.
//
// One mutex over everything, a leaf: no call out of it blocks, and answers are copies.
class ProcessCache : public zym::object::Ifaces<IProcessInfoProvider, IEventInfoProvider>,
                     public zym::TracerProvider,
                     public zym::NonCopyable {
 public:
  using ProcessInformation = process_cache::ProcessInformation;
  using EventInfo = process_cache::EventInfo;

  static constexpr std::size_t kWorkstationCapacity = 2500;
  static constexpr std::size_t kServerCapacity = 5000;
  static constexpr std::size_t kDeadCapacity = 512;

  // `deadEntryRetention`: how long a process that ended is still answered, in 100-nanosecond units. `now` is
  // the clock, in units since 1601.
  ProcessCache(zym::IServiceLocator* locator, std::int64_t deadEntryRetention,
               zym::datetime_t (*now)() noexcept = &zym::datetime::Now);
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
    ProcessInformation info;
    std::int64_t retention;
  };

  class SizeCollector;

  // All below are called with m_mutex held.
  Entry* Find(PidType pid);
  Entry& FindOrCreate(PidType pid);
  UniquePidType NewUniquePid(PidType pid);
  Entry& LinkParent(PidType pid, PidType parentPid, bool force);
  Version& AppendVersion(Entry& entry, zym::datetime_t time);
  Version& VersionToCreate(Entry& entry, zym::datetime_t time);
  static Version& VersionToEnd(Entry& entry);
  bool GetDead(PidType pid, ProcessInformation& info);
  void Bury(Entry& entry);
  Version* FindByUniquePid(UniquePidType uniquePid, const char* function);
  std::string Describe(const ProcessInformation& info) const;

  std::mutex m_mutex;  // guards the tables and both counters
  ProcessCacheTable<Entry> m_live;
  ProcessCacheTable<DeadRecord> m_dead;
  const std::int64_t m_deadEntryRetention;
  std::uint16_t m_uniqueCounter;
  std::uint64_t m_sequence = 0;
  zym::datetime_t (*const m_now)() noexcept;
  zym::intrusive_ptr<zym::ITracerCategoryFilter> m_tracerCategoryFilter;
  zym::telemetry::TableMetrics m_metrics;
  zym::intrusive_ptr<zym::telemetry::IMetricsRegistry> m_metricsRegistry;
  std::uint64_t m_collectorToken = 0;
};

}  // namespace qor::process_manager
