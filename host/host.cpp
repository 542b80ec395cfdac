#include "host/host.h"

#include <utility>

#include "host/failure.h"
#include "host/services/metrics.h"
#include "host/services/path_matching.h"
#include "host/services/process_suspender.h"
#include "host/services/services.h"
#include "host/services/tracer.h"
#include "process_manager/interceptor_settings.h"
#include "qor_common/feature_techs_aggregator.h"

namespace pmhost {
namespace {

using namespace qor::process_manager;

void AddServices(ServiceLocator& locator, const GlobalOptions& options) {
  const auto tracer = zym::CreateObject<Tracer>(options.traceLevel, options.traceFile);
  locator.Add<zym::ITracer>(tracer);
  locator.Add<zym::IAllocator>(zym::CreateObject<Allocator>());
  locator.Add<zym::ITracerCategoryFilter>(zym::CreateObject<CategoryFilter>(options.showPrivate));
  locator.Add<qor::IStartupDataProvider>(zym::CreateObject<StartupDataProvider>());
  locator.Add<qor::IPathMatcherFactory>(zym::CreateObject<PathMatcherFactory>(tracer));
  qor::AppSettings settings;
  settings.excludedProcesses.assign(options.excludedProcesses.begin(), options.excludedProcesses.end());
  locator.Add<qor::IAppSettingsProvider>(zym::CreateObject<AppSettingsProvider>(std::move(settings)));
  locator.Add<qor::IScanStatisticsCollector>(zym::CreateObject<ScanStatistics>());
  locator.Add<qor::IFeatureLookup>(zym::CreateObject<FeatureLookup>(options.features));
  locator.Add<qor::IProductValues>(zym::CreateObject<ProductValues>());
  locator.Add<qor::IQorTaskManager>(zym::CreateObject<TaskManager>());
  locator.Add<qor::IQorProcessSuspender>(zym::CreateObject<ProcessSuspender>());
  const auto metrics = zym::CreateObject<Metrics>();
  locator.Add<zym::telemetry::IMetricSource>(metrics);
  locator.Add<zym::telemetry::IMetricsRegistry>(metrics);
}

}  // namespace

Host::Host(const GlobalOptions& options)
    : m_locator(zym::CreateObject<ServiceLocator>()), m_module(options.module) {
  AddServices(*m_locator, options);
  m_features = zym::CreateObject<qor::FeatureTechsAggregator>(m_locator.get());
  m_locator->Add(m_features);
  try {
    AddModuleServices();
  } catch (...) {
    Release();  // the module goes next, and must have no object left
    throw;
  }
}

Host::~Host() {
  Release();
}

void Host::Release() {
  m_interceptor.Reset();
  m_processManager.Reset();
  m_parser.Reset();
  m_cache.Reset();
  m_features.Reset();
  m_locator->Clear();
}

// What the module itself offers to its other parts, through the host.
void Host::AddModuleServices() {
  zym::IServiceLocator* const locator = m_locator.get();
  m_parser = m_module.Make<qor::procfs::IParser>(qor::class_ids::kProcParser, locator, "the reader of /proc");
  m_locator->Add(m_parser);
  const SettingsCreationRecord settings{.base = {.locator = locator}, .tracer = nullptr, .settings = nullptr};
  m_locator->Add(m_module.Create<IInterceptorSettingsSubscription>(
      qor::class_ids::kInterceptorSettingsSubscription, settings.base, "the settings subscription"));
  m_cache = m_module.Create<IProcessInfoProvider>(qor::class_ids::kProcessCache, {.locator = locator},
                                                  "the process cache");
  m_locator->Add(m_cache);
  zym::intrusive_ptr<IEventInfoProvider> events;
  Require(zym::QueryInterface(m_cache, events.Ref()), "the process cache doesn't take events");
  m_locator->Add(events);
}

zym::intrusive_ptr<system_interceptors::process_manager::IProcessManager> Host::GetProcessManager() {
  using system_interceptors::process_manager::IProcessManager;
  if (!m_processManager)
    m_processManager = Make<IProcessManager>(qor::class_ids::kProcessManager, "the process manager");
  return m_processManager;
}

zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> Host::GetInterceptor() {
  using system_interceptors::interceptor_facade::IInterceptor;
  using system_interceptors::interceptor_facade::IInterceptor2;
  if (!m_interceptor) {
    const auto interceptor = m_module.Create<IInterceptor>(qor::class_ids::kInterceptor,
                                                           {.locator = m_locator.get()}, "the interceptor");
    Require(zym::QueryInterface(interceptor, m_interceptor.Ref()), "the interceptor is of an older kind");
  }
  return m_interceptor;
}

}  // namespace pmhost
