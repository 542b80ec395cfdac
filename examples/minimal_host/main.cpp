// The smallest host: prints the next ten starts and ends of processes. As root: minimal_host MODULE
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "process_manager/entry.h"
#include "process_manager/interceptor.h"
#include "process_manager/proc_parser.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/metrics.h"
#include "process_manager/services/scan_statistics.h"
#include "process_manager/services/startup_data.h"
#include "qor_common/feature_techs_aggregator.h"
#include "zym/object.h"
#include "zym/service_provider.h"
#include "zym/utf.h"

namespace {
using namespace system_interceptors;
using namespace zym::telemetry;
using zym::result_t;
using zym::object::Ifaces;

// The locator, which is the services too, each as small as it can be, and hands out what was put in besides.
struct Host : Ifaces<zym::IServiceLocator, zym::ITracer, zym::IAllocator, zym::ITracerCategoryFilter,
                     qor::IStartupDataProvider, qor::IScanStatisticsCollector, IMetricSource,
                     IMetricsRegistry, IGauge, ICounter> {
  result_t GetRecord(std::uint32_t, void**, std::uint64_t) override { return zym::ZYM_FALSE; }  // no trace
  void CommitRecord(void*, std::uint64_t) override {}
  void* Alloc(std::uint64_t size) override { return std::malloc(size); }
  void* Reallocate(void* p, std::uint64_t size) override { return std::realloc(p, size); }
  void Free(void* p) override { std::free(p); }
  result_t Check(std::uint32_t) override { return zym::ZYM_FALSE; }  // nothing private is traced
  const qor::StartupData* GetStartupData() override { return &startupData; }
  result_t RegisterScannedProcessFilePath(zym::types::string16_t&&) override { return zym::ZYM_OK; }
  void Set(std::int64_t) override {}
  void Increment() override {}
  void Reset() override {}
  result_t GetTableMetrics(const char*, TableMetrics& metrics) override {
    metrics.size = zym::intrusive_ptr<IGauge>(this);
    metrics.hits = metrics.misses = zym::intrusive_ptr<ICounter>(this);
    return zym::ZYM_OK;
  }
  result_t GetText(zym::types::string_t&) override { return zym::ZYM_E_NOT_SUPPORTED; }
  result_t RegisterCollector(ICollector*, std::uint64_t*) override { return zym::ZYM_OK; }
  result_t UnregisterCollector(std::uint64_t) override { return zym::ZYM_OK; }
  result_t GetInterface(zym::iid_t iid, std::uint32_t, void** out) override {
    const auto found = services.find(iid);
    return found == services.end() ? QueryInterface(iid, out) : found->second->QueryInterface(iid, out);
  }
  const qor::StartupData startupData;
  std::map<zym::iid_t, zym::intrusive_ptr<zym::IObject>> services;
};

// Prints ten events; called by one thread.
struct Handler : Ifaces<event_processing::INonBlockingEventHandler> {
  void OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) override {
    if (left == 0) return;
    zym::types::range_t<const std::uint8_t*> view;
    event->GetParam(event_param::kImagePath, &view);
    const std::u16string_view path(reinterpret_cast<const char16_t*>(view.begin()), view.size() / 2);
    std::printf("%s %u %s\n", event->GetType() == event_type::kCreateProcess ? "start" : "end  ",
                event->GetPid(), zym::Utf16ToUtf8(path).value_or("?").c_str());
    if (--left == 0) left.notify_one();
  }
  std::atomic<int> left{10};
};

void Require(bool fulfilled, const std::string& otherwise) {
  if (!fulfilled) throw std::runtime_error(otherwise);
}

// The loaded module. It is unloaded when the last of its objects is gone.
struct Module {
  explicit Module(const char* file) : library(::dlopen(file, RTLD_NOW | RTLD_LOCAL), &::dlclose) {
    if (library == nullptr) throw std::runtime_error(::dlerror());
    Find(getFactory, "zymGetObjectFactory");
    Find(create, "zymCreateObject");
    Find(canUnload, "zymCanUnloadModule");
  }
  ~Module() {
    while (canUnload() != zym::ZYM_OK) std::this_thread::yield();
  }
  template <class F>
  void Find(F*& entry, const char* name) {
    entry = reinterpret_cast<F*>(::dlsym(library.get(), name));
    Require(entry != nullptr, std::string("the library has no entry ") + name);
  }
  std::unique_ptr<void, int (*)(void*)> library;
  decltype(zymGetObjectFactory)* getFactory = nullptr;
  decltype(zymCreateObject)* create = nullptr;
  decltype(zymCanUnloadModule)* canUnload = nullptr;
};

void Run(const Module& module, Host* host) {
  using namespace qor::process_manager;
  const auto create = [&](std::uint32_t classId) {
    const SettingsCreationRecord record{{host}, nullptr, nullptr};
    zym::intrusive_ptr<zym::IObject> object;
    module.create(classId, &record.base, object.Ref());
    Require(object != nullptr, "an object of the module can't be made");
    return object;
  };
  // What the module takes back from the locator: its reader of /proc, its settings and its cache.
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  module.getFactory(host, qor::class_ids::kProcParser, factory.Ref());
  Require(factory != nullptr, "the module has no reader of /proc");
  zym::intrusive_ptr<qor::procfs::IParser> parser;
  zym::CreateInstance(factory.get(), host, parser.Ref());
  Require(parser != nullptr, "the reader of /proc can't be made");
  host->services[qor::procfs::IParser::kIid] = parser;
  host->services[IInterceptorSettingsSubscription::kIid] =
      create(qor::class_ids::kInterceptorSettingsSubscription);
  host->services[IEventInfoProvider::kIid] = create(qor::class_ids::kProcessCache);
  host->services[IProcessInfoProvider::kIid] = host->services[IEventInfoProvider::kIid];
  host->services[qor::IFeatureTechsAggregator::kIid] = zym::CreateObject<qor::FeatureTechsAggregator>(host);

  const auto handler = zym::CreateObject<Handler>();
  const auto interceptor = create(qor::class_ids::kInterceptor);
  zym::intrusive_ptr<interceptor_facade::IInterceptor2> filters;
  zym::intrusive_ptr<IQorInterceptor> sources;
  Require(zym::QueryInterface(interceptor, filters.Ref()) == zym::ZYM_OK, "there are no filters");
  Require(zym::QueryInterface(interceptor, sources.Ref()) == zym::ZYM_OK, "there are no sources");
  std::uint32_t id = 0;
  for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kExitProcess})
    Require(filters->RegisterNonBlockingFilterAttachHandler({.type = type}, true, 0, handler.get(), &id) ==
                zym::ZYM_OK,
            "a filter can't be registered");
  Require(sources->EnableNonBlockingInterceptor(non_blocking_type::kNetlink) == zym::ZYM_OK,
          "the proc connector can't be listened to (older kernels want CAP_NET_ADMIN)");
  while (const int left = handler->left) handler->left.wait(left);
  sources->DisableNonBlockingInterceptor(non_blocking_type::kNetlink);
}

}  // namespace

int main(int argc, char** argv) try {
  const Module module(argc == 2 ? argv[1] : "libprocess_manager.so");
  const auto host = zym::CreateObject<Host>();
  const std::shared_ptr<void> atTheEnd(nullptr, [&](void*) { host->services.clear(); });  // some hold it
  Run(module, host.get());
} catch (const std::exception& error) {
  return std::fprintf(stderr, "minimal_host: %s\n", error.what()), 1;
}
