// A host that lacks a service, refuses it, or gives nothing in its place: for every class of the module, and
// for every operation that asks for one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "module/fault_host.h"
#include "process_manager/process_manager.h"
#include "process_manager/services/exec_listener.h"
#include "support/actor.h"
#include "support/fake_exclusions.h"
#include "support/own_process.h"
#include "support/rights.h"

namespace {

using namespace test_support;
using namespace system_interceptors;
namespace class_ids = qor::class_ids;
namespace non_blocking_type = qor::process_manager::non_blocking_type;

enum class Mood { kMissing, kFailing, kNothing };

// How a service can't be had, and the result that says so.
struct Refusal {
  Mood mood;
  zym::result_t result;
};
constexpr Refusal kRefusals[] = {
    {Mood::kMissing, zym::ZYM_E_NO_INTERFACE},
    {Mood::kFailing, zym::ZYM_E_LOCKED},
    {Mood::kNothing, zym::ZYM_E_NO_INTERFACE},  // a success without an object is none
};

std::ostream& operator<<(std::ostream& out, Mood mood) {
  constexpr const char* kTexts[] = {"missing", "failing", "a success with nothing"};
  return out << kTexts[static_cast<int>(mood)];
}

// Gives success and a null pointer for the ids that it is told.
class MoodyLocator : public FakeLocator {
 public:
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) override {
    if (iid != m_nothing) return FakeLocator::GetInterface(iid, serviceKey, out);
    *out = nullptr;
    return zym::ZYM_OK;
  }

  // Nothing is given in place of a service any more.
  void Accept() { m_nothing = 0xffffffff; }
  void Refuse(zym::iid_t iid, Mood mood) {
    if (mood == Mood::kMissing) Remove(iid);
    if (mood == Mood::kFailing) FailWith(iid, zym::ZYM_E_LOCKED);
    if (mood == Mood::kNothing) m_nothing = iid;
  }

 private:
  zym::iid_t m_nothing = 0xffffffff;
};

// What lies behind a locator of such moods.
struct MoodyHost {
  MoodyHost() : locator(zym::CreateObject<MoodyLocator>()) {
    for (const zym::iid_t iid :
         {zym::ITracer::kIid, zym::IAllocator::kIid, zym::ITracerCategoryFilter::kIid,
          qor::IStartupDataProvider::kIid, qor::IScanStatisticsCollector::kIid,
          zym::telemetry::IMetricSource::kIid, zym::telemetry::IMetricsRegistry::kIid,
          qor::IFeatureTechsAggregator::kIid, qor::procfs::IParser::kIid,
          qor::process_manager::IInterceptorSettingsSubscription::kIid,
          qor::process_manager::IEventInfoProvider::kIid, qor::process_manager::IProcessInfoProvider::kIid}) {
      zym::intrusive_ptr<zym::IObject> service;
      EXPECT_EQ(inner.host.locator->GetInterface(iid, 0, reinterpret_cast<void**>(service.Ref())),
                zym::ZYM_OK);
      locator->Add(iid, service);
    }
  }
  ~MoodyHost() { locator->Clear(); }

  zym::result_t CreateObject(std::uint32_t classId, zym::IObject** object) const {
    const SettingsCreationRecord record{
        .base = {.locator = locator.get()}, .tracer = nullptr, .settings = nullptr};
    return inner.module.createObject(classId, &record.base, object);
  }

  RecordingTracer& Tracer() const { return *inner.host.tracer; }

  ModuleHost inner;
  zym::intrusive_ptr<MoodyLocator> locator;
};

struct Need {
  const char* name;
  std::uint32_t classId;
  std::vector<zym::iid_t> services;
};

// --- classes
// --------------------------------------------------------------------------------------------------

TEST(ServiceFaults, AClassOfAFactoryThatLacksAServiceGivesItsResultAndItsMemoryBack) {
  const Need kNeeds[] = {
      {"ApplicationManager", class_ids::kApplicationManager, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"FileNameMapper", class_ids::kFileNameMapper, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"ProcessUserLocalizationProvider",
       class_ids::kProcessUserLocalizationProvider,
       {zym::IAllocator::kIid, zym::ITracer::kIid, qor::IStartupDataProvider::kIid}},
      {"ProcessModuleManager", class_ids::kProcessModuleManager, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"ProcessMemoryFactory", class_ids::kProcessMemoryFactory, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"TypeDescriptorStaticRegistry", class_ids::kTypeDescriptorStaticRegistry, {zym::IAllocator::kIid}},
      {"ProcessManager", class_ids::kProcessManager, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"ProcParser", class_ids::kProcParser, {zym::IAllocator::kIid, zym::ITracer::kIid}},
      {"LocalProcParser", class_ids::kLocalProcParser, {zym::IAllocator::kIid, zym::ITracer::kIid}},
  };
  for (const auto& [name, classId, services] : kNeeds)
    for (const zym::iid_t iid : services)
      for (const auto& [mood, expected] : kRefusals) {
        SCOPED_TRACE(testing::Message() << name << ", " << std::hex << iid << " is " << mood);
        const MoodyHost moody;
        const std::int64_t live = moody.inner.host.allocator->Live();
        moody.locator->Refuse(iid, mood);
        zym::intrusive_ptr<zym::IObjectFactory> factory;
        ASSERT_EQ(moody.inner.module.getObjectFactory(moody.locator.get(), classId, factory.Ref()),
                  zym::ZYM_OK)
            << "a factory needs nothing of the host";
        void* object = nullptr;
        EXPECT_EQ(factory->CreateInstance(moody.locator.get(), 0, &object), expected);
        EXPECT_EQ(object, nullptr);
        EXPECT_EQ(moody.inner.host.allocator->Live(), live);
      }
}

TEST(ServiceFaults, AClassThatIsCreatedWithoutAServiceGivesItsResultAndLeavesNothing) {
  const Need kNeeds[] = {
      {"Interceptor",
       class_ids::kInterceptor,
       {0x6ef3329b, 0xc9b36ad4, 0x79864d30, 0x2b6ab0fb, 0x97074f39, 0xa26c8413, 0x90a67124}},
      {"InterceptorSettingsSubscription", class_ids::kInterceptorSettingsSubscription, {0x6ef3329b}},
      {"ProcessCache", class_ids::kProcessCache, {0x6ef3329b, 0x2b6ab0fb, 0x34e76fa8, 0x1d40f599}},
  };
  for (const auto& [name, classId, services] : kNeeds)
    for (const zym::iid_t iid : services)
      for (const auto& [mood, expected] : kRefusals) {
        SCOPED_TRACE(testing::Message() << name << ", " << std::hex << iid << " is " << mood);
        const MoodyHost moody;
        const std::size_t collectors = moody.inner.host.metricsRegistry->Collectors();
        const std::size_t threads = ThreadCount();
        moody.locator->Refuse(iid, mood);
        moody.Tracer().Clear();
        int sentinel = 0;
        auto* const untouched = reinterpret_cast<zym::IObject*>(&sentinel);
        zym::IObject* object = untouched;
        EXPECT_EQ(moody.CreateObject(classId, &object), expected);
        EXPECT_EQ(object, untouched);
        EXPECT_EQ(ThreadCount(), threads);
        EXPECT_EQ(moody.inner.host.metricsRegistry->Collectors(), collectors);
        EXPECT_EQ(moody.Tracer().Has(300, ""), iid != zym::ITracer::kIid)
            << "nobody to tell without a tracer";
      }
}

// A metric source that gives what it is told to.
class PoorMetricSource : public zym::object::Ifaces<zym::telemetry::IMetricSource> {
 public:
  zym::result_t GetTableMetrics(const char*, zym::telemetry::TableMetrics& metrics) override {
    if (result == zym::ZYM_OK) metrics.size = zym::CreateObject<FakeGauge>();
    return result;
  }
  zym::result_t result = zym::ZYM_OK;
};

// A registry that refuses to take a collector, or to give it back.
class PoorMetricsRegistry : public FakeMetricsRegistry {
 public:
  zym::result_t RegisterCollector(zym::telemetry::ICollector* collector, std::uint64_t* token) override {
    return ZYM_SUCCEEDED(onRegister) ? FakeMetricsRegistry::RegisterCollector(collector, token) : onRegister;
  }
  zym::result_t UnregisterCollector(std::uint64_t token) override {
    return ZYM_SUCCEEDED(onUnregister) ? FakeMetricsRegistry::UnregisterCollector(token) : onUnregister;
  }
  zym::result_t onRegister = zym::ZYM_OK;
  zym::result_t onUnregister = zym::ZYM_OK;
};

TEST(ServiceFaults, AMetricSourceThatFailsOrGivesTooLittleIsAFailureOfTheCache) {
  const MoodyHost moody;
  const auto source = zym::CreateObject<PoorMetricSource>();
  moody.locator->Add<zym::telemetry::IMetricSource>(source);
  zym::IObject* object = nullptr;
  source->result = zym::ZYM_E_TIMEOUT;
  EXPECT_EQ(moody.CreateObject(class_ids::kProcessCache, &object), zym::ZYM_E_TIMEOUT);
  source->result = zym::ZYM_OK;
  EXPECT_EQ(moody.CreateObject(class_ids::kProcessCache, &object), zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_TRUE(moody.Tracer().Has(300, "The metrics of the process cache are incomplete"));
  EXPECT_EQ(object, nullptr);
}

TEST(ServiceFaults, ARegistryThatTakesNoCollectorIsAFailureOfTheCacheAndOneThatKeepsItIsTraced) {
  const MoodyHost moody;
  const auto registry = zym::CreateObject<PoorMetricsRegistry>();
  moody.locator->Add<zym::telemetry::IMetricsRegistry>(registry);
  zym::IObject* object = nullptr;
  registry->onRegister = zym::ZYM_E_ACCESS_DENIED;
  EXPECT_EQ(moody.CreateObject(class_ids::kProcessCache, &object), zym::ZYM_E_ACCESS_DENIED);
  registry->onRegister = zym::ZYM_OK;
  registry->onUnregister = zym::ZYM_E_TIMEOUT;
  ASSERT_EQ(moody.CreateObject(class_ids::kProcessCache, &object), zym::ZYM_OK);
  object->Release();
  EXPECT_TRUE(moody.Tracer().Has(300, "0x80000221 (Operation timeout)"));
  EXPECT_EQ(moody.inner.module.canUnloadModule(), zym::ZYM_FALSE) << "the registry has the collector still";
  registry->Collect();  // which is in nobody's cache any more
}

// --- operations
// -----------------------------------------------------------------------------------------------

class OperationServiceFaults : public testing::Test {
 protected:
  OperationServiceFaults() {
    zym::IObject* object = nullptr;
    EXPECT_EQ(m_host.CreateObject(class_ids::kInterceptor, &object), zym::ZYM_OK);
    m_interceptor = zym::intrusive_ptr<zym::IObject>::Attach(object);
    EXPECT_EQ(zym::QueryInterface(m_interceptor, m_control.Ref()), zym::ZYM_OK);
    m_descriptors = OpenDescriptors();
    m_host.Tracer().Clear();
  }

  bool Has(std::uint32_t level, std::string_view text) const { return m_host.Tracer().Has(level, text); }

  MoodyHost m_host;
  zym::intrusive_ptr<zym::IObject> m_interceptor;
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> m_control;
  std::map<int, std::string> m_descriptors;
};

TEST_F(OperationServiceFaults, AStartWithoutTheFeatureTableFailsAndAStopClearsTheWay) {
  SKIP_IF(MissingProcConnector());
  zym::intrusive_ptr<zym::IObject> aggregator;
  ASSERT_EQ(m_host.inner.host.locator->GetInterface(qor::IFeatureTechsAggregator::kIid, 0,
                                                    reinterpret_cast<void**>(aggregator.Ref())),
            zym::ZYM_OK);
  for (const auto& [mood, expected] : {kRefusals[0], kRefusals[1]}) {
    SCOPED_TRACE(mood);
    m_host.locator->Refuse(qor::IFeatureTechsAggregator::kIid, mood);
    m_host.Tracer().Clear();
    EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), expected);
    EXPECT_TRUE(Has(300, "StartNetlink: Expression failed"));
    EXPECT_TRUE(Has(300, "(m_nonBlockingInterceptor->Start(type)),(ZYM_SUCCEEDED(_result)) failed: "));
    EXPECT_TRUE(ThreadsNamed("vornPrcMonPoll").empty());
    EXPECT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
    m_host.locator->Add(qor::IFeatureTechsAggregator::kIid, aggregator);
    EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
    EXPECT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_OK);
  }
  m_host.locator->Refuse(qor::IFeatureTechsAggregator::kIid, Mood::kNothing);
  EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kNetlink), zym::ZYM_E_NO_INTERFACE);
}

TEST_F(OperationServiceFaults, KprobesWithoutAListenerFactoryFail) {
  for (const auto& [mood, expected] : kRefusals) {
    SCOPED_TRACE(mood);
    m_host.locator->Refuse(qor::IExecListenerFactory::kIid, mood);
    m_host.Tracer().Clear();
    EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kKprobes), expected);
    EXPECT_TRUE(Has(300, "Could not get qor::IExecListenerFactory"));
    EXPECT_EQ(m_control->DisableNonBlockingInterceptor(non_blocking_type::kKprobes), zym::ZYM_OK);
  }
}

// A listener that can be configured, from a factory that may have none.
class Listener : public zym::object::Ifaces<qor::IExecListener, qor::IExecListenerControl> {
 public:
  zym::result_t GetStatistics(std::uint64_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t WaitExecResult(unsigned int, qor::PidType, int, int&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t GetEnvironCapturing(std::uint32_t*) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t SetEnvironCapturing(std::uint32_t) override { return result; }
  zym::result_t result = zym::ZYM_OK;
};

class ListenerFactory : public zym::object::Ifaces<qor::IExecListenerFactory> {
 public:
  zym::result_t GetExecListener(qor::IExecListener** out) override {
    if (!listener) return zym::ZYM_E_NOT_FOUND;
    *out = zym::intrusive_ptr<qor::IExecListener>(listener).Detach();
    return zym::ZYM_OK;
  }
  zym::intrusive_ptr<Listener> listener;
};

TEST_F(OperationServiceFaults, AFactoryWithoutAListenerIsDoneWithout) {
  m_host.locator->Add<qor::IExecListenerFactory>(zym::CreateObject<ListenerFactory>());
  EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kKprobes), zym::ZYM_OK);
  EXPECT_TRUE(Has(500, "IExecListener is not available, proceed without"));
}

TEST_F(OperationServiceFaults, CapturingOfEnvironmentsNeedsTheStartupData) {
  const auto factory = zym::CreateObject<ListenerFactory>();
  factory->listener = zym::CreateObject<Listener>();
  m_host.locator->Add<qor::IExecListenerFactory>(factory);
  constexpr std::uint32_t kType = non_blocking_type::kKprobes | non_blocking_type::kFullProcessInfo;
  for (const auto& [mood, expected] : kRefusals) {
    SCOPED_TRACE(mood);
    m_host.locator->Refuse(qor::IStartupDataProvider::kIid, mood);
    m_host.Tracer().Clear();
    EXPECT_EQ(m_control->EnableNonBlockingInterceptor(kType), expected);
    EXPECT_TRUE(Has(300, "Cannot get qor::IStartupDataProvider interface"));
    EXPECT_EQ(m_control->DisableNonBlockingInterceptor(kType), zym::ZYM_OK);
  }
}

TEST_F(OperationServiceFaults, AListenerThatRefusesToCaptureFailsTheStartOfKprobesAlone) {
  const auto factory = zym::CreateObject<ListenerFactory>();
  factory->listener = zym::CreateObject<Listener>();
  factory->listener->result = zym::ZYM_E_TIMEOUT;
  m_host.locator->Add<qor::IExecListenerFactory>(factory);
  EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kKprobes), zym::ZYM_OK);
  EXPECT_EQ(m_control->EnableNonBlockingInterceptor(non_blocking_type::kFullProcessInfo), zym::ZYM_OK);
  EXPECT_TRUE(Has(300, "Cannot enable environ capturing"));
  EXPECT_EQ(m_control->DisableNonBlockingInterceptor(0xf), zym::ZYM_OK);
  EXPECT_TRUE(Has(300, "Cannot disable environ capturing"));
  constexpr std::uint32_t kType = non_blocking_type::kKprobes | non_blocking_type::kFullProcessInfo;
  EXPECT_EQ(m_control->EnableNonBlockingInterceptor(kType), zym::ZYM_E_TIMEOUT);
}

// --- processes as objects
// -------------------------------------------------------------------------------------

class ProcessServiceFaults : public testing::Test {
 protected:
  // A process that is no child of this one, so that the settings are asked.
  ProcessServiceFaults() : m_pid(static_cast<qor::PidType>(m_actor.HearPid())) {
    m_host.locator->Add(m_settings, qor::IAppSettingsProvider::kIid);
    m_host.locator->Add(m_matchers, qor::IPathMatcherFactory::kIid);
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    EXPECT_EQ(
        m_host.inner.module.getObjectFactory(m_host.locator.get(), class_ids::kProcessManager, factory.Ref()),
        zym::ZYM_OK);
    EXPECT_EQ(zym::CreateInstance(factory.get(), m_host.locator.get(), m_manager.Ref()), zym::ZYM_OK);
  }

  // Calls `round` with each way in which the service can't be had.
  void WithoutService(zym::iid_t iid, const std::function<void(zym::result_t expected)>& round) {
    zym::intrusive_ptr<zym::IObject> service;
    ASSERT_EQ(m_host.locator->GetInterface(iid, 0, reinterpret_cast<void**>(service.Ref())), zym::ZYM_OK);
    for (const auto& [mood, expected] : kRefusals) {
      SCOPED_TRACE(testing::Message() << std::hex << iid << " is " << mood);
      m_host.locator->Refuse(iid, mood);
      m_host.Tracer().Clear();
      round(expected);
      m_host.locator->Accept();
      m_host.locator->Add(iid, service);
    }
  }
  bool Has(std::uint32_t level, std::string_view text) const { return m_host.Tracer().Has(level, text); }

  zym::result_t GetInformation() const {
    zym::intrusive_ptr<process_manager::IProcessInformation> information;
    const zym::result_t result = m_manager->GetInformation(m_pid, information.Ref());
    EXPECT_EQ(bool(information), result == zym::ZYM_OK);
    return result;
  }
  zym::result_t GetControl() const {
    zym::intrusive_ptr<process_manager::IProcessControl> control;
    const zym::result_t result = m_manager->GetControl(m_pid, control.Ref());
    EXPECT_EQ(bool(control), result == zym::ZYM_OK);
    return result;
  }

  MoodyHost m_host;
  const zym::intrusive_ptr<FakeAppSettingsProvider> m_settings = zym::CreateObject<FakeAppSettingsProvider>();
  const zym::intrusive_ptr<FakePathMatcherFactory> m_matchers = zym::CreateObject<FakePathMatcherFactory>();
  zym::intrusive_ptr<process_manager::IProcessManager> m_manager;
  Actor m_actor{{"abandon", "say", "wait"}};
  const qor::PidType m_pid;
};

TEST_F(ProcessServiceFaults, InformationAndControlWithoutAServiceGiveItsResultAndNameIt) {
  const std::pair<zym::iid_t, const char*> kServices[] = {
      {0x6ef3329b, "Can't get interface"},
      {0x2b6ab0fb, "Cannot get zym::ITracerCategoryFilter interface"},
      {0xffc9e198, "Cannot get IProcessInfoProvider interface"},
      {0xc9b36ad4, "Cannot get procfs::IParser interface"},
  };
  for (const auto& [iid, text] : kServices)
    WithoutService(iid, [&, text = text](zym::result_t expected) {
      EXPECT_EQ(GetInformation(), expected);
      EXPECT_TRUE(Has(300, text));
      EXPECT_TRUE(Has(300, "Failed to gain IProcessInformation for pid=" + std::to_string(m_pid)));
      EXPECT_EQ(GetControl(), expected);
      EXPECT_TRUE(Has(300, "Failed to gain IProcessControl for pid=" + std::to_string(m_pid)));
    });
  EXPECT_EQ(GetInformation(), zym::ZYM_OK);
  EXPECT_EQ(GetControl(), zym::ZYM_OK);
}

TEST_F(ProcessServiceFaults, AKnownProcessNeedsNoReader) {
  EXPECT_EQ(GetInformation(), zym::ZYM_OK);
  WithoutService(qor::procfs::IParser::kIid, [&](zym::result_t) {
    EXPECT_EQ(GetInformation(), zym::ZYM_OK);
    EXPECT_EQ(GetControl(), zym::ZYM_OK);
  });
}

TEST_F(ProcessServiceFaults, AControlNeedsTheSettingsAndTheirMatcher) {
  const std::pair<zym::iid_t, const char*> kServices[] = {{0x345e2eb8, "Cannot get app settings"},
                                                          {0x38514cf7, "Cannot create path matcher"}};
  for (const auto& [iid, text] : kServices)
    WithoutService(iid, [&, text = text](zym::result_t expected) {
      EXPECT_EQ(GetControl(), expected);
      EXPECT_TRUE(Has(300, text));
      EXPECT_EQ(GetInformation(), zym::ZYM_OK);
    });
  m_settings->result = zym::ZYM_E_TIMEOUT;
  EXPECT_EQ(GetControl(), zym::ZYM_E_TIMEOUT);
  m_settings->result = zym::ZYM_OK;
  m_matchers->result = zym::ZYM_E_TIMEOUT;
  EXPECT_EQ(GetControl(), zym::ZYM_E_TIMEOUT);
}

TEST_F(ProcessServiceFaults, ASnapshotWithoutTheReaderFailsAndWithoutTheRestIsEmpty) {
  const auto enumerate = [&](zym::result_t& result) {
    zym::intrusive_ptr<process_manager::IProcessInformationEnumerator> snapshot;
    result = m_manager->Enumerate(snapshot.Ref());
    zym::intrusive_ptr<process_manager::IProcessInformation> information;
    return snapshot ? snapshot->Next(information.Ref()) : zym::ZYM_E_NOT_FOUND;
  };
  zym::result_t result = zym::ZYM_OK;
  WithoutService(qor::procfs::IParser::kIid, [&](zym::result_t expected) {
    enumerate(result);
    EXPECT_EQ(result, expected);
    EXPECT_TRUE(Has(300, "Failed to load procfs::IParser"));
    EXPECT_TRUE(Has(300, "Failed to gain IProcessInformationEnumeration"));
  });
  for (const zym::iid_t iid : {0x2b6ab0fbU, 0xffc9e198U})
    WithoutService(iid, [&](zym::result_t) {
      EXPECT_EQ(enumerate(result), zym::ZYM_FALSE) << "there is nothing in it";
      EXPECT_EQ(result, zym::ZYM_OK);
      EXPECT_TRUE(Has(500, "ProcessSnapshot: Failed to read info for task 0, error: "));
    });
  EXPECT_EQ(enumerate(result), zym::ZYM_OK);
}

TEST_F(ProcessServiceFaults, CountersNeedTheReaderAtEachCall) {
  zym::intrusive_ptr<process_manager::IProcessControl> control;
  ASSERT_EQ(m_manager->GetControl(m_pid, control.Ref()), zym::ZYM_OK);
  WithoutService(qor::procfs::IParser::kIid, [&](zym::result_t expected) {
    process_manager::ProcessTimes times;
    process_manager::ProcessIoCounters counters;
    EXPECT_EQ(control->GetTimes(times), expected);
    EXPECT_EQ(control->GetIoCounters(counters), expected);
    EXPECT_TRUE(Has(300, "Failed to load procfs::IParser"));
    EXPECT_EQ(control->Terminate(), zym::ZYM_OK) << "signals need nothing";
  });
}

}  // namespace
