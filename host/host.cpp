#include "host/host.h"

#include <cstdio>
#include <utility>

#include "host/module_file.h"
#include "host/services/app_settings.h"
#include "host/services/metrics.h"
#include "host/services/path_matching.h"
#include "host/services/process_suspender.h"
#include "host/services/product_values.h"
#include "host/services/task_manager.h"
#include "host/services/tracer.h"
#include "host_kit/category_filter.h"
#include "host_kit/feature_lookup.h"

namespace pmhost {
namespace {

qor::AppSettings SettingsOf(const GlobalOptions& options) {
  qor::AppSettings settings;
  settings.excludedProcesses.assign(options.excludedProcesses.begin(), options.excludedProcesses.end());
  return settings;
}

zym::intrusive_ptr<host_kit::ServiceLocator> MakeServices(const GlobalOptions& options) {
  auto locator = host_kit::MakeDefaultServices();
  const auto tracer = zym::CreateObject<Tracer>(options.traceLevel, options.traceFile);
  locator->Add<zym::ITracer>(tracer);
  locator->Add<zym::ITracerCategoryFilter>(zym::CreateObject<host_kit::CategoryFilter>(options.showPrivate));
  locator->Add<qor::IPathMatcherFactory>(zym::CreateObject<PathMatcherFactory>(tracer));
  locator->Add<qor::IAppSettingsProvider>(zym::CreateObject<AppSettingsProvider>(SettingsOf(options)));
  locator->Add<qor::IFeatureLookup>(zym::CreateObject<host_kit::FeatureLookup>(options.features));
  locator->Add<qor::IProductValues>(zym::CreateObject<ProductValues>());
  locator->Add<qor::IQorTaskManager>(zym::CreateObject<TaskManager>());
  locator->Add<qor::IQorProcessSuspender>(zym::CreateObject<ProcessSuspender>());
  const auto metrics = zym::CreateObject<Metrics>();
  locator->Add<zym::telemetry::IMetricSource>(metrics);
  locator->Add<zym::telemetry::IMetricsRegistry>(metrics);
  return locator;
}

}  // namespace

Host::Host(const GlobalOptions& options)
    : m_module(FindModule(options.module)),
      // A command that wants to know what runs already lists it itself.
      m_bootstrap(m_module, MakeServices(options), {.enumerate = false}) {}

Host::Module::~Module() {
  if (!Unload())
    std::fprintf(stderr, "pmhost: %s still has objects alive and stays loaded\n", GetFile().c_str());
}

}  // namespace pmhost
