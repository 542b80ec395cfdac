// Every class of the module, made and released when memory gives out at each of its allocations.
#include <gtest/gtest.h>

#include <vector>

#include "module/memory_faults.h"
#include "support/own_process.h"

namespace {

using namespace test_support;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace class_ids = qor::class_ids;

constexpr std::uint32_t kFactoryClasses[] = {
    class_ids::kTypeDescriptorStaticRegistry,
    class_ids::kProcessManager,
    class_ids::kProcParser,
    class_ids::kLocalProcParser,
    class_ids::kApplicationManager,
    class_ids::kFileNameMapper,
    class_ids::kProcessModuleManager,
    class_ids::kProcessUserLocalizationProvider,
    class_ids::kProcessMemoryFactory,
};
constexpr std::uint32_t kCreatedClasses[] = {
    class_ids::kInterceptor,
    class_ids::kInterceptorSettingsSubscription,
    class_ids::kProcessCache,
};

class EveryFactoryClass : public testing::TestWithParam<std::uint32_t> {};
class EveryCreatedClass : public testing::TestWithParam<std::uint32_t> {};

TEST_P(EveryFactoryClass, IsMadeOrRefusedWhateverAllocationFails) {
  const FaultHost faultHost;
  faultHost.host.startupData->data.localization = u"a language that is too long for a string of its own";
  zym::intrusive_ptr<zym::IObject> first;
  ASSERT_EQ(faultHost.module.Make(GetParam(), faultHost.Locator(), first),
            zym::ZYM_OK);  // the locator notes who was asked
  first.Reset();
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    faultHost.host.tracer->Clear();
    const std::int64_t before = HeapFaults::Live();
    const std::int64_t hostsBefore = faultHost.host.allocator->Live();
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    zym::intrusive_ptr<zym::IObject> object;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    zym::result_t result = faultHost.module.getObjectFactory(faultHost.Locator(), GetParam(), factory.Ref());
    if (result == zym::ZYM_OK) result = zym::CreateInstance(factory.get(), faultHost.Locator(), object.Ref());
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    // One class copies a text when it is otherwise complete.
    const bool wasComplete = GetParam() == class_ids::kProcessUserLocalizationProvider &&
                             faultHost.host.tracer->Has(300, "FinalConstruct: std::bad_alloc");
    EXPECT_EQ(wasComplete ||
                  faultHost.host.tracer->Has(300, "Exception during object construction: std::bad_alloc"),
              faults.Fired());
    EXPECT_EQ(bool(object), !faults.Fired());
    object.Reset();
    factory.Reset();
    faultHost.host.tracer->Clear();
    EXPECT_EQ(faultHost.host.allocator->Live(), hostsBefore);
    EXPECT_EQ(HeapFaults::Live(), before);
    return faults.Fired();
  });
}

INSTANTIATE_TEST_SUITE_P(MemoryFaults, EveryFactoryClass, testing::ValuesIn(kFactoryClasses));

TEST_P(EveryCreatedClass, IsMadeOrRefusedWhateverAllocationFails) {
  const FaultHost faultHost;
  zym::intrusive_ptr<zym::IObject> object;
  ASSERT_EQ(faultHost.CreateObject(GetParam(), object), zym::ZYM_OK);  // what libraries keep for good
  object.Reset();
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    faultHost.host.tracer->Clear();
    const std::int64_t before = HeapFaults::Live();
    const std::size_t threads = ThreadCount();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = faultHost.CreateObject(GetParam(), object);
    faults.End();
    EXPECT_EQ(bool(object), result == zym::ZYM_OK);
    if (faults.Fired()) {
      // A thread that can't be made is an exception of the library that makes it, which has no code.
      EXPECT_TRUE(
          IsOneOf(result, {zym::ZYM_OK, zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_EXCEPTION_WITHOUT_RESULT}))
          << std::hex << result;
      EXPECT_TRUE(result == zym::ZYM_OK || faultHost.host.tracer->Has(300, ""));
    } else {
      EXPECT_EQ(result, zym::ZYM_OK);
    }
    object.Reset();
    faultHost.host.tracer->Clear();
    EXPECT_EQ(ThreadCount(), threads);
    EXPECT_EQ(HeapFaults::Live(), before);
    return faults.Fired();
  });
}

INSTANTIATE_TEST_SUITE_P(MemoryFaults, EveryCreatedClass, testing::ValuesIn(kCreatedClasses));

// What is released needs no memory to go.
TEST(MemoryFaults, EveryObjectEndsWithoutMemory) {
  ExpectNothingIsKept([] {
    const FaultHost faultHost;
    std::vector<zym::intrusive_ptr<zym::IObject>> objects;
    for (const std::uint32_t classId : kCreatedClasses) {
      objects.emplace_back();
      ASSERT_EQ(faultHost.CreateObject(classId, objects.back()), zym::ZYM_OK);
    }
    for (const std::uint32_t classId : kFactoryClasses) {
      zym::intrusive_ptr<zym::IObjectFactory> factory;
      ASSERT_EQ(faultHost.module.getObjectFactory(faultHost.Locator(), classId, factory.Ref()), zym::ZYM_OK);
      objects.emplace_back();
      ASSERT_EQ(zym::CreateInstance(factory.get(), faultHost.Locator(), objects.back().Ref()), zym::ZYM_OK);
    }
    const HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
    for (auto& object : objects) object.Reset();
  });
}

}  // namespace
