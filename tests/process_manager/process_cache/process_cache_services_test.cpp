// The cache and the host's metrics: what it counts, and what it does without a service or with one that
// fails.
#include "process_manager/process_cache/process_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/process_manager/process_cache/process_cache_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

// --- failures ---

class ThrowingCounter : public zym::object::Ifaces<zym::telemetry::ICounter> {
 public:
  void Increment() override {
    if (throws) throw std::out_of_range("the counter is full");
  }
  void Reset() override {}
  std::atomic<bool> throws = false;
};

// Gives chosen objects, or fails.
class MetricSource : public zym::object::Ifaces<zym::telemetry::IMetricSource> {
 public:
  zym::result_t GetTableMetrics(const char* component, zym::telemetry::TableMetrics& out) override {
    asked = component;
    out = metrics;
    return result;
  }
  zym::result_t result = zym::ZYM_OK;
  zym::telemetry::TableMetrics metrics;
  std::string asked;
};

zym::telemetry::TableMetrics AllMetrics() {
  return {.size = zym::CreateObject<test_support::FakeGauge>(),
          .hits = zym::CreateObject<test_support::FakeCounter>(),
          .misses = zym::CreateObject<test_support::FakeCounter>()};
}

TEST_F(ProcessCacheTest, AnExceptionInALookupByUniquePidIsTracedAndGivesFalse) {
  const auto counter = zym::CreateObject<ThrowingCounter>();
  const auto source = zym::CreateObject<MetricSource>();
  source->metrics = AllMetrics();
  source->metrics.hits = counter;
  m_host->locator->Add(source);
  m_cache = MakeCache();
  Info info = Fork().info;
  counter->throws = true;
  EXPECT_FALSE(m_cache->GetByUniquePid(info.uniquePid, info));
  EXPECT_TRUE(Traced(zym::trace::kFailure, "ProcessCache::GetByUniquePid: the counter is full"));
  EXPECT_FALSE(m_cache->UpdateAdditionalInfo(info));
  EXPECT_TRUE(Traced(zym::trace::kFailure, "ProcessCache::UpdateAdditionalInfo: the counter is full"));
  counter->throws = false;
  EXPECT_TRUE(m_cache->GetByUniquePid(info.uniquePid, info)) << "the mutex was given back";
}

TEST_F(ProcessCacheTest, CannotBeMadeWithoutItsServices) {
  for (const zym::iid_t iid : {zym::ITracer::kIid, zym::ITracerCategoryFilter::kIid,
                               zym::telemetry::IMetricSource::kIid, zym::telemetry::IMetricsRegistry::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    const std::int32_t objects = zym::ModuleObjectCounter::Value();
    EXPECT_THROW(zym::CreateObject<ProcessCache>(host.locator.get(), kRetention, Surroundings()),
                 zym::GetInterfaceException)
        << iid;
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects) << iid;
    EXPECT_EQ(host.metricsRegistry->Collectors(), 0U) << iid;
  }
}

TEST_F(ProcessCacheTest, CannotBeMadeWithoutItsMetrics) {
  const auto source = zym::CreateObject<MetricSource>();
  m_host->locator->Add(source);
  EXPECT_THROW(MakeCache(), zym::CheckFailedException) << "all three, or a failure";
  source->metrics = AllMetrics();
  source->result = zym::ZYM_E_NOT_FOUND;
  EXPECT_THROW(MakeCache(), zym::CheckResultFailedException);
  EXPECT_EQ(source->asked, "process_cache");
}

// --- metrics ---

TEST_F(ProcessCacheTest, EachFindCountsAHitOrAMiss) {
  struct Case {
    const char* name;
    std::function<void()> operation;
    std::uint64_t hits;
    std::uint64_t misses;
  };
  EventInfo event;
  Info info;
  UniquePidType uniquePid = 0;
  const std::vector<Case> cases = {
      {"a fork of two unknown processes", [&] { uniquePid = Fork().info.uniquePid; }, 0, 2},
      {"a fork of two known ones", [&] { Fork(); }, 2, 0},
      {"an exec", [&] { ReportExec(ReadOf(kChild, kParent, u"/bin/x")); }, 2, 0},
      {"an exec of one that is gone", [&] { ReportExec(GoneOf(kChild)); }, 1, 0},
      {"a permission", [&] { ReportExecPerm(ReadOf(kChild, kParent, u"/bin/x")); }, 2, 0},
      {"a denial", [&] { ReportExecDeny(ReadOf(kChild, kParent, u"/bin/x")); }, 1, 0},
      {"an unknown denial", [&] { EXPECT_ANY_THROW(ReportExecDeny(ReadOf(300, 1, u"/"))); }, 0, 1},
      {"a question", [&] { m_cache->Get(kChild, info); }, 1, 0},
      {"a question for an entry that isn't ready", [&] { m_cache->Get(kParent, info); }, 0, 1},
      {"a question for nobody", [&] { m_cache->Get(300, info); }, 0, 1},
      {"a unique pid", [&] { m_cache->GetByUniquePid(uniquePid, info); }, 1, 0},
      {"a unique pid of another image", [&] { m_cache->GetByUniquePid(uniquePid + 1, info); }, 0, 1},
      {"an update", [&] { Learn(ReadOf(kChild, kParent, u"/bin/x")); }, 2, 0},
      {"credentials", [&] { m_cache->OnUidChange(kChild, 1, 2); }, 1, 0},
      {"an exit", [&] { event = Exit(); }, 1, 0},
      {"a completed creation", [&] { m_cache->OnCreateProcess(true, event); }, 1, 0},
      {"a handled exit", [&] { m_cache->OnExitProcess(event); }, 1, 0},
      {"a question for one that is dead", [&] { m_cache->Get(kChild, info); }, 1, 0},
      {"an unknown exit", [&] { Exit(); }, 0, 1},
      {"a handled unknown exit", [&] { m_cache->OnExitProcess(event); }, 0, 1},
  };
  for (const Case& c : cases) {
    const std::uint64_t hits = Hits();
    const std::uint64_t misses = Misses();
    c.operation();
    EXPECT_EQ(Hits() - hits, c.hits) << c.name;
    EXPECT_EQ(Misses() - misses, c.misses) << c.name;
  }
}

TEST_F(ProcessCacheTest, TheCollectorWritesTheLiveSizeWhenSomebodyReads) {
  EXPECT_EQ(m_host->metricsRegistry->Collectors(), 1U);
  EXPECT_EQ(m_host->metricSource->size->Value(), 0) << "not before somebody reads";
  Fork();
  EXPECT_EQ(LiveSize(), 3);
  Finish();
  EXPECT_EQ(LiveSize(), 2);
}

TEST_F(ProcessCacheTest, TheRegistryDoesNotKeepTheCacheAlive) {
  const std::int32_t objects = zym::ModuleObjectCounter::Value();
  auto other = MakeCache();
  EXPECT_GT(zym::ModuleObjectCounter::Value(), objects);
  other.Reset();
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
}

// A registry that refuses one of its operations.
class RefusingRegistry : public zym::object::Ifaces<zym::telemetry::IMetricsRegistry> {
 public:
  zym::result_t GetText(zym::types::string_t&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t RegisterCollector(zym::telemetry::ICollector* given, std::uint64_t* token) override {
    collector = zym::intrusive_ptr<zym::telemetry::ICollector>(given);
    *token = 7;
    return registerResult;
  }
  zym::result_t UnregisterCollector(std::uint64_t token) override {
    unregistered = token;
    return zym::ZYM_E_NOT_FOUND;
  }
  zym::intrusive_ptr<zym::telemetry::ICollector> collector;  // kept whatever happens
  zym::result_t registerResult = zym::ZYM_OK;
  std::uint64_t unregistered = 0;
};

TEST_F(ProcessCacheTest, ARegistryThatForgetsNothingDoesNoHarm) {
  const auto registry = zym::CreateObject<RefusingRegistry>();
  m_host->locator->Add(registry);
  auto cache = MakeCache();
  registry->collector->Collect();
  EXPECT_EQ(m_host->metricSource->size->Value(), 1);
  m_host->metricSource->size->Set(-1);
  cache.Reset();
  EXPECT_EQ(registry->unregistered, 7U);
  EXPECT_TRUE(Traced(zym::trace::kFailure, "0x8000004c (Not found)"));
  registry->collector->Collect();
  EXPECT_EQ(m_host->metricSource->size->Value(), -1) << "the cache is out of reach";
}

TEST_F(ProcessCacheTest, ARegistryThatTakesNoCollectorIsAFailureOfConstruction) {
  const auto registry = zym::CreateObject<RefusingRegistry>();
  registry->registerResult = zym::ZYM_E_OUT_OF_MEMORY;
  m_host->locator->Add(registry);
  EXPECT_THROW(MakeCache(), zym::CheckResultFailedException);
  EXPECT_EQ(registry->unregistered, 0U);
  registry->collector->Collect();  // kept it all the same: there is no cache behind it
}

}  // namespace
}  // namespace qor::process_manager
