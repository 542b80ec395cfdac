// The host of the tests: every service that the module asks for, small, observable, and able to fail.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_kit/malloc_allocator.h"
#include "host_kit/service_locator.h"
#include "process_manager/services/feature_lookup.h"
#include "process_manager/services/metrics.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "zym/object.h"
#include "zym/tracer.h"

namespace test_support {

struct TraceRecord {
  std::uint32_t level;
  std::string text;
  std::thread::id thread;
};

// Keeps what is traced. Begins with a ceiling of 1000.
class RecordingTracer : public zym::object::Ifaces<zym::ITracer, zym::ITraceLevelSource> {
 public:
  zym::result_t GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) override;
  void CommitRecord(void* buffer, std::uint64_t length) override;
  const std::uint32_t* GetLevelPtr() override { return &m_ceiling; }

  void SetCeiling(std::uint32_t level) { m_ceiling = level; }
  // Every open call gives `result` from now on, with no buffer.
  void RefuseRecords(zym::result_t result) { m_refusal = result; }
  void RefuseGrowth(bool refuse) { m_refuseGrowth = refuse; }

  std::vector<TraceRecord> Records() const;
  // The first record that contains `text`, or an empty one.
  std::string Find(std::string_view text) const;
  bool Has(std::string_view text) const { return !Find(text).empty(); }
  bool Has(std::uint32_t level, std::string_view text) const;
  void Clear();
  std::uint64_t OpenCalls() const { return m_openCalls; }
  std::uint64_t OpenRecords() const { return m_openRecords; }

 private:
  struct Header {
    std::uint64_t level;
  };

  mutable std::mutex m_mutex;  // guards m_records
  std::vector<TraceRecord> m_records;
  std::uint32_t m_ceiling = zym::trace::kDefaultCeiling;
  std::atomic<zym::result_t> m_refusal{zym::ZYM_OK};
  std::atomic<bool> m_refuseGrowth{false};
  std::atomic<std::uint64_t> m_openCalls{0};
  std::atomic<std::uint64_t> m_openRecords{0};
};

// malloc that counts, and fails at a chosen call.
class CountingAllocator : public host_kit::MallocAllocator {
 public:
  void* Alloc(std::uint64_t size) override;
  void* Reallocate(void* p, std::uint64_t size) override;
  void Free(void* p) override;

  // The call with this number from now on (0 is the next) gives null; so do all after it.
  void FailFrom(std::uint64_t call) { m_failFrom = m_calls + call; }
  void NeverFail() { m_failFrom = std::numeric_limits<std::uint64_t>::max(); }
  std::int64_t Live() const { return m_live; }
  std::uint64_t Calls() const { return m_calls; }

 private:
  std::atomic<std::uint64_t> m_calls{0};
  std::atomic<std::uint64_t> m_failFrom{std::numeric_limits<std::uint64_t>::max()};
  std::atomic<std::int64_t> m_live{0};
};

// A locator that records what it is asked for, and fails where a test wants it.
class FakeLocator : public host_kit::ServiceLocator {
 public:
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) override;

  // Ends a failure of this id.
  void Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service);
  template <class I>
  void Add(const zym::intrusive_ptr<I>& service, zym::iid_t iid = I::kIid) {
    Add(iid, zym::intrusive_ptr<zym::IObject>(AsObject(service.get())));
  }
  // The locator answers `result` for this id from now on.
  void FailWith(zym::iid_t iid, zym::result_t result);
  // Drops every service and every failure: breaks the cycles between the locator and services that hold it.
  void Clear();
  // The ids that were asked for since the last Clear.
  std::set<zym::iid_t> Asked() const;

 private:
  // The primary interface of an object with several.
  template <class I>
  static zym::IObject* AsObject(I* service) {
    if constexpr (requires { service->FindInterface(0); })
      return static_cast<zym::IObject*>(service->FindInterface(zym::IObject::kIid));
    else
      return service;
  }

  mutable std::mutex m_mutex;  // guards all below
  std::map<zym::iid_t, zym::result_t> m_failures;
  std::set<zym::iid_t> m_asked;
};

class FakeCategoryFilter : public zym::object::Ifaces<zym::ITracerCategoryFilter> {
 public:
  zym::result_t Check(std::uint32_t) override { return m_allowed ? zym::ZYM_OK : zym::ZYM_FALSE; }
  void Allow(bool allowed) { m_allowed = allowed; }

 private:
  std::atomic<bool> m_allowed{true};
};

class FakeStartupDataProvider : public zym::object::Ifaces<qor::IStartupDataProvider> {
 public:
  const qor::StartupData* GetStartupData() override { return &data; }
  qor::StartupData data;
};

class FakeScanStatisticsCollector : public zym::object::Ifaces<qor::IScanStatisticsCollector> {
 public:
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&& path) override;
  std::vector<std::u16string> Paths() const;
  void FailWith(zym::result_t result) { m_result = result; }

 private:
  mutable std::mutex m_mutex;  // guards m_paths
  std::vector<std::u16string> m_paths;
  std::atomic<zym::result_t> m_result{zym::ZYM_OK};
};

class FakeFeatureLookup : public zym::object::Ifaces<qor::IFeatureLookup> {
 public:
  zym::result_t GetBoolean(const char* name, bool* value) override;
  std::map<std::string, bool> values;
};

class FakeGauge : public zym::object::Ifaces<zym::telemetry::IGauge> {
 public:
  void Set(std::int64_t value) override { m_value = value; }
  std::int64_t Value() const { return m_value; }

 private:
  std::atomic<std::int64_t> m_value{0};
};

class FakeCounter : public zym::object::Ifaces<zym::telemetry::ICounter> {
 public:
  void Increment() override { ++m_value; }
  void Reset() override { m_value = 0; }
  std::uint64_t Value() const { return m_value; }

 private:
  std::atomic<std::uint64_t> m_value{0};
};

class FakeMetricSource : public zym::object::Ifaces<zym::telemetry::IMetricSource> {
 public:
  zym::result_t GetTableMetrics(const char* component, zym::telemetry::TableMetrics& metrics) override;

  zym::intrusive_ptr<FakeGauge> size = zym::CreateObject<FakeGauge>();
  zym::intrusive_ptr<FakeCounter> hits = zym::CreateObject<FakeCounter>();
  zym::intrusive_ptr<FakeCounter> misses = zym::CreateObject<FakeCounter>();
};

class FakeMetricsRegistry : public zym::object::Ifaces<zym::telemetry::IMetricsRegistry> {
 public:
  zym::result_t GetText(zym::types::string_t&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) override;
  zym::result_t UnregisterCollector(std::uint64_t token) override;
  // Runs every collector, as a read of the metrics would.
  void Collect();
  std::size_t Collectors() const;

 private:
  mutable std::mutex m_mutex;  // guards all below
  std::uint64_t m_lastToken = 0;
  std::map<std::uint64_t, zym::intrusive_ptr<zym::telemetry::ICollector>> m_collectors;
};

// A host with every required service in its locator. Ends with an empty locator, so that nothing is kept
// alive by a cycle.
struct FakeHost {
  FakeHost();
  ~FakeHost();
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  zym::intrusive_ptr<RecordingTracer> tracer;
  zym::intrusive_ptr<CountingAllocator> allocator;
  zym::intrusive_ptr<FakeCategoryFilter> categoryFilter;
  zym::intrusive_ptr<FakeStartupDataProvider> startupData;
  zym::intrusive_ptr<FakeScanStatisticsCollector> scanStatistics;
  zym::intrusive_ptr<FakeMetricSource> metricSource;
  zym::intrusive_ptr<FakeMetricsRegistry> metricsRegistry;
  zym::intrusive_ptr<FakeLocator> locator;
};

}  // namespace test_support
