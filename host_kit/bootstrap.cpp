#include "host_kit/bootstrap.h"

#include <utility>

#include "host_kit/service_names.h"
#include "process_manager/services/metrics.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "qor_common/feature_techs_aggregator.h"
#include "zym/service_provider.h"
#include "zym/tracer.h"

namespace host_kit {
namespace {

using namespace qor::process_manager;
using namespace system_interceptors::process_manager;
using system_interceptors::interceptor_facade::IInterceptor2;

// What the objects that are made here, and the interceptor, ask the host for.
constexpr zym::iid_t kRequiredServices[] = {
    zym::ITracer::kIid,
    zym::IAllocator::kIid,
    zym::ITracerCategoryFilter::kIid,
    zym::telemetry::IMetricSource::kIid,
    zym::telemetry::IMetricsRegistry::kIid,
    qor::IStartupDataProvider::kIid,
    qor::IScanStatisticsCollector::kIid,
};

// `services`, with all of them. Throws Failure, which names those that are missing.
zym::intrusive_ptr<ServiceLocator> Complete(zym::intrusive_ptr<ServiceLocator> services) {
  std::string missing;
  for (const zym::iid_t iid : kRequiredServices) {
    if (services->Has(iid)) continue;
    if (!missing.empty()) missing += ", ";
    missing += DescribeService(iid);
  }
  if (!missing.empty())
    throw Failure("the module cannot work with this host: its locator lacks " + missing +
                  "; add what is missing, or begin with host_kit::MakeDefaultServices()");
  return services;
}

}  // namespace

Bootstrap::OfferedServices::OfferedServices(zym::intrusive_ptr<ServiceLocator> locator)
    : m_locator(std::move(locator)) {}

Bootstrap::OfferedServices::~OfferedServices() {
  for (; !m_iids.empty(); m_iids.pop_back()) m_locator->Remove(m_iids.back());
  m_locator->Clear();
}

Bootstrap::Bootstrap(const LoadedModule& module, zym::intrusive_ptr<ServiceLocator> services,
                     const BootstrapOptions& options)
    : m_module(module),
      m_locator(Complete(std::move(services))),
      m_offered(m_locator),
      m_features(OfferFeatures()),
      m_parser(OfferParser(options.reader)),
      m_settings(OfferSettings()),
      m_cache(OfferCache(options.guard)),
      m_enumerates(options.enumerate) {
  if (m_enumerates) MeetProcesses();
}

Bootstrap::~Bootstrap() = default;

zym::intrusive_ptr<IProcessManager> Bootstrap::GetProcessManager() const {
  const std::scoped_lock lock(m_mutex);
  if (!m_processManager)
    m_processManager = Make<IProcessManager>(qor::class_ids::kProcessManager, "the process manager");
  return m_processManager;
}

zym::intrusive_ptr<IInterceptor2> Bootstrap::GetInterceptor() const {
  const std::scoped_lock lock(m_mutex);
  if (!m_interceptor)
    m_interceptor = m_module.Create<IInterceptor2>(qor::class_ids::kInterceptor, {.locator = m_locator.get()},
                                                   "the interceptor");
  return m_interceptor;
}

std::vector<ProcessInformation> Bootstrap::ListProcesses() const {
  const zym::intrusive_ptr<IProcessInformationEnumerator> enumerator = Enumerate();
  std::vector<ProcessInformation> processes;
  zym::intrusive_ptr<IProcessInformation> process;
  zym::result_t next = zym::ZYM_OK;
  while ((next = enumerator->Next(process.Ref())) == zym::ZYM_OK)
    Require(process->GetInformation(processes.emplace_back()), "cannot read the record of a process");
  Require(next, "cannot read the list of processes to its end");
  return processes;
}

zym::intrusive_ptr<qor::IFeatureTechsAggregator> Bootstrap::OfferFeatures() {
  zym::intrusive_ptr<qor::IFeatureTechsAggregator> features;
  if (ZYM_SUCCEEDED(zym::GetInterface(m_locator.get(), features.Ref()))) return features;
  features = zym::CreateObject<qor::FeatureTechsAggregator>(m_locator.get());
  m_offered.Add(features);
  return features;
}

zym::intrusive_ptr<qor::procfs::IParser> Bootstrap::OfferParser(const std::optional<ReadLimits>& limits) {
  auto parser = Make<qor::procfs::IParser>(qor::class_ids::kProcParser, "the reader of /proc");
  if (limits) parser = zym::CreateObject<ProcfsReader>(parser, *limits);
  m_offered.Add(parser);
  return parser;
}

zym::intrusive_ptr<IInterceptorSettingsSubscription> Bootstrap::OfferSettings() {
  const SettingsCreationRecord record{
      .base = {.locator = m_locator.get()}, .tracer = nullptr, .settings = nullptr};
  auto settings = m_module.Create<IInterceptorSettingsSubscription>(
      qor::class_ids::kInterceptorSettingsSubscription, record.base, "the settings subscription");
  m_offered.Add(settings);
  return settings;
}

// One cache under both of its ids: what the sources report is what the questions find.
zym::intrusive_ptr<IProcessInfoProvider> Bootstrap::OfferCache(bool guarded) {
  auto cache = m_module.Create<IProcessInfoProvider>(qor::class_ids::kProcessCache,
                                                     {.locator = m_locator.get()}, "the process cache");
  zym::intrusive_ptr<IEventInfoProvider> events;
  Require(zym::QueryInterface(cache, events.Ref()), "the process cache takes no events");
  if (guarded) {
    m_guard = zym::CreateObject<ProcessGuard>(cache, events);
    cache = m_guard;
    events = m_guard;
  }
  m_offered.Add(cache);
  m_offered.Add(events);
  return cache;
}

zym::intrusive_ptr<IProcessInformationEnumerator> Bootstrap::Enumerate() const {
  zym::intrusive_ptr<IProcessInformationEnumerator> enumerator;
  Require(GetProcessManager()->Enumerate(enumerator.Ref()), "cannot list the processes");
  return enumerator;
}

}  // namespace host_kit
