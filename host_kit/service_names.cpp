#include "host_kit/service_names.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "process_manager/interceptor.h"
#include "process_manager/interceptor_settings.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/process_manager.h"
#include "process_manager/services/app_settings.h"
#include "process_manager/services/exec_listener.h"
#include "process_manager/services/feature_lookup.h"
#include "process_manager/services/feature_techs.h"
#include "process_manager/services/metrics.h"
#include "process_manager/services/path_matching.h"
#include "process_manager/services/process_suspender.h"
#include "process_manager/services/product_values.h"
#include "process_manager/services/root_fd_provider.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "process_manager/services/task_manager.h"
#include "zym/tracer.h"

namespace host_kit {
namespace {

struct ServiceName {
  zym::iid_t iid;
  const char* name;
};

#define HOST_KIT_SERVICE(Interface) \
  { Interface::kIid, #Interface }

constexpr auto kServices = std::to_array<ServiceName>({
    HOST_KIT_SERVICE(zym::IAllocator),
    HOST_KIT_SERVICE(zym::ITracer),
    HOST_KIT_SERVICE(zym::ITracerCategoryFilter),
    HOST_KIT_SERVICE(zym::telemetry::IMetricSource),
    HOST_KIT_SERVICE(zym::telemetry::IMetricsRegistry),
    HOST_KIT_SERVICE(qor::IAppSettingsProvider),
    HOST_KIT_SERVICE(qor::IExecListenerFactory),
    HOST_KIT_SERVICE(qor::IFeatureLookup),
    HOST_KIT_SERVICE(qor::IFeatureTechsAggregator),
    HOST_KIT_SERVICE(qor::IPathMatcherFactory),
    HOST_KIT_SERVICE(qor::IProductValues),
    HOST_KIT_SERVICE(qor::IQorProcessSuspender),
    HOST_KIT_SERVICE(qor::IQorTaskManager),
    HOST_KIT_SERVICE(qor::IRootFdProvider),
    HOST_KIT_SERVICE(qor::IScanStatisticsCollector),
    HOST_KIT_SERVICE(qor::IStartupDataProvider),
    HOST_KIT_SERVICE(qor::procfs::IParser),
    HOST_KIT_SERVICE(qor::process_manager::IEventInfoProvider),
    HOST_KIT_SERVICE(qor::process_manager::IInterceptorSettingsSubscription),
    HOST_KIT_SERVICE(qor::process_manager::IProcessInfoProvider),
    HOST_KIT_SERVICE(system_interceptors::interceptor_facade::IInterceptor),
    HOST_KIT_SERVICE(system_interceptors::process_manager::IProcessManager),
});

#undef HOST_KIT_SERVICE

}  // namespace

std::string DescribeService(zym::iid_t iid) {
  char id[16];
  std::snprintf(id, sizeof(id), "0x%08x", iid);
  const auto* const service = std::ranges::find(kServices, iid, &ServiceName::iid);
  if (service == kServices.end()) return std::string("interface ") + id;
  return std::string(service->name) + " (" + id + ")";
}

}  // namespace host_kit
