// The three entries and what becomes of the objects that they make.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "module/module_host.h"
#include "process_manager/meta_info.h"

namespace {

using test_support::FakeHost;
using test_support::LoadedModule;
using test_support::ModuleHost;

constexpr std::uint32_t kUnknownClass = 0x12345678;

std::size_t CountEntries(const char* directory) {
  std::size_t count = 0;
  DIR* const dir = ::opendir(directory);
  while (::readdir(dir) != nullptr) ++count;
  ::closedir(dir);
  return count;
}

std::size_t ResidentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word)
    if (word == "VmRSS:") break;
  std::size_t kilobytes = 0;
  status >> kilobytes;
  return kilobytes;
}

TEST(ModuleEntries, AFactoryPinsTheModuleUntilItsLastRelease) {
  const FakeHost host;
  const LoadedModule module;
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
  zym::IObjectFactory* factory = nullptr;
  ASSERT_EQ(module.getObjectFactory(host.locator.get(), qor::class_ids::kProcParser, &factory), zym::ZYM_OK);
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_FALSE);
  EXPECT_EQ(factory->Release(), 0U);
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
}

TEST(ModuleEntries, TellAnUnknownClassByDifferentCodes) {
  const FakeHost host;
  const LoadedModule module;
  int somewhere = 0;
  auto* factory = reinterpret_cast<zym::IObjectFactory*>(&somewhere);
  EXPECT_EQ(module.getObjectFactory(host.locator.get(), kUnknownClass, &factory), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(factory, nullptr);
  const CreationRecord record{.locator = host.locator.get()};
  auto* const mark = reinterpret_cast<zym::IObject*>(&somewhere);
  zym::IObject* object = mark;
  EXPECT_EQ(module.createObject(kUnknownClass, &record, &object), zym::ZYM_E_CLASS_NOT_FOUND);
  EXPECT_EQ(object, mark) << "left alone";
}

TEST(ModuleEntriesDeathTest, TheTripWireTerminates) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const LoadedModule module;
  const CreationRecord record{.locator = nullptr};
  zym::IObject* object = nullptr;
  zym::IObjectFactory* factory = nullptr;
  EXPECT_DEATH(module.createObject(qor::class_ids::kTripWire, &record, &object), "");
  EXPECT_DEATH(module.getObjectFactory(nullptr, qor::class_ids::kTripWire, &factory), "");
}

TEST(ModuleEntries, AWrongInterfaceDestroysTheObjectAgain) {
  const FakeHost host;
  const LoadedModule module;
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  ASSERT_EQ(module.getObjectFactory(host.locator.get(), qor::class_ids::kProcParser, factory.Ref()),
            zym::ZYM_OK);
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(host.locator.get(), 0xdeadbeef, &out), zym::ZYM_E_NO_INTERFACE);
  factory.Reset();
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
  EXPECT_EQ(host.allocator->Live(), 0);
}

TEST(ModuleEntries, AnAllocatorThatIsExhaustedGivesOutOfMemoryForEachClassOfAFactory) {
  const FakeHost host;
  const LoadedModule module;
  for (const std::uint32_t classId : {qor::class_ids::kTypeDescriptorStaticRegistry,
                                      qor::class_ids::kProcParser, qor::class_ids::kLocalProcParser}) {
    host.allocator->FailFrom(0);
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    ASSERT_EQ(module.getObjectFactory(host.locator.get(), classId, factory.Ref()), zym::ZYM_OK);
    void* out = nullptr;
    EXPECT_EQ(factory->CreateInstance(host.locator.get(), 0, &out), zym::ZYM_E_OUT_OF_MEMORY);
    EXPECT_EQ(host.allocator->Live(), 0);
  }
}

// Each required service in turn is missing, or answers with a failure: its code comes back and nothing is
// left.
TEST(ModuleEntries, ARequiredServiceThatIsMissingOrFailsGivesItsCode) {
  const struct {
    std::uint32_t classId;
    std::vector<zym::iid_t> required;
  } classes[] = {
      {qor::class_ids::kProcessCache,
       {zym::ITracer::kIid, zym::ITracerCategoryFilter::kIid, zym::telemetry::IMetricSource::kIid,
        zym::telemetry::IMetricsRegistry::kIid}},
      {qor::class_ids::kInterceptorSettingsSubscription, {zym::ITracer::kIid}},
      {qor::class_ids::kInterceptor,
       {zym::ITracer::kIid, zym::ITracerCategoryFilter::kIid, qor::process_manager::IEventInfoProvider::kIid,
        qor::IScanStatisticsCollector::kIid, qor::IStartupDataProvider::kIid, qor::procfs::IParser::kIid,
        qor::process_manager::IInterceptorSettingsSubscription::kIid}},
  };
  for (const auto& [classId, required] : classes) {
    for (const zym::iid_t iid : required) {
      const ModuleHost moduleHost;
      const SettingsCreationRecord record{
          .base = {.locator = moduleHost.host.locator.get()}, .tracer = nullptr, .settings = nullptr};
      zym::IObject* object = nullptr;
      moduleHost.host.locator->FailWith(iid, zym::ZYM_E_LOCKED);
      EXPECT_EQ(moduleHost.module.createObject(classId, &record.base, &object), zym::ZYM_E_LOCKED)
          << std::hex << iid;
      EXPECT_EQ(object, nullptr);
    }
  }
}

TEST(ModuleEntries, NoThreadAndNoDescriptorIsLeftAndTheModuleCanBeLoadedAgain) {
  const auto round = [] {
    const ModuleHost moduleHost;
    zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
    ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
    if (::geteuid() != 0) return;  // the source needs CAP_NET_ADMIN; the rest of the round is the same
    zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
    ASSERT_EQ(zym::QueryInterface(interceptor, control.Ref()), zym::ZYM_OK);
    ASSERT_EQ(control->EnableNonBlockingInterceptor(1), zym::ZYM_OK);
  };
  round();
  const std::size_t threads = CountEntries("/proc/self/task");
  const std::size_t descriptors = CountEntries("/proc/self/fd");
  round();
  EXPECT_EQ(CountEntries("/proc/self/task"), threads);
  EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
}

TEST(ModuleEntries, AThousandRoundsOfEveryClassLeaveMemoryWhereItWas) {
  const auto round = [] {
    const ModuleHost moduleHost;
    zym::IServiceLocator* const locator = moduleHost.host.locator.get();
    zym::intrusive_ptr<zym::IMetaInfoProvider> registry;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kTypeDescriptorStaticRegistry, locator, registry),
              zym::ZYM_OK);
    zym::intrusive_ptr<qor::procfs::IParser> local;
    EXPECT_EQ(moduleHost.module.Make(qor::class_ids::kLocalProcParser, locator, local), zym::ZYM_OK);
    zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
    EXPECT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  };
  for (int i = 0; i < 100; ++i) round();
  const std::size_t before = ResidentKilobytes();
  for (int i = 0; i < 1000; ++i) round();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(ResidentKilobytes(), before + 1024) << "a kilobyte a round would be a megabyte";
#else
  static_cast<void>(before);  // a sanitizer keeps what is freed
#endif
}

// --- slots
// ------------------------------------------------------------------------------------------------------

// Calls the operation at a place of an interface's table, as a caller that knows nothing but the order would.
template <class R, class... Args>
R CallSlot(void* object, std::size_t slot, Args... args) {
  auto* const table = *static_cast<void***>(object);
  return reinterpret_cast<R (*)(void*, Args...)>(table[slot])(object, args...);
}

TEST(ModuleSlots, TheFacadesOperationsStandInTheirOrder) {
  const ModuleHost moduleHost;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  void* const facade = interceptor.get();
  EXPECT_EQ(CallSlot<std::uint32_t>(facade, 0), 2U) << "AddRef";
  EXPECT_EQ(CallSlot<std::uint32_t>(facade, 1), 1U) << "Release";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 3), zym::ZYM_E_NOT_IMPLEMENTED) << "GetOfflineLog";
  const system_interceptors::interceptor_facade::FilterDescriptor create{
      .type = system_interceptors::event_type::kCreateProcess};
  const system_interceptors::interceptor_facade::FilterDescriptor exit{
      .type = system_interceptors::event_type::kExitProcess};
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 4, &exit, true, 0U, 0U, static_cast<void*>(nullptr), &first),
            zym::ZYM_E_NOT_SUPPORTED)
      << "RegisterBlockingFilterAttachHandler";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 5, &create, true, 0U, static_cast<void*>(nullptr), &second),
            zym::ZYM_OK)
      << "RegisterNonBlockingFilterAttachHandler";
  EXPECT_EQ(second, first + 1) << "a refused registration leaves a gap";
  std::uint32_t third = 0;
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 6, &exit, true, 0U, &third), zym::ZYM_OK) << "RegisterFilter";
  bool enabled = false;
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 14, third, &enabled), zym::ZYM_OK) << "GetFilterStatus";
  EXPECT_TRUE(enabled);
  using Ids = system_interceptors::interceptor_facade::FilterIds;
  const Ids ids{.first = &third, .last = &third + 1};
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 9, ids), zym::ZYM_OK) << "DisableFilters";
  CallSlot<zym::result_t>(facade, 14, third, &enabled);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 8, ids), zym::ZYM_OK) << "EnableFilters";
  CallSlot<zym::result_t>(facade, 14, third, &enabled);
  EXPECT_TRUE(enabled);
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 13, Ids{}, ids), zym::ZYM_OK) << "EnableDisableFilters";
  CallSlot<zym::result_t>(facade, 14, third, &enabled);
  EXPECT_FALSE(enabled);
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 10), zym::ZYM_OK) << "ReservedOperation";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 11, third, static_cast<void*>(nullptr)), zym::ZYM_OK)
      << "AttachHandler";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 12, third), zym::ZYM_OK) << "DetachHandler";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 7, ids), zym::ZYM_OK) << "DeleteFilters";
  EXPECT_EQ(CallSlot<zym::result_t>(facade, 14, third, &enabled), zym::ZYM_E_NOT_FOUND);
}

TEST(ModuleSlots, TheFacadesFirstThreeIdsShareAPointerAndTheFourthHasItsOwn) {
  const ModuleHost moduleHost;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  std::vector<void*> found;
  for (const zym::iid_t iid : {0U, 0xde7726f2U, 0x49b85a1bU, 0xdae40c14U}) {
    void* out = nullptr;
    ASSERT_EQ(interceptor->QueryInterface(iid, &out), zym::ZYM_OK);
    interceptor->Release();
    found.push_back(out);
  }
  EXPECT_EQ(found[0], found[1]);
  EXPECT_EQ(found[1], found[2]);
  EXPECT_NE(found[2], found[3]);
}

TEST(ModuleSlots, OperationsOfSourcesThatDoNotExistYetSayNotSupported) {
  const ModuleHost moduleHost;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  ASSERT_EQ(moduleHost.CreateInterceptor(interceptor), zym::ZYM_OK);
  zym::intrusive_ptr<qor::process_manager::IQorInterceptor> control;
  ASSERT_EQ(zym::QueryInterface(interceptor, control.Ref()), zym::ZYM_OK);
  for (const std::size_t slot : {3U, 4U, 7U, 8U, 9U, 10U})
    EXPECT_EQ(CallSlot<zym::result_t>(control.get(), slot), zym::ZYM_E_NOT_SUPPORTED) << slot;
  EXPECT_EQ(CallSlot<zym::result_t>(control.get(), 6, 0U), zym::ZYM_OK) << "DisableNonBlockingInterceptor";
  EXPECT_EQ(CallSlot<zym::result_t>(control.get(), 5, 8U), zym::ZYM_OK)
      << "the console bit alone starts nothing";
}

TEST(ModuleSlots, TheMetaInformationIsReachedByBothInterfaces) {
  const FakeHost host;
  const LoadedModule module;
  zym::intrusive_ptr<zym::IMetaInfoProvider> provider;
  ASSERT_EQ(module.Make(qor::class_ids::kTypeDescriptorStaticRegistry, host.locator.get(), provider),
            zym::ZYM_OK);
  zym::intrusive_ptr<zym::IStructMetaInfoRegistry> registry;
  ASSERT_EQ(zym::QueryInterface(provider, registry.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<zym::IMetaInfoProvider> back;
  ASSERT_EQ(zym::QueryInterface(registry, back.Ref()), zym::ZYM_OK);
  EXPECT_EQ(back.get(), provider.get());
  void* primary = nullptr;
  ASSERT_EQ(registry->QueryInterface(0, &primary), zym::ZYM_OK);
  EXPECT_EQ(primary, provider.get());
  provider->Release();

  const zym::ISerObjDescriptor* descriptor = nullptr;
  EXPECT_EQ(provider->GetDescriptor(0x50058721, &descriptor), zym::ZYM_OK);
  EXPECT_STREQ(descriptor->GetName(), "InterceptorSettings");
  EXPECT_EQ(registry->GetDescriptor(1, &descriptor), zym::ZYM_E_NOT_FOUND);
  zym::types::vector_t<std::uint32_t> ids;
  EXPECT_EQ(provider->GetClassIds(ids), zym::ZYM_OK);
  EXPECT_EQ(ids.size(), 1U);
  for (const std::size_t slot : {5U, 6U, 8U, 9U})
    EXPECT_EQ(CallSlot<zym::result_t>(provider.get(), slot), zym::ZYM_E_NOT_IMPLEMENTED) << slot;
}

}  // namespace
