// The settings and the meta-information when memory gives out at each allocation of an operation.
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "module/memory_faults.h"

namespace {

using namespace test_support;
using qor::process_manager::InterceptorSettings;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
namespace class_ids = qor::class_ids;

InterceptorSettings Excluding(std::initializer_list<const char*> patterns) {
  InterceptorSettings settings;
  settings.excluded.assign(patterns.begin(), patterns.end());
  return settings;
}

std::vector<std::string> Patterns(const InterceptorSettings& settings) {
  return {settings.excluded.begin(), settings.excluded.end()};
}

class Subscriber : public zym::object::Ifaces<qor::process_manager::IInterceptorSettings> {
 public:
  zym::result_t OnInterceptorSettingsChanged(const InterceptorSettings& settings) override {
    const HostsOwnMemory own;
    last = Patterns(settings);
    ++calls;
    return zym::ZYM_OK;
  }
  std::vector<std::string> last;
  int calls = 0;
};

constexpr const char* kOld = "/mnt/an old pattern that is too long for a string of its own/*";
constexpr const char* kNew = "/mnt/a new pattern that is too long for a string of its own/*";

TEST(MemoryFaults, AChangeOfTheSettingsIsWholeOrNone) {
  const FaultHost faultHost;
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(faultHost.settings, holder.Ref()), zym::ZYM_OK);
  const auto subscriber = zym::CreateObject<Subscriber>();
  ASSERT_EQ(faultHost.settings->Subscribe(subscriber.get()), zym::ZYM_OK);
  const InterceptorSettings before = Excluding({kOld});
  const InterceptorSettings after = Excluding({kNew, kOld, kNew});
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    EXPECT_EQ(holder->SetSettings(before), zym::ZYM_OK);
    faultHost.host.tracer->Clear();
    const int calls = subscriber->calls;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = holder->SetSettings(after);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(faultHost.host.tracer->Has(300, "SetSettings: std::bad_alloc"), faults.Fired());
    EXPECT_EQ(subscriber->calls, faults.Fired() ? calls : calls + 1);
    InterceptorSettings now;
    EXPECT_EQ(holder->GetSettings(now), zym::ZYM_OK);
    EXPECT_EQ(Patterns(now), Patterns(faults.Fired() ? before : after));
    EXPECT_EQ(subscriber->last, Patterns(now));
    return faults.Fired();
  });
  EXPECT_EQ(faultHost.settings->Unsubscribe(subscriber.get()), zym::ZYM_OK);
}

TEST(MemoryFaults, SettingsThatCantBeCopiedOutAreOutOfMemory) {
  const FaultHost faultHost;
  zym::intrusive_ptr<qor::process_manager::IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(faultHost.settings, holder.Ref()), zym::ZYM_OK);
  ASSERT_EQ(holder->SetSettings(Excluding({kOld, kNew})), zym::ZYM_OK);
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    InterceptorSettings out;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = holder->GetSettings(out);
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(out.excluded.size(), faults.Fired() ? 0U : 2U);
    return faults.Fired();
  });
}

TEST(MemoryFaults, ASubscriptionIsMadeWithItsNotificationOrNotAtAll) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    const FaultHost faultHost;
    const auto subscriber = zym::CreateObject<Subscriber>();
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = faultHost.settings->Subscribe(subscriber.get());
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(subscriber->calls, faults.Fired() ? 0 : 1);
    EXPECT_EQ(faultHost.settings->Unsubscribe(subscriber.get()),
              faults.Fired() ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK);
    EXPECT_EQ(subscriber->AddRef(), 2U);
    subscriber->Release();
    return faults.Fired();
  });
}

TEST(MemoryFaults, EachOperationOfADescriptorDoesItsWorkOrSaysThatItCant) {
  const FaultHost faultHost;
  zym::IAllocator* const allocator = faultHost.host.allocator.get();
  zym::intrusive_ptr<zym::IMetaInfoProvider> registry;
  ASSERT_EQ(faultHost.module.Make(class_ids::kTypeDescriptorStaticRegistry, faultHost.Locator(), registry),
            zym::ZYM_OK);
  const zym::ISerObjDescriptor* descriptor = nullptr;
  ASSERT_EQ(registry->GetDescriptor(0x50058721, &descriptor), zym::ZYM_OK);
  const InterceptorSettings source = Excluding({kOld, kNew});
  using Ids = zym::types::vector_t<std::uint32_t>;
  const std::pair<const char*, std::function<zym::result_t()>> operations[] = {
      {"GetClassIds",
       [&] {
         Ids ids{Ids::allocator_type(allocator)};
         return registry->GetClassIds(ids);
       }},
      {"Create",
       [&] {
         void* const object = descriptor->Create(&source, allocator);
         if (object == nullptr) return zym::ZYM_E_OUT_OF_MEMORY;
         descriptor->Destroy(object);
         allocator->Free(object);
         return zym::ZYM_OK;
       }},
      {"Construct",
       [&] {
         alignas(InterceptorSettings) unsigned char memory[sizeof(InterceptorSettings)];
         const zym::result_t result = descriptor->Construct(memory, &source);
         if (result == zym::ZYM_OK) descriptor->Destroy(memory);
         return result;
       }},
      {"Assign",
       [&] {
         InterceptorSettings target;
         return descriptor->Assign(&source, &target);
       }},
      {"Resize",
       [&] {
         InterceptorSettings target;
         const zym::SerField& field = *descriptor->GetFields().begin();
         return field.vector->Resize(field.address(&target), 3);
       }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    AtEachAllocation([&operation = operation, &faultHost](Shortage shortage) {
      SCOPED_TRACE(shortage);
      const std::int64_t before = HeapFaults::Live();
      const std::int64_t hostsBefore = faultHost.host.allocator->Live();
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation();
      faults.End();
      EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
      EXPECT_EQ(HeapFaults::Live(), before);
      EXPECT_EQ(faultHost.host.allocator->Live(), hostsBefore);
      return faults.Fired();
    });
  }
}

}  // namespace
