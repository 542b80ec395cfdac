// The smallest host: loads the module, offers it what it needs, and prints the next ten process starts and
// ends.
//
//   minimal_host MODULE          (as root)
#include <dlfcn.h>
#include <semaphore.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "process_manager/entry.h"
#include "process_manager/host_services.h"
#include "process_manager/interceptor_facade.h"
#include "process_manager/process_cache_faces.h"
#include "process_manager/procfs.h"
#include "qor_common/feature_techs_aggregator.h"
#include "zym/object.h"
#include "zym/utf.h"

namespace {

using zym::object::Ifaces;

// --- the services, each as small as it can be
// ---------------------------------------------------------------------

struct NoTracer : Ifaces<zym::ITracer> {
  zym::result_t GetRecord(std::uint32_t, void**, std::uint64_t) override { return zym::ZYM_FALSE; }
  void CommitRecord(void*, std::uint64_t) override {}
};
struct Allocator : Ifaces<zym::IAllocator> {
  void* Alloc(std::uint64_t size) override { return std::malloc(size); }
  void* Reallocate(void* p, std::uint64_t size) override { return std::realloc(p, size); }
  void Free(void* p) override { std::free(p); }
};
struct NothingPrivate : Ifaces<zym::ITracerCategoryFilter> {
  zym::result_t Check(std::uint32_t) override { return zym::ZYM_FALSE; }
};
struct StartupData : Ifaces<qor::IStartupDataProvider> {
  const qor::StartupData* GetStartupData() override { return &data; }
  const qor::StartupData data;
};
struct NoStatistics : Ifaces<qor::IScanStatisticsCollector> {
  zym::result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override { return zym::ZYM_OK; }
};
struct Metric : Ifaces<zym::telemetry::IGauge, zym::telemetry::ICounter> {
  void Set(std::int64_t) override {}
  void Increment() override {}
  void Reset() override {}
};
struct NoMetrics : Ifaces<zym::telemetry::IMetricSource, zym::telemetry::IMetricsRegistry> {
  zym::result_t GetTableMetrics(const char*, zym::telemetry::TableMetrics& metrics) override {
    const auto metric = zym::CreateObject<Metric>();
    metrics = {metric, metric, metric};
    return zym::ZYM_OK;
  }
  zym::result_t GetText(zym::types::string_t&) override { return zym::ZYM_E_NOT_SUPPORTED; }
  zym::result_t RegisterCollector(zym::telemetry::ICollector*, std::uint64_t*) override {
    return zym::ZYM_OK;
  }
  zym::result_t UnregisterCollector(std::uint64_t) override { return zym::ZYM_OK; }
};

// Hands out what was put in, by interface id.
struct Locator : Ifaces<zym::IServiceLocator> {
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t, void** out) override {
    const auto found = services.find(iid);
    return found == services.end() ? zym::ZYM_E_NO_INTERFACE : found->second->QueryInterface(iid, out);
  }
  template <class I, class T>
  void Add(const zym::intrusive_ptr<T>& service) {
    services[I::kIid] = zym::intrusive_ptr<zym::IObject>(static_cast<I*>(service.get()));
  }
  std::map<zym::iid_t, zym::intrusive_ptr<zym::IObject>> services;
};

// --- the handler
// --------------------------------------------------------------------------------------------------

struct Handler : Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
    zym::types::range_t<const std::uint8_t*> view;
    event->GetParam(system_interceptors::event_param::kImagePath, &view);
    const std::u16string_view path(reinterpret_cast<const char16_t*>(view.begin()),
                                   view.size() / sizeof(char16_t));
    const bool start = event->GetType() == system_interceptors::event_type::kCreateProcess;
    std::printf("%s %u %s\n", start ? "start" : "end  ", event->GetPid(),
                zym::Utf16ToUtf8(path).value_or("?").c_str());
    ::sem_post(&seen);
  }
  sem_t seen{};
};

void Run(void* module) {
  using namespace qor::process_manager;
  const auto getFactory =
      reinterpret_cast<decltype(&zymGetObjectFactory)>(::dlsym(module, "zymGetObjectFactory"));
  const auto create = reinterpret_cast<decltype(&zymCreateObject)>(::dlsym(module, "zymCreateObject"));
  const auto locator = zym::CreateObject<Locator>();
  locator->Add<zym::ITracer>(zym::CreateObject<NoTracer>());
  locator->Add<zym::IAllocator>(zym::CreateObject<Allocator>());
  locator->Add<zym::ITracerCategoryFilter>(zym::CreateObject<NothingPrivate>());
  locator->Add<qor::IStartupDataProvider>(zym::CreateObject<StartupData>());
  locator->Add<qor::IScanStatisticsCollector>(zym::CreateObject<NoStatistics>());
  const auto metrics = zym::CreateObject<NoMetrics>();
  locator->Add<zym::telemetry::IMetricSource>(metrics);
  locator->Add<zym::telemetry::IMetricsRegistry>(metrics);
  locator->Add<qor::IFeatureTechsAggregator>(zym::CreateObject<qor::FeatureTechsAggregator>(locator.get()));

  // What the module takes back from the locator: its reader of /proc, its settings and its cache.
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  getFactory(locator.get(), qor::class_ids::kProcParser, factory.Ref());
  zym::intrusive_ptr<qor::procfs::IParser> parser;
  factory->CreateInstance(locator.get(), qor::procfs::IParser::kIid, reinterpret_cast<void**>(parser.Ref()));
  locator->Add<qor::procfs::IParser>(parser);
  const auto make = [&](std::uint32_t classId) {
    const SettingsCreationRecord record{{locator.get()}, nullptr, nullptr};
    zym::intrusive_ptr<zym::IObject> object;
    create(classId, &record.base, object.Ref());
    return object;
  };
  locator->services[IInterceptorSettingsSubscription::kIid] =
      make(qor::class_ids::kInterceptorSettingsSubscription);
  const auto cache = make(qor::class_ids::kProcessCache);
  locator->services[IEventInfoProvider::kIid] = cache;
  locator->services[IProcessInfoProvider::kIid] = cache;

  const auto handler = zym::CreateObject<Handler>();
  const auto interceptor = make(qor::class_ids::kInterceptor);
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> filters;
  zym::intrusive_ptr<IQorInterceptor> sources;
  zym::QueryInterface(interceptor, filters.Ref());
  zym::QueryInterface(interceptor, sources.Ref());
  for (const std::uint32_t type :
       {system_interceptors::event_type::kCreateProcess, system_interceptors::event_type::kExitProcess}) {
    std::uint32_t id = 0;
    filters->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0, handler.get(), &id);
  }
  const bool enabled = sources->EnableNonBlockingInterceptor(non_blocking_type::kNetlink) == zym::ZYM_OK;
  if (!enabled) std::puts("the proc connector needs CAP_NET_ADMIN: run as root");
  for (int i = 0; enabled && i < 10; ++i) ::sem_wait(&handler->seen);
  sources->DisableNonBlockingInterceptor(non_blocking_type::kNetlink);
  locator->services.clear();  // some of them hold the locator
}

}  // namespace

int main(int argc, char** argv) {
  void* const module = ::dlopen(argc == 2 ? argv[1] : "libprocess_manager.so", RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return std::puts(::dlerror()), 1;
  Run(module);
  const auto canUnload =
      reinterpret_cast<decltype(&zymCanUnloadModule)>(::dlsym(module, "zymCanUnloadModule"));
  if (canUnload() != zym::ZYM_OK) return std::puts("an object of the module is still alive"), 1;
  return ::dlclose(module);
}
