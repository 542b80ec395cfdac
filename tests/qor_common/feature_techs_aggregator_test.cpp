#include "qor_common/feature_techs_aggregator.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/services/product_values.h"
#include "process_manager/services/task_manager.h"
#include "qor_common/enum_names.h"
#include "qor_common/task_manager_fake.h"
#include "support/fake_services.h"
#include "zym/exception.h"
#include "zym/module_counter.h"

namespace qor {
namespace {

class FakeProductValues : public zym::object::Ifaces<IProductValues> {
 public:
  zym::result_t GetValue(std::uint32_t key, std::uint32_t* out) override {
    askedFor = key;
    if (onAsked) onAsked();
    if (ZYM_SUCCEEDED(result)) *out = value;
    return result;
  }

  std::atomic<std::uint32_t> askedFor{0};
  std::uint32_t value = 0;
  zym::result_t result = zym::ZYM_OK;
  std::function<void()> onAsked;
};

using Table = std::map<std::uint32_t, std::set<std::uint32_t>>;

class FeatureTechsAggregatorTest : public testing::Test {
 protected:
  FeatureTechsAggregatorTest() {
    m_locator->Add<zym::ITracer>(m_tracer);
    m_locator->Add<IProductValues>(m_values);
    m_aggregator = zym::CreateObject<FeatureTechsAggregator>(m_locator.get());
    m_locator->Add<IFeatureTechsAggregator>(m_aggregator);
  }
  ~FeatureTechsAggregatorTest() override {
    m_locator->Clear();
    m_aggregator.Reset();
    m_values.Reset();
    m_locator.Reset();
    m_tracer.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  // The report as a table. A feature or a technology that is in it twice fails.
  Table Report() {
    FeatureTechsReport report;
    EXPECT_EQ(m_aggregator->Report(report), zym::ZYM_OK);
    Table table;
    for (const auto& entry : report.entries) {
      EXPECT_TRUE(table.try_emplace(entry.feature, entry.techs.begin(), entry.techs.end()).second);
      EXPECT_EQ(table[entry.feature].size(), entry.techs.size());
    }
    return table;
  }

  zym::intrusive_ptr<FakeTaskManager> AddTaskManager() {
    auto tasks = zym::CreateObject<FakeTaskManager>();
    m_locator->Add<IQorTaskManager>(tasks);
    return tasks;
  }

  const decltype(zym::ModuleObjectCounter::Value()) m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  zym::intrusive_ptr<test_support::FakeLocator> m_locator = zym::CreateObject<test_support::FakeLocator>();
  zym::intrusive_ptr<FakeProductValues> m_values = zym::CreateObject<FakeProductValues>();
  zym::intrusive_ptr<FeatureTechsAggregator> m_aggregator;
};

TEST_F(FeatureTechsAggregatorTest, AnEmptyTableGivesAnEmptyReport) {
  EXPECT_EQ(Report(), Table());
}

TEST_F(FeatureTechsAggregatorTest, RegisteringATechnologyRegistersItsFeature) {
  EXPECT_EQ(m_aggregator->RegisterTech(8, 1), zym::ZYM_OK);
  EXPECT_EQ(m_aggregator->RegisterTech(8, 2), zym::ZYM_OK);
  EXPECT_EQ(m_aggregator->RegisterTech(3, 4), zym::ZYM_OK);
  EXPECT_EQ(Report(), (Table{{8, {1, 2}}, {3, {4}}}));
}

TEST_F(FeatureTechsAggregatorTest, ARepeatSucceedsAndChangesNothing) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(m_aggregator->RegisterTech(8, 1), zym::ZYM_OK);
    EXPECT_EQ(m_aggregator->RegisterFeature(8), zym::ZYM_OK);
  }
  EXPECT_EQ(Report(), (Table{{8, {1}}}));
  EXPECT_EQ(m_aggregator->UnregisterTech(8, 1), zym::ZYM_OK) << "it is no count";
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

TEST_F(FeatureTechsAggregatorTest, AFeatureWithoutTechnologiesIsReportedWithAnEmptyVector) {
  EXPECT_EQ(m_aggregator->RegisterFeature(2), zym::ZYM_OK);
  EXPECT_EQ(Report(), (Table{{2, {}}}));
}

TEST_F(FeatureTechsAggregatorTest, TheFeatureStaysWhenItsLastTechnologyGoes) {
  m_aggregator->RegisterTech(8, 1);
  EXPECT_EQ(m_aggregator->UnregisterTech(8, 1), zym::ZYM_OK);
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

TEST_F(FeatureTechsAggregatorTest, UnregisteringATechnologyThatWasNeverRegisteredFailsAndChangesNothing) {
  m_aggregator->RegisterTech(8, 1);
  EXPECT_EQ(m_aggregator->UnregisterTech(8, 2), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(Report(), (Table{{8, {1}}}));
  const std::string failure = m_tracer->Find("non-registered");
  EXPECT_TRUE(failure.starts_with("FeatureTechsAggregator::qor_common/feature_techs_aggregator.cpp:"))
      << failure;
  EXPECT_TRUE(
      failure.ends_with("(techsIt != techs.end()),(bool) failed: result = false "
                        "Attempt to unregister non-registered tech"))
      << failure;
}

TEST_F(FeatureTechsAggregatorTest, UnregisteringATechnologyOfAnUnknownFeatureFails) {
  EXPECT_EQ(m_aggregator->UnregisterTech(8, 1), zym::ZYM_E_NOT_FOUND);
  const std::string failure = m_tracer->Find("non-registered");
  EXPECT_TRUE(
      failure.ends_with("(featuresIt != m_aggregated.end()),(bool) failed: result = false "
                        "Attempt to unregister non-registered feature"))
      << failure;
}

TEST_F(FeatureTechsAggregatorTest, AfterUnregisterFeatureItsTechnologiesFailWithTheMessageOnTheFeature) {
  m_aggregator->RegisterTech(8, 1);
  EXPECT_EQ(m_aggregator->UnregisterFeature(8), zym::ZYM_OK);
  EXPECT_EQ(Report(), Table());
  EXPECT_EQ(m_aggregator->UnregisterTech(8, 1), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_tracer->Has(300, "Attempt to unregister non-registered feature"));
}

TEST_F(FeatureTechsAggregatorTest, UnregisteringAnUnknownFeatureFails) {
  EXPECT_EQ(m_aggregator->UnregisterFeature(8), zym::ZYM_E_NOT_FOUND);
  const std::string failure = m_tracer->Find("non-registered");
  EXPECT_TRUE(
      failure.ends_with("(m_aggregated.erase(feature)),(bool) failed: result = false "
                        "Attempt to unregister non-registered"))
      << failure;
}

TEST_F(FeatureTechsAggregatorTest, AFeatureThatIsRegisteredAnewStartsWithoutTechnologies) {
  m_aggregator->RegisterTech(8, 1);
  m_aggregator->UnregisterFeature(8);
  m_aggregator->RegisterFeature(8);
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

TEST_F(FeatureTechsAggregatorTest, OperationsTraceTheNamesOfTheirArguments) {
  m_aggregator->RegisterFeature(ReportFeatures::FileIntegrity);
  m_aggregator->RegisterTech(ReportFeatures::ProcessMonitoring, ReportFeatureTechs::Netlink);
  m_aggregator->UnregisterTech(ReportFeatures::ProcessMonitoring, ReportFeatureTechs::Netlink);
  m_aggregator->UnregisterFeature(ReportFeatures::FileIntegrity);
  std::vector<std::string> texts;
  for (const auto& record : m_tracer->Records()) {
    EXPECT_EQ(record.level, 800U);
    texts.push_back(record.text);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{
                       "FeatureTechsAggregator::RegisterFeature() FileIntegrity",
                       "FeatureTechsAggregator::RegisterTech() ProcessMonitoring, Netlink",
                       "FeatureTechsAggregator::UnregisterTech() ProcessMonitoring, Netlink",
                       "FeatureTechsAggregator::UnregisterFeature() FileIntegrity",
                   }));
}

TEST_F(FeatureTechsAggregatorTest, AValueWithoutANameIsTakenAndTracedAsANumber) {
  EXPECT_EQ(m_aggregator->RegisterTech(1000, 2000), zym::ZYM_OK);
  EXPECT_EQ(Report(), (Table{{1000, {2000}}}));
  EXPECT_TRUE(m_tracer->Has(800, "RegisterTech() 1000, 2000"));
}

TEST_F(FeatureTechsAggregatorTest, TheResultDoesNotDependOnTheTraceLevel) {
  m_tracer->SetCeiling(0);
  EXPECT_EQ(m_aggregator->RegisterTech(1000, 2000), zym::ZYM_OK);
  EXPECT_EQ(m_aggregator->UnregisterTech(1000, 1), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_aggregator->UnregisterTech(1, 1), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_aggregator->UnregisterFeature(1), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(m_tracer->Records().empty());
}

// --- Report. ---

TEST_F(FeatureTechsAggregatorTest, ReportTracesItsBeginningAndItsEnd) {
  Report();
  EXPECT_EQ(m_tracer->Records().front().text, "FeatureTechsAggregator::Report() ");
  EXPECT_EQ(m_tracer->Records().back().text, "FeatureTechsAggregator::Report() <- ");
}

TEST_F(FeatureTechsAggregatorTest, ReportFillsTheRecordAnew) {
  FeatureTechsReport report;
  report.entries.push_back({.feature = 77, .techs = {}});
  m_aggregator->RegisterTech(8, 1);
  EXPECT_EQ(m_aggregator->Report(report), zym::ZYM_OK);
  ASSERT_EQ(report.entries.size(), 1U);
  EXPECT_EQ(report.entries[0].feature, 8U);
}

TEST_F(FeatureTechsAggregatorTest, ActiveExploitPreventionIsTechnologyNineOfFeatureOneInTheReportOnly) {
  m_values->value = 1;
  EXPECT_EQ(Report(), (Table{{1, {9}}}));
  EXPECT_EQ(m_values->askedFor, 5U);
  EXPECT_TRUE(m_tracer->Has(800, "RealTimeProtection, ExploitPrevention"));
  m_values->value = 0;
  EXPECT_EQ(Report(), Table()) << "the table itself is as it was";
}

TEST_F(FeatureTechsAggregatorTest, ExploitPreventionJoinsWhatIsRegistered) {
  m_aggregator->RegisterTech(1, 3);
  m_values->value = 7;
  EXPECT_EQ(Report(), (Table{{1, {3, 9}}}));
}

TEST_F(FeatureTechsAggregatorTest, WithoutProductValuesReportFailsAndLeavesTheRecordAlone) {
  m_locator->FailWith(IProductValues::kIid, zym::ZYM_E_NO_INTERFACE);
  FeatureTechsReport report;
  report.entries.push_back({.feature = 77, .techs = {}});
  EXPECT_EQ(m_aggregator->Report(report), zym::ZYM_E_NO_INTERFACE);
  EXPECT_EQ(report.entries.size(), 1U);
  EXPECT_TRUE(m_tracer->Has(300, "Report: "));
}

TEST_F(FeatureTechsAggregatorTest, AProductValueThatCannotBeReadFailsTheReport) {
  m_values->result = zym::ZYM_E_ACCESS_DENIED;
  FeatureTechsReport report;
  EXPECT_EQ(m_aggregator->Report(report), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(m_tracer->Has(300, "Expression failed"));
}

TEST_F(FeatureTechsAggregatorTest, AMemoryScanThatUsesAepAddsTechnologyNineToFeatureFive) {
  const auto tasks = AddTaskManager();
  const core::MemoryScanSettings settings{.scanMemory = true, .useAEP = true};
  tasks->Add(TaskState::Running, "scan", &settings);
  EXPECT_EQ(Report(), (Table{{5, {9}}}));
  EXPECT_TRUE(m_tracer->Has(800, "IsAepEnabled: useAEP=true"));
  EXPECT_TRUE(m_tracer->Has(800, "MemoryScanning, ExploitPrevention"));
}

TEST_F(FeatureTechsAggregatorTest, AMemoryScanWithoutAepAddsNothing) {
  const auto tasks = AddTaskManager();
  const core::MemoryScanSettings settings{.scanMemory = true, .useAEP = false};
  tasks->Add(TaskState::Running, "scan", &settings);
  EXPECT_EQ(Report(), Table());
  EXPECT_TRUE(m_tracer->Has(800, "IsAepEnabled: useAEP=false"));
}

TEST_F(FeatureTechsAggregatorTest, OnlyTheTaskThatScansMemoryIsAskedForAep) {
  const auto tasks = AddTaskManager();
  const core::MemoryScanSettings stopped{.scanMemory = true, .useAEP = true};
  const core::MemoryScanSettings idle{.scanMemory = false, .useAEP = true};
  tasks->Add(TaskState::Stopped, "stopped", &stopped);
  tasks->Add(TaskState::Running, "idle", &idle);
  EXPECT_EQ(Report(), Table());
  EXPECT_FALSE(m_tracer->Has("useAEP"));
}

TEST_F(FeatureTechsAggregatorTest, WithoutATaskManagerThereIsNoAepAndTheReportSucceeds) {
  EXPECT_EQ(Report(), Table());
  EXPECT_TRUE(m_tracer->Has(300, "Cannot get IQorTaskManager interface"));
}

TEST_F(FeatureTechsAggregatorTest, SettingsThatCannotBeReadMeanNoAep) {
  AddTaskManager()->Add(TaskState::Running, "scan", nullptr);
  EXPECT_EQ(Report(), Table());
  EXPECT_TRUE(m_tracer->Has(300, "Cannot get settings for 'scan' task"));
}

// --- The lock. ---

TEST_F(FeatureTechsAggregatorTest, TheHostMayCallTheTableWhileItIsAsked) {
  m_values->onAsked = [this] { EXPECT_EQ(m_aggregator->RegisterTech(8, 1), zym::ZYM_OK); };
  EXPECT_EQ(Report(), Table()) << "the copy was made before";
  m_values->onAsked = nullptr;
  EXPECT_EQ(Report(), (Table{{8, {1}}}));
}

// A tracer that uses the aggregator whenever a failure is traced, as one that reports failures does.
class ReentrantTracer : public zym::object::Ifaces<zym::ITracer> {
 public:
  zym::result_t GetRecord(std::uint32_t level, void**, std::uint64_t) override {
    if (level == zym::trace::kFailure && aggregator != nullptr) {
      ++failures;
      aggregator->RegisterFeature(ReportFeatures::FileIntegrity);
    }
    return zym::ZYM_FALSE;
  }
  void CommitRecord(void*, std::uint64_t) override {}

  IFeatureTechsAggregator* aggregator = nullptr;
  int failures = 0;
};

TEST_F(FeatureTechsAggregatorTest, NoLockIsHeldWhileAFailureIsTraced) {
  const auto tracer = zym::CreateObject<ReentrantTracer>();
  const auto locator = zym::CreateObject<test_support::FakeLocator>();
  locator->Add<zym::ITracer>(tracer);
  const auto aggregator = zym::CreateObject<FeatureTechsAggregator>(locator.get());
  tracer->aggregator = aggregator.get();
  EXPECT_EQ(aggregator->UnregisterTech(8, 1), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(aggregator->UnregisterFeature(8), zym::ZYM_E_NOT_FOUND);
  aggregator->RegisterFeature(8);
  EXPECT_EQ(aggregator->UnregisterTech(8, 1), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(tracer->failures, 3);
  locator->Clear();
}

TEST_F(FeatureTechsAggregatorTest, ManyThreadsKeepTheTableWhole) {
  constexpr std::uint32_t kThreads = 4;
  m_tracer->SetCeiling(0);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (std::uint32_t tech = 0; tech < kThreads; ++tech) {
    threads.emplace_back([&, tech] {
      start.arrive_and_wait();
      for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(m_aggregator->RegisterTech(8, tech), zym::ZYM_OK);
        FeatureTechsReport report;
        EXPECT_EQ(m_aggregator->Report(report), zym::ZYM_OK);
        EXPECT_EQ(m_aggregator->UnregisterTech(8, tech), zym::ZYM_OK);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

// --- The object and the scoped mark. ---

TEST_F(FeatureTechsAggregatorTest, IsFoundByItsInterfaceId) {
  void* found = nullptr;
  ASSERT_EQ(m_aggregator->QueryInterface(0x05f76414, &found), zym::ZYM_OK);
  EXPECT_EQ(found, static_cast<IFeatureTechsAggregator*>(m_aggregator.get()));
  static_cast<IFeatureTechsAggregator*>(found)->Release();
}

TEST_F(FeatureTechsAggregatorTest, NeedsATracer) {
  const auto empty = zym::CreateObject<test_support::FakeLocator>();
  EXPECT_THROW(static_cast<void>(zym::CreateObject<FeatureTechsAggregator>(empty.get())),
               zym::GetInterfaceException);
}

TEST_F(FeatureTechsAggregatorTest, AScopedTechIsRegisteredForAsLongAsItLives) {
  {
    const ScopedTech mark(m_locator.get(), m_tracer.get(), 8, 1);
    EXPECT_EQ(Report(), (Table{{8, {1}}}));
  }
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

TEST_F(FeatureTechsAggregatorTest, OfTwoScopedTechsOfOneTechnologyTheFirstToEndUnregistersIt) {
  {
    const ScopedTech mark(m_locator.get(), m_tracer.get(), 8, 1);
    { const ScopedTech other(m_locator.get(), m_tracer.get(), 8, 1); }
    EXPECT_EQ(Report(), (Table{{8, {}}})) << "technologies are not counted";
    EXPECT_FALSE(m_tracer->Has(300, "UnregisterTech"));
  }
  EXPECT_TRUE(m_tracer->Has(300, "Attempt to unregister non-registered tech"));
}

TEST_F(FeatureTechsAggregatorTest, AScopedTechWithoutAnAggregatorThrows) {
  m_locator->FailWith(IFeatureTechsAggregator::kIid, zym::ZYM_E_NO_INTERFACE);
  try {
    const ScopedTech mark(m_locator.get(), m_tracer.get(), 8, 1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const zym::CheckResultFailedException& error) {
    EXPECT_EQ(error.Result(), zym::ZYM_E_NO_INTERFACE);
    EXPECT_NE(std::string(error.what()).find("Expression failed"), std::string::npos);
  }
}

class RefusingAggregator : public zym::object::Ifaces<IFeatureTechsAggregator> {
 public:
  zym::result_t RegisterTech(std::uint32_t, std::uint32_t) override { return zym::ZYM_E_INVALID_STATE; }
  zym::result_t UnregisterTech(std::uint32_t, std::uint32_t) override {
    ++unregistered;
    return zym::ZYM_OK;
  }
  zym::result_t RegisterFeature(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t UnregisterFeature(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t Report(FeatureTechsReport&) override { return zym::ZYM_OK; }

  int unregistered = 0;
};

TEST_F(FeatureTechsAggregatorTest, AScopedTechThatIsRefusedThrowsAndUnregistersNothing) {
  const auto refusing = zym::CreateObject<RefusingAggregator>();
  m_locator->Add<IFeatureTechsAggregator>(refusing);
  try {
    const ScopedTech mark(m_locator.get(), m_tracer.get(), 8, 1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const zym::CheckResultFailedException& error) {
    EXPECT_EQ(error.Result(), zym::ZYM_E_INVALID_STATE);
    EXPECT_NE(std::string(error.what()).find("Expression failed"), std::string::npos);
  }
  EXPECT_EQ(refusing->unregistered, 0);
}

TEST_F(FeatureTechsAggregatorTest, AScopedTechThatIsGoneAlreadyTracesTheFailure) {
  {
    const ScopedTech mark(m_locator.get(), m_tracer.get(), 8, 1);
    m_aggregator->UnregisterFeature(8);
  }
  EXPECT_TRUE(
      m_tracer->Has(300, "'(m_aggregator->UnregisterTech(m_feature, m_tech))=0x8000004c (Not found)' "));
}

TEST_F(FeatureTechsAggregatorTest, AScopedTechWorksWithoutATracer) {
  { const ScopedTech mark(m_locator.get(), nullptr, 8, 1); }
  EXPECT_EQ(Report(), (Table{{8, {}}}));
}

}  // namespace
}  // namespace qor
