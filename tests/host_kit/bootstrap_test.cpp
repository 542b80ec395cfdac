#include "host_kit/bootstrap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host_kit/callback_tracer.h"
#include "host_kit/service_names.h"
#include "process_manager/services/metrics.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "qor_common/feature_techs_aggregator.h"
#include "zym/service_provider.h"
#include "zym/trace.h"

namespace {

using host_kit::Bootstrap;
using host_kit::ServiceLocator;
using qor::process_manager::IEventInfoProvider;
using qor::process_manager::IInterceptorSettingsSubscription;
using qor::process_manager::IProcessInfoProvider;

constexpr zym::iid_t kRequired[] = {
    zym::ITracer::kIid,
    zym::IAllocator::kIid,
    zym::ITracerCategoryFilter::kIid,
    zym::telemetry::IMetricSource::kIid,
    zym::telemetry::IMetricsRegistry::kIid,
    qor::IStartupDataProvider::kIid,
    qor::IScanStatisticsCollector::kIid,
};
constexpr zym::iid_t kOffered[] = {
    qor::IFeatureTechsAggregator::kIid, qor::procfs::IParser::kIid, IInterceptorSettingsSubscription::kIid,
    IProcessInfoProvider::kIid,         IEventInfoProvider::kIid,
};

class BootstrapTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(m_module.Unload()) << "something of the module is left"; }

  std::string FailureOfBootstrap() {
    try {
      const Bootstrap host(m_module, m_services);
    } catch (const host_kit::Failure& failure) {
      return failure.what();
    }
    return "it came up";
  }

  host_kit::LoadedModule m_module{PROCESS_MANAGER_MODULE};
  zym::intrusive_ptr<ServiceLocator> m_services = host_kit::MakeDefaultServices();
  const pid_t m_self = ::getpid();
};

TEST_F(BootstrapTest, TheModuleWorksWithTheDefaultServicesAndNothingElse) {
  const Bootstrap host(m_module);
  for (const zym::iid_t iid : kOffered) {
    void* service = nullptr;
    EXPECT_EQ(host.GetLocator()->GetInterface(iid, 0, &service), zym::ZYM_OK)
        << host_kit::DescribeService(iid);
    if (service != nullptr) static_cast<zym::IObject*>(service)->Release();
  }
  EXPECT_TRUE(host.GetInterceptor());
}

TEST_F(BootstrapTest, EachMissingServiceIsNamed) {
  for (const zym::iid_t iid : kRequired) {
    m_services = host_kit::MakeDefaultServices();
    m_services->Remove(iid);
    EXPECT_EQ(FailureOfBootstrap(),
              "the module cannot work with this host: its locator lacks " + host_kit::DescribeService(iid) +
                  "; add what is missing, or begin with host_kit::MakeDefaultServices()");
  }
}

TEST_F(BootstrapTest, MissingServicesAreNamedTogetherAndCanBeAdded) {
  const auto complete = host_kit::MakeDefaultServices();
  m_services->Remove(zym::ITracer::kIid);
  m_services->Remove(qor::IStartupDataProvider::kIid);
  const std::string failure = FailureOfBootstrap();
  EXPECT_NE(failure.find("zym::ITracer (0x6ef3329b), qor::IStartupDataProvider (0xa26c8413);"),
            std::string::npos)
      << failure;

  m_services->Add<zym::ITracer>(zym::RequireInterface<zym::ITracer>(complete.get()));
  m_services->Add<qor::IStartupDataProvider>(
      zym::RequireInterface<qor::IStartupDataProvider>(complete.get()));
  const Bootstrap host(m_module, m_services);
}

// A registry that refuses: the cache can't be made, after other objects of the module were.
class RefusingRegistry : public zym::object::Ifaces<zym::telemetry::IMetricsRegistry> {
 public:
  zym::result_t GetText(zym::types::string_t&) override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t RegisterCollector(zym::telemetry::ICollector*, std::uint64_t*) override {
    return zym::ZYM_E_ACCESS_DENIED;
  }
  zym::result_t UnregisterCollector(std::uint64_t) override { return zym::ZYM_E_NOT_FOUND; }
};

TEST_F(BootstrapTest, WhatTheModuleCannotMakeIsNamedAndNothingIsLeft) {
  m_services->Add<zym::telemetry::IMetricsRegistry>(zym::CreateObject<RefusingRegistry>());
  EXPECT_EQ(FailureOfBootstrap(), "the module cannot create the process cache: Access denied (0x80000045)");
  for (const zym::iid_t iid : kOffered) EXPECT_FALSE(m_services->Has(iid)) << host_kit::DescribeService(iid);
}

TEST_F(BootstrapTest, OneCacheAnswersUnderBothIds) {
  const Bootstrap host(m_module);
  const auto events = zym::RequireInterface<IEventInfoProvider>(host.GetLocator());
  zym::intrusive_ptr<IProcessInfoProvider> questions;
  ASSERT_EQ(zym::QueryInterface(events, questions.Ref()), zym::ZYM_OK);
  EXPECT_EQ(questions.get(), host.GetCache().get());
  EXPECT_EQ(zym::RequireInterface<IProcessInfoProvider>(host.GetLocator()).get(), host.GetCache().get());
}

TEST_F(BootstrapTest, TheKitsGuardAndReaderStandInFront) {
  const Bootstrap host(m_module);
  EXPECT_EQ(host.GetCache().get(), host.GetGuard().get());
  EXPECT_NE(dynamic_cast<host_kit::ProcfsReader*>(host.GetParser().get()), nullptr);
  EXPECT_EQ(zym::RequireInterface<qor::procfs::IParser>(host.GetLocator()).get(), host.GetParser().get());
}

TEST_F(BootstrapTest, AHostMayDeclineBoth) {
  const Bootstrap host(m_module, m_services, {.guard = false, .reader = {}});
  EXPECT_FALSE(host.GetGuard());
  EXPECT_EQ(dynamic_cast<host_kit::ProcfsReader*>(host.GetParser().get()), nullptr);
  const auto events = zym::RequireInterface<IEventInfoProvider>(host.GetLocator());
  zym::intrusive_ptr<IProcessInfoProvider> questions;
  ASSERT_EQ(zym::QueryInterface(events, questions.Ref()), zym::ZYM_OK);
  EXPECT_EQ(questions.get(), host.GetCache().get());
}

TEST_F(BootstrapTest, TheCacheKnowsTheProcessesThatRunAlready) {
  const Bootstrap host(m_module);
  qor::process_manager::process_cache::ProcessInformation info;
  EXPECT_TRUE(host.GetCache()->Get(m_self, info));
}

TEST_F(BootstrapTest, AHostMayDeclineTheEnumeration) {
  const Bootstrap host(m_module, m_services, {.enumerate = false});
  qor::process_manager::process_cache::ProcessInformation info;
  EXPECT_FALSE(host.GetCache()->Get(m_self, info));
}

TEST_F(BootstrapTest, TheListHasThisProcessOnceAndTheKernelLast) {
  const Bootstrap host(m_module, m_services, {.enumerate = false});
  const auto processes = host.ListProcesses();
  EXPECT_EQ(std::ranges::count(processes, static_cast<std::uint32_t>(m_self),
                               &system_interceptors::process_manager::ProcessInformation::pid),
            1);
  ASSERT_FALSE(processes.empty());
  EXPECT_EQ(processes.back().pid, 0U);
}

TEST_F(BootstrapTest, WhatIsMadeAtTheFirstCallIsMadeOnce) {
  const Bootstrap host(m_module);
  EXPECT_EQ(host.GetInterceptor().get(), host.GetInterceptor().get());
  EXPECT_EQ(host.GetProcessManager().get(), host.GetProcessManager().get());
}

TEST_F(BootstrapTest, AnAggregatorOfTheHostsOwnStaysInPlace) {
  const zym::intrusive_ptr<qor::IFeatureTechsAggregator> own =
      zym::CreateObject<qor::FeatureTechsAggregator>(m_services.get());
  m_services->Add<qor::IFeatureTechsAggregator>(own);
  const Bootstrap host(m_module, m_services);
  EXPECT_EQ(host.GetFeatures().get(), own.get());
}

TEST_F(BootstrapTest, TheEndEmptiesTheLocator) {
  {
    const Bootstrap host(m_module, m_services);
    static_cast<void>(host.GetInterceptor());
  }
  for (const zym::iid_t iid : kOffered) EXPECT_FALSE(m_services->Has(iid)) << host_kit::DescribeService(iid);
  for (const zym::iid_t iid : kRequired) EXPECT_FALSE(m_services->Has(iid)) << host_kit::DescribeService(iid);
}

TEST_F(BootstrapTest, TheInterceptorEndsBeforeTheCacheThatItWritesTo) {
  std::mutex mutex;  // guards ends
  std::vector<std::string> ends;
  m_services->Add<zym::ITracer>(zym::CreateObject<host_kit::CallbackTracer>(
      zym::trace::kCall, [&](std::uint32_t, std::string_view text) {
        const std::scoped_lock lock(mutex);
        for (const char* name : {"~Interceptor(", "~ProcessCache("})
          if (text.find(name) != std::string_view::npos) ends.emplace_back(name);
      }));
  {
    const Bootstrap host(m_module, m_services, {.enumerate = false});
    static_cast<void>(host.GetInterceptor());
  }
  EXPECT_EQ(ends, (std::vector<std::string>{"~Interceptor(", "~ProcessCache("}));
}

}  // namespace
