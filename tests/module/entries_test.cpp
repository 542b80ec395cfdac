// The three entries and the class tables behind them.
#include <gtest/gtest.h>

#include <csignal>

#include <string>
#include <vector>

#include "module/module_host.h"
#include "process_manager/meta_info.h"
#include "support/own_process.h"

namespace {

using namespace test_support;

constexpr std::uint32_t kUnknownClass = 0x11223344;

struct FactoryClass {
  const char* name;
  std::uint32_t classId;
  std::vector<zym::iid_t> iids;
};

// The classes of zymGetObjectFactory with the interfaces that they have beside 0.
const std::vector<FactoryClass> kFactoryClasses = {
    {"ApplicationManager", 0x2f9b276b, {0x9a38dcf8}},
    {"FileNameMapper", 0x590aee12, {0xefc822f9, 0x32dda863, 0xde5b3c97}},
    {"TypeDescriptorStaticRegistry", 0x272f5652, {0xa53230cb, 0xfe7da4e6}},
    {"ProcessManager", 0xa88589a3, {0x476789db}},
    {"ProcessModuleManager", 0xebdc6c5d, {0x177e50a8}},
    {"ProcessUserLocalizationProvider", 0xe9e2637f, {0x2b415845}},
    {"ProcessMemoryFactory", 0x210cc261, {0x7203ba23}},
    {"ProcParser", 0x9faa28c0, {0xc9b36ad4}},
    {"LocalProcParser", 0xfc6a6123, {0xc9b36ad4}},
};

struct CreatedClass {
  const char* name;
  std::uint32_t classId;
  std::vector<zym::iid_t> iids;
};

// The same of zymCreateObject; the first is the primary one.
const std::vector<CreatedClass> kCreatedClasses = {
    {"Interceptor", 0x15aee499, {0xde7726f2, 0x49b85a1b, 0xdae40c14}},
    {"InterceptorSettingsSubscription", 0xf2c28292, {0x90a67124, 0xf62878be}},
    {"ProcessCache", 0x034b5e94, {0xffc9e198, 0x79864d30}},
};

class ModuleEntries : public testing::Test {
 protected:
  zym::IServiceLocator* Locator() const { return m_host.host.locator.get(); }
  const LoadedModule& Module() const { return m_host.module; }

  zym::intrusive_ptr<zym::IObjectFactory> FactoryOf(std::uint32_t classId) const {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    EXPECT_EQ(Module().getObjectFactory(Locator(), classId, factory.Ref()), zym::ZYM_OK);
    return factory;
  }

  zym::intrusive_ptr<zym::IObject> ObjectOf(std::uint32_t classId) const {
    const SettingsCreationRecord record{
        .base = {.locator = Locator()}, .tracer = nullptr, .settings = nullptr};
    zym::IObject* object = nullptr;
    EXPECT_EQ(Module().createObject(classId, &record.base, &object), zym::ZYM_OK);
    return zym::intrusive_ptr<zym::IObject>::Attach(object);
  }

  ModuleHost m_host;
};

TEST(LoadedModuleAlone, MayBeUnloadedRightAfterItWasLoaded) {
  const LoadedModule module;
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
}

TEST(LoadedModuleAlone, LoadingStartsNoThreadAndOpensNothing) {
  const std::size_t threads = ThreadCount();
  const auto descriptors = OpenDescriptors();
  const LoadedModule module;
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(LoadedModuleAlone, AFactoryPinsItUntilItsLastRelease) {
  const LoadedModule module;
  FakeHost host;
  zym::IObjectFactory* factory = nullptr;
  ASSERT_EQ(module.getObjectFactory(host.locator.get(), qor::class_ids::kProcParser, &factory), zym::ZYM_OK);
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_FALSE);
  EXPECT_EQ(factory->AddRef(), 2U);
  EXPECT_EQ(factory->Release(), 1U);
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_FALSE);
  EXPECT_EQ(factory->Release(), 0U);
  EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
}

TEST(LoadedModuleAlone, EachCallMakesAFactoryOfItsOwn) {
  const LoadedModule module;
  FakeHost host;
  zym::intrusive_ptr<zym::IObjectFactory> first;
  zym::intrusive_ptr<zym::IObjectFactory> second;
  ASSERT_EQ(module.getObjectFactory(host.locator.get(), qor::class_ids::kProcParser, first.Ref()),
            zym::ZYM_OK);
  ASSERT_EQ(module.getObjectFactory(host.locator.get(), qor::class_ids::kProcParser, second.Ref()),
            zym::ZYM_OK);
  EXPECT_NE(first.get(), second.get());
}

// The two entries tell an unknown class by two codes. That is meant.
TEST_F(ModuleEntries, AnUnknownClassHasTwoCodes) {
  int sentinel = 0;
  auto* factory = reinterpret_cast<zym::IObjectFactory*>(&sentinel);
  EXPECT_EQ(static_cast<std::uint32_t>(Module().getObjectFactory(Locator(), kUnknownClass, &factory)),
            0x80000043U);
  EXPECT_EQ(factory, nullptr);
  auto* const untouched = reinterpret_cast<zym::IObject*>(&sentinel);
  zym::IObject* object = untouched;
  const CreationRecord record{.locator = Locator()};
  EXPECT_EQ(static_cast<std::uint32_t>(Module().createObject(kUnknownClass, &record, &object)), 0x80000100U);
  EXPECT_EQ(object, untouched);
}

TEST_F(ModuleEntries, AClassOfTheOtherEntryIsUnknown) {
  for (const CreatedClass& row : kCreatedClasses) {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    EXPECT_EQ(Module().getObjectFactory(Locator(), row.classId, factory.Ref()), zym::ZYM_E_NOT_IMPLEMENTED)
        << row.name;
  }
  for (const FactoryClass& row : kFactoryClasses) {
    const CreationRecord record{.locator = Locator()};
    zym::IObject* object = nullptr;
    EXPECT_EQ(Module().createObject(row.classId, &record, &object), zym::ZYM_E_CLASS_NOT_FOUND) << row.name;
  }
}

using ModuleEntriesDeathTest = ModuleEntries;

TEST_F(ModuleEntriesDeathTest, TheTripWireTerminatesTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const CreationRecord record{.locator = Locator()};
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  zym::IObject* object = nullptr;
  EXPECT_EXIT(static_cast<void>(Module().getObjectFactory(Locator(), 0xbad1bad1, factory.Ref())),
              testing::KilledBySignal(SIGABRT), "terminate called without an active exception");
  EXPECT_EXIT(static_cast<void>(Module().createObject(0xbad1bad1, &record, &object)),
              testing::KilledBySignal(SIGABRT), "terminate called without an active exception");
}

TEST_F(ModuleEntries, EachFactoryMakesItsClassByEachInterface) {
  for (const FactoryClass& row : kFactoryClasses) {
    const auto factory = FactoryOf(row.classId);
    void* primary = nullptr;
    ASSERT_EQ(factory->CreateInstance(Locator(), row.iids[0], &primary), zym::ZYM_OK) << row.name;
    const auto object = zym::intrusive_ptr<zym::IObject>::Attach(static_cast<zym::IObject*>(primary));
    EXPECT_EQ(object->AddRef(), 2U) << "one reference, and this one";
    object->Release();
    for (const zym::iid_t iid : row.iids) {
      void* found = nullptr;
      ASSERT_EQ(factory->CreateInstance(Locator(), iid, &found), zym::ZYM_OK) << row.name << " " << iid;
      static_cast<zym::IObject*>(found)->Release();
      ASSERT_EQ(object->QueryInterface(iid, &found), zym::ZYM_OK) << row.name << " " << iid;
      static_cast<zym::IObject*>(found)->Release();
    }
    void* zero = nullptr;
    ASSERT_EQ(factory->CreateInstance(Locator(), 0, &zero), zym::ZYM_OK) << row.name;
    static_cast<zym::IObject*>(zero)->Release();
  }
}

TEST_F(ModuleEntries, IdZeroGivesThePrimaryInterfaceOfEveryObjectWithOneMoreReference) {
  std::vector<std::pair<zym::intrusive_ptr<zym::IObject>, zym::iid_t>> objects;
  for (const FactoryClass& row : kFactoryClasses) {
    const auto factory = FactoryOf(row.classId);
    zym::intrusive_ptr<zym::IObject> object;
    ASSERT_EQ(zym::CreateInstance(factory.get(), Locator(), object.Ref()), zym::ZYM_OK);
    objects.emplace_back(object, row.iids[0]);
    objects.emplace_back(zym::intrusive_ptr<zym::IObject>(factory.get()), zym::IObjectFactory::kIid);
  }
  for (const CreatedClass& row : kCreatedClasses) objects.emplace_back(ObjectOf(row.classId), row.iids[0]);
  for (const auto& [object, primaryIid] : objects) {
    const std::uint32_t before = object->AddRef();
    void* zero = nullptr;
    ASSERT_EQ(object->QueryInterface(0, &zero), zym::ZYM_OK) << primaryIid;
    EXPECT_EQ(object->AddRef(), before + 2) << primaryIid;
    void* primary = nullptr;
    ASSERT_EQ(object->QueryInterface(primaryIid, &primary), zym::ZYM_OK) << primaryIid;
    EXPECT_EQ(zero, primary) << primaryIid;
    EXPECT_EQ(zero, object.get()) << primaryIid;
    for (int i = 0; i < 4; ++i) object->Release();
  }
}

TEST_F(ModuleEntries, EachCreatedClassHasItsInterfaces) {
  for (const CreatedClass& row : kCreatedClasses) {
    const auto object = ObjectOf(row.classId);
    EXPECT_EQ(object->AddRef(), 2U) << row.name;
    object->Release();
    for (const zym::iid_t iid : row.iids) {
      void* found = nullptr;
      ASSERT_EQ(object->QueryInterface(iid, &found), zym::ZYM_OK) << row.name << " " << iid;
      static_cast<zym::IObject*>(found)->Release();
    }
  }
}

TEST_F(ModuleEntries, AnUnknownInterfaceIsNulledByMadeObjectsAndLeftAloneByCreatedOnes) {
  int sentinel = 0;
  for (const FactoryClass& row : kFactoryClasses) {
    const auto factory = FactoryOf(row.classId);
    void* out = &sentinel;
    EXPECT_EQ(factory->QueryInterface(0x12345678, &out), zym::ZYM_E_NO_INTERFACE) << row.name;
    EXPECT_EQ(out, nullptr) << row.name;
    zym::intrusive_ptr<zym::IObject> object;
    ASSERT_EQ(zym::CreateInstance(factory.get(), Locator(), object.Ref()), zym::ZYM_OK);
    out = &sentinel;
    EXPECT_EQ(object->QueryInterface(0x12345678, &out), zym::ZYM_E_NO_INTERFACE) << row.name;
    EXPECT_EQ(out, nullptr) << row.name;
  }
  for (const CreatedClass& row : kCreatedClasses) {
    const auto object = ObjectOf(row.classId);
    void* out = &sentinel;
    EXPECT_EQ(object->QueryInterface(0x12345678, &out), zym::ZYM_E_NO_INTERFACE) << row.name;
    EXPECT_EQ(out, &sentinel) << row.name;
  }
}

TEST(LoadedModuleAlone, AWrongInterfaceDestroysTheNewObjectAgain) {
  const LoadedModule module;
  FakeHost host;
  for (const FactoryClass& row : kFactoryClasses) {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    ASSERT_EQ(module.getObjectFactory(host.locator.get(), row.classId, factory.Ref()), zym::ZYM_OK);
    int sentinel = 0;
    void* out = &sentinel;
    EXPECT_EQ(static_cast<std::uint32_t>(factory->CreateInstance(host.locator.get(), 0x12345678, &out)),
              0x80000001U)
        << row.name;
    EXPECT_EQ(out, nullptr) << row.name;
    EXPECT_EQ(host.allocator->Live(), 0) << row.name;
    factory.Reset();
    EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK) << row.name;
  }
}

TEST(LoadedModuleAlone, AMadeObjectLivesInTheHostsMemoryAndOutlivesItsFactory) {
  const LoadedModule module;
  FakeHost host;
  for (const FactoryClass& row : kFactoryClasses) {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    ASSERT_EQ(module.getObjectFactory(host.locator.get(), row.classId, factory.Ref()), zym::ZYM_OK);
    EXPECT_EQ(host.allocator->Live(), 0) << "a factory doesn't";
    zym::intrusive_ptr<zym::IObject> object;
    ASSERT_EQ(zym::CreateInstance(factory.get(), host.locator.get(), object.Ref()), zym::ZYM_OK);
    EXPECT_EQ(host.allocator->Live(), 1) << row.name;
    factory.Reset();
    EXPECT_EQ(module.canUnloadModule(), zym::ZYM_FALSE);
    object.Reset();
    EXPECT_EQ(host.allocator->Live(), 0) << row.name;
    EXPECT_EQ(module.canUnloadModule(), zym::ZYM_OK);
  }
}

// The memory goes back through the allocator that it came from, though the host has let go of it before.
TEST(LoadedModuleAlone, AMadeObjectKeepsItsAllocatorUntilItsMemoryIsBack) {
  class Allocator : public CountingAllocator {
   public:
    explicit Allocator(std::int64_t& atTheEnd) : m_atTheEnd(atTheEnd) {}
    ~Allocator() { m_atTheEnd = Live(); }

   private:
    std::int64_t& m_atTheEnd;
  };
  const LoadedModule module;
  for (const FactoryClass& row : kFactoryClasses) {
    std::int64_t atTheEnd = -1;
    zym::intrusive_ptr<zym::IObject> object;
    {
      FakeHost host;
      host.locator->Add<zym::IAllocator>(zym::CreateObject<Allocator>(atTheEnd));
      zym::intrusive_ptr<zym::IObjectFactory> factory;
      ASSERT_EQ(module.getObjectFactory(host.locator.get(), row.classId, factory.Ref()), zym::ZYM_OK);
      ASSERT_EQ(zym::CreateInstance(factory.get(), host.locator.get(), object.Ref()), zym::ZYM_OK);
    }
    EXPECT_EQ(atTheEnd, -1) << row.name;
    object.Reset();
    EXPECT_EQ(atTheEnd, 0) << row.name;
  }
}

TEST(LoadedModuleAlone, WithNoMemoryLeftAFactorySaysSo) {
  const LoadedModule module;
  FakeHost host;
  for (const FactoryClass& row : kFactoryClasses) {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    ASSERT_EQ(module.getObjectFactory(host.locator.get(), row.classId, factory.Ref()), zym::ZYM_OK);
    host.allocator->FailFrom(0);
    void* out = nullptr;
    EXPECT_EQ(factory->CreateInstance(host.locator.get(), 0, &out), zym::ZYM_E_OUT_OF_MEMORY) << row.name;
    EXPECT_TRUE(host.tracer->Has(300, "Exception during object construction: ")) << row.name;
    host.allocator->NeverFail();
    host.tracer->Clear();
  }
  EXPECT_EQ(host.allocator->Live(), 0);
}

TEST_F(ModuleEntries, TheSettingsSubscriptionNeedsNothingButATracer) {
  qor::process_manager::InterceptorSettings settings;
  settings.excluded.emplace_back("/mnt/*");
  const SettingsCreationRecord record{
      .base = {.locator = nullptr}, .tracer = m_host.host.tracer.get(), .settings = &settings};
  zym::IObject* object = nullptr;
  ASSERT_EQ(Module().createObject(qor::class_ids::kInterceptorSettingsSubscription, &record.base, &object),
            zym::ZYM_OK);
  const auto created = zym::intrusive_ptr<zym::IObject>::Attach(object);
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(created, holder.Ref()), zym::ZYM_OK);
  qor::process_manager::InterceptorSettings out;
  EXPECT_EQ(holder->GetSettings(out), zym::ZYM_OK);
  ASSERT_EQ(out.excluded.size(), 1U);
  EXPECT_EQ(out.excluded[0], "/mnt/*");
}

TEST_F(ModuleEntries, TheFacadeSaysWhichServiceItMisses) {
  m_host.host.locator->FailWith(0x90a67124, zym::ZYM_E_NOT_FOUND);
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor2> interceptor;
  EXPECT_EQ(m_host.CreateInterceptor(interceptor), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(
      m_host.host.tracer->Has(300, "Cannot get qor::process_manager::IInterceptorSettingsSubscription"));
  EXPECT_FALSE(m_host.host.tracer->Has("Exception during object construction")) << "a factory says that";
}

}  // namespace
