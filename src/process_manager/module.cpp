// Entries of the module, and its class tables.
#include <array>
#include <exception>

#include "process_manager/entry.h"
#include "process_manager/facade/application_manager.h"
#include "process_manager/facade/interceptor.h"
#include "process_manager/interception/interceptor_settings_subscription.h"
#include "process_manager/memory/process_memory_factory.h"
#include "process_manager/memory/process_module_manager.h"
#include "process_manager/meta_info/meta_info_registry.h"
#include "process_manager/process/file_name_mapper.h"
#include "process_manager/process/process_manager.h"
#include "process_manager/process/user_localization.h"
#include "process_manager/process_cache/process_cache.h"
#include "process_manager/procfs/proc_parser.h"
#include "zym/generic_object_factory.h"
#include "zym/module_counter.h"

#define ZYM_EXPORT __attribute__((visibility("default")))

namespace {

using namespace qor::process_manager;
namespace class_ids = qor::class_ids;

// How long the cache keeps a process that has ended: one second, in units of 100 nanoseconds.
constexpr std::int64_t kDeadEntryRetention = 10'000'000;

template <class T>
zym::IObjectFactory* MakeFactory() {
  return new zym::Factory<T>();
}

struct FactoryRow {
  std::uint32_t classId;
  zym::IObjectFactory* (*make)();
};

// In the order of the search.
constexpr auto kFactories = std::to_array<FactoryRow>({
    {class_ids::kApplicationManager, &MakeFactory<ApplicationManager>},
    {class_ids::kFileNameMapper, &MakeFactory<FileNameMapper>},
    {class_ids::kTypeDescriptorStaticRegistry,
     &MakeFactory<MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry>},
    {class_ids::kProcessManager, &MakeFactory<ProcessManager>},
    {class_ids::kProcessModuleManager, &MakeFactory<ProcessModuleManager>},
    {class_ids::kProcessUserLocalizationProvider, &MakeFactory<ProcessUserLocalizationProvider>},
    {class_ids::kProcessMemoryFactory, &MakeFactory<qor::process_memory_manager::ProcessMemoryFactory>},
    {class_ids::kProcParser, &MakeFactory<qor::procfs::ProcParser>},
    {class_ids::kLocalProcParser, &MakeFactory<qor::procfs::LocalProcParser>},
});

// The object's primary interface, with the object's first reference.
template <class T>
zym::IObject* DetachPrimary(zym::intrusive_ptr<T> object) {
  return static_cast<zym::IObject*>(object.Detach()->FindInterface(zym::IObject::kIid));
}

zym::IObject* MakeInterceptor(const CreationRecord* record) {
  return DetachPrimary(zym::CreateObject<Interceptor>(record->locator));
}

zym::IObject* MakeInterceptorSettingsSubscription(const CreationRecord* record) {
  const auto& own = *reinterpret_cast<const SettingsCreationRecord*>(record);
  const auto tracer = own.tracer != nullptr ? zym::intrusive_ptr<zym::ITracer>(own.tracer)
                                            : zym::RequireInterface<zym::ITracer>(own.base.locator);
  return DetachPrimary(zym::CreateObject<InterceptorSettingsSubscription>(
      tracer, own.settings != nullptr ? *own.settings : InterceptorSettings()));
}

zym::IObject* MakeProcessCache(const CreationRecord* record) {
  return DetachPrimary(zym::CreateObject<ProcessCache>(record->locator, kDeadEntryRetention));
}

struct CreatorRow {
  std::uint32_t classId;
  zym::IObject* (*create)(const CreationRecord* record);
};

constexpr auto kCreators = std::to_array<CreatorRow>({
    {class_ids::kInterceptor, &MakeInterceptor},
    {class_ids::kInterceptorSettingsSubscription, &MakeInterceptorSettingsSubscription},
    {class_ids::kProcessCache, &MakeProcessCache},
});

void StopAtTheTripWire(std::uint32_t classId) {
  if (classId == class_ids::kTripWire) std::terminate();
}

}  // namespace

// The two entries have different codes for an unknown class. That is meant: by the code a host knows which of
// them refused.
ZYM_EXPORT zym::result_t zymGetObjectFactory(zym::IServiceLocator* locator, std::uint32_t classId,
                                             zym::IObjectFactory** factory) {
  for (const FactoryRow& row : kFactories) {
    if (row.classId != classId) continue;
    try {
      *factory = row.make();
      return zym::ZYM_OK;
    } catch (...) {
      return zym::ConstructionExceptionToResult(locator, zym::kConstructionPrefix);
    }
  }
  StopAtTheTripWire(classId);
  *factory = nullptr;
  return zym::ZYM_E_NOT_IMPLEMENTED;
}

ZYM_EXPORT zym::result_t zymCreateObject(std::uint32_t classId, const CreationRecord* record,
                                         zym::IObject** object) {
  for (const CreatorRow& row : kCreators) {
    if (row.classId != classId) continue;
    try {
      *object = row.create(record);
      return zym::ZYM_OK;
    } catch (...) {
      return zym::ConstructionExceptionToResult(record->locator, {});
    }
  }
  StopAtTheTripWire(classId);
  return zym::ZYM_E_CLASS_NOT_FOUND;
}

ZYM_EXPORT zym::result_t zymCanUnloadModule() {
  return zym::ModuleObjectCounter::Value() == 0 ? zym::ZYM_OK : zym::ZYM_FALSE;
}
