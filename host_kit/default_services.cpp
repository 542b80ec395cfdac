#include "host_kit/default_services.h"

#include "host_kit/callback_tracer.h"
#include "host_kit/category_filter.h"
#include "host_kit/feature_lookup.h"
#include "host_kit/malloc_allocator.h"
#include "host_kit/null_metrics.h"
#include "host_kit/scan_statistics.h"
#include "host_kit/startup_data.h"

namespace host_kit {

zym::intrusive_ptr<ServiceLocator> MakeDefaultServices() {
  constexpr std::uint32_t kNoTrace = 0;
  auto locator = zym::CreateObject<ServiceLocator>();
  locator->Add<zym::ITracer>(zym::CreateObject<CallbackTracer>(kNoTrace, CallbackTracer::Callback()));
  locator->Add<zym::IAllocator>(zym::CreateObject<MallocAllocator>());
  locator->Add<zym::ITracerCategoryFilter>(zym::CreateObject<CategoryFilter>(false));
  locator->Add<qor::IStartupDataProvider>(zym::CreateObject<StartupDataProvider>());
  locator->Add<qor::IScanStatisticsCollector>(zym::CreateObject<ScanStatistics>());
  locator->Add<qor::IFeatureLookup>(zym::CreateObject<FeatureLookup>());
  const auto metrics = zym::CreateObject<NullMetrics>();
  locator->Add<zym::telemetry::IMetricSource>(metrics);
  locator->Add<zym::telemetry::IMetricsRegistry>(metrics);
  return locator;
}

}  // namespace host_kit
