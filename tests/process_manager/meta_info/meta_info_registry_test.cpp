#include "process_manager/meta_info/meta_info_registry.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "process_manager/interceptor_settings.h"
#include "process_manager/meta_info/meta_info_descriptor.h"
#include "support/fake_services.h"
#include "zym/generic_object_factory.h"
#include "zym/module_counter.h"

namespace {

using qor::process_manager::InterceptorSettings;
using Registry = qor::process_manager::MetaInfoDescriptorsNamespace::TypeDescriptorStaticRegistry;

constexpr std::uint32_t kSettingsId = 0x50058721;

class MetaInfoRegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    const auto factory = zym::intrusive_ptr<zym::IObjectFactory>::Attach(new zym::Factory<Registry>());
    ASSERT_EQ(zym::CreateInstance(factory.get(), m_host.locator.get(), m_registry.Ref()), zym::ZYM_OK);
  }
  void TearDown() override {
    m_registry.Reset();
    EXPECT_EQ(m_host.allocator->Live(), 0);
  }

  const zym::ISerObjDescriptor* Settings() {
    const zym::ISerObjDescriptor* descriptor = nullptr;
    EXPECT_EQ(m_registry->GetDescriptor(kSettingsId, &descriptor), zym::ZYM_OK);
    return descriptor;
  }

  test_support::FakeHost m_host;
  zym::intrusive_ptr<zym::IMetaInfoProvider> m_registry;
};

TEST_F(MetaInfoRegistryTest, ListsItsOneClass) {
  zym::types::vector_t<std::uint32_t> ids{7};
  EXPECT_EQ(m_registry->GetClassIds(ids), zym::ZYM_OK);
  EXPECT_EQ(std::vector<std::uint32_t>(ids.begin(), ids.end()), (std::vector<std::uint32_t>{7, kSettingsId}))
      << "appended";
}

TEST_F(MetaInfoRegistryTest, AListGrowsByDoublingFromFour) {
  zym::types::vector_t<std::uint32_t> ids;
  m_registry->GetClassIds(ids);
  EXPECT_EQ(ids.capacity(), 4U);
  while (ids.size() < ids.capacity()) ids.push_back(0);
  m_registry->GetClassIds(ids);
  EXPECT_EQ(ids.capacity(), 8U);
}

TEST_F(MetaInfoRegistryTest, AListGrowsThroughItsOwnAllocator) {
  const auto allocator = zym::CreateObject<test_support::CountingAllocator>();
  zym::types::vector_t<std::uint32_t> ids{
      zym::types::vector_t<std::uint32_t>::allocator_type(allocator.get())};
  EXPECT_EQ(m_registry->GetClassIds(ids), zym::ZYM_OK);
  EXPECT_EQ(allocator->Live(), 1);
}

TEST_F(MetaInfoRegistryTest, AListThatCantGrowIsOutOfMemory) {
  const auto allocator = zym::CreateObject<test_support::CountingAllocator>();
  allocator->FailFrom(0);
  zym::types::vector_t<std::uint32_t> ids{
      zym::types::vector_t<std::uint32_t>::allocator_type(allocator.get())};
  EXPECT_EQ(m_registry->GetClassIds(ids), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_TRUE(ids.empty());
}

TEST_F(MetaInfoRegistryTest, KnowsTheSettingsAndNothingElse) {
  for (const std::uint32_t id : {0U, 1U, kSettingsId - 1, kSettingsId + 1, 0xffffffffU}) {
    const zym::ISerObjDescriptor* descriptor = nullptr;
    EXPECT_EQ(m_registry->GetDescriptor(id, &descriptor), zym::ZYM_E_NOT_FOUND) << id;
    EXPECT_EQ(m_registry->GetDescriptorById(id, &descriptor), zym::ZYM_E_NOT_FOUND) << id;
    EXPECT_EQ(descriptor, nullptr);
  }
  const zym::ISerObjDescriptor* byId = nullptr;
  EXPECT_EQ(m_registry->GetDescriptorById(kSettingsId, &byId), zym::ZYM_OK);
  EXPECT_EQ(byId, Settings());
}

TEST_F(MetaInfoRegistryTest, WhatIsReservedIsNotImplemented) {
  EXPECT_EQ(m_registry->Reserved3(), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(m_registry->Reserved4(), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(m_registry->Reserved6(), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(m_registry->Reserved7(), zym::ZYM_E_NOT_IMPLEMENTED);
}

TEST_F(MetaInfoRegistryTest, BothInterfacesGiveEachOtherAndTheProviderIsThePrimaryOne) {
  zym::intrusive_ptr<zym::IStructMetaInfoRegistry> structs;
  ASSERT_EQ(zym::QueryInterface(m_registry, structs.Ref()), zym::ZYM_OK);
  for (const zym::iid_t iid : {zym::iid_t{0}, zym::IMetaInfoProvider::kIid}) {
    void* found = nullptr;
    ASSERT_EQ(structs->QueryInterface(iid, &found), zym::ZYM_OK);
    EXPECT_EQ(found, m_registry.get());
    m_registry->Release();
  }
  const zym::ISerObjDescriptor* descriptor = nullptr;
  EXPECT_EQ(structs->GetDescriptor(kSettingsId, &descriptor), zym::ZYM_OK);
  EXPECT_EQ(descriptor, Settings());
  EXPECT_EQ(structs->GetDescriptor(1, &descriptor), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(structs->Reserved2(), zym::ZYM_E_NOT_IMPLEMENTED);
  EXPECT_EQ(structs->Reserved3(), zym::ZYM_E_NOT_IMPLEMENTED);
}

TEST_F(MetaInfoRegistryTest, AnUnknownInterfaceIsRefusedWithNull) {
  void* found = this;
  EXPECT_EQ(m_registry->QueryInterface(0x12345678, &found), zym::ZYM_E_NO_INTERFACE);
  EXPECT_EQ(found, nullptr);
}

TEST_F(MetaInfoRegistryTest, TheSettingsAreDescribed) {
  const zym::ISerObjDescriptor* const settings = Settings();
  EXPECT_EQ(settings->GetClassId(), kSettingsId);
  EXPECT_STREQ(settings->GetName(), "InterceptorSettings");
  EXPECT_EQ(settings->GetSize(), sizeof(zym::types::vector_t<qor::NativePath>));
  ASSERT_EQ(settings->GetFields().size(), 1U);
  const zym::SerField& field = *settings->GetFields().begin();
  EXPECT_STREQ(field.name, "excluded");
  InterceptorSettings object;
  EXPECT_EQ(field.address(&object), &object.excluded);
}

TEST_F(MetaInfoRegistryTest, TheListIsReachedThroughItsHelper) {
  const zym::SerField& field = *Settings()->GetFields().begin();
  const zym::ISerVectorHelper& helper = *field.vector;
  InterceptorSettings object;
  void* const list = field.address(&object);
  EXPECT_EQ(helper.GetCount(list), 0U);
  EXPECT_EQ(helper.GetElement(list, 0), nullptr);
  EXPECT_EQ(helper.Resize(list, 2), zym::ZYM_OK);
  *static_cast<qor::NativePath*>(helper.GetElement(list, 1)) = "/b";
  EXPECT_EQ(helper.GetCount(list), 2U);
  EXPECT_EQ(object.excluded[0], "");
  EXPECT_EQ(object.excluded[1], "/b");
  EXPECT_EQ(helper.GetElement(list, 2), nullptr) << "behind the last one";
  EXPECT_EQ(helper.Resize(list, static_cast<std::size_t>(-1)), zym::ZYM_E_INVALID_SIZE);
  EXPECT_EQ(helper.GetCount(list), 2U);
  helper.Clear(list);
  EXPECT_EQ(helper.GetCount(list), 0U);
}

// --- the descriptor's operations, on settings ---

struct RawMemory {
  alignas(InterceptorSettings) unsigned char bytes[sizeof(InterceptorSettings)];
  InterceptorSettings* get() { return std::launder(reinterpret_cast<InterceptorSettings*>(bytes)); }
};

TEST_F(MetaInfoRegistryTest, ConstructsTheDefaultAndACopy) {
  const zym::ISerObjDescriptor* const descriptor = Settings();
  RawMemory memory;
  ASSERT_EQ(descriptor->Construct(memory.bytes, nullptr), zym::ZYM_OK);
  EXPECT_TRUE(memory.get()->excluded.empty());
  descriptor->Destroy(memory.bytes);
  InterceptorSettings source;
  source.excluded.emplace_back("/a");
  ASSERT_EQ(descriptor->Construct(memory.bytes, &source), zym::ZYM_OK);
  EXPECT_EQ(memory.get()->excluded, source.excluded);
  descriptor->Destroy(memory.bytes);
}

TEST_F(MetaInfoRegistryTest, CreatesInTheGivenAllocatorsMemory) {
  const zym::ISerObjDescriptor* const descriptor = Settings();
  InterceptorSettings source;
  source.excluded.emplace_back("/a");
  const auto allocator = zym::CreateObject<test_support::CountingAllocator>();
  auto* const object = static_cast<InterceptorSettings*>(descriptor->Create(&source, allocator.get()));
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(allocator->Live(), 1);
  EXPECT_EQ(object->excluded, source.excluded);
  descriptor->Destroy(object);
  allocator->Free(object);
  allocator->FailFrom(0);
  EXPECT_EQ(descriptor->Create(&source, allocator.get()), nullptr);
  EXPECT_EQ(allocator->Live(), 0);
}

TEST_F(MetaInfoRegistryTest, AssignsACopy) {
  InterceptorSettings source;
  source.excluded.emplace_back("/a");
  InterceptorSettings target;
  target.excluded.emplace_back("/old");
  EXPECT_EQ(Settings()->Assign(&source, &target), zym::ZYM_OK);
  EXPECT_EQ(target.excluded, source.excluded);
  EXPECT_EQ(source.excluded.size(), 1U);
}

// A list is handed over as it lies in memory, with the allocator that it came from.
TEST_F(MetaInfoRegistryTest, MovesAListWithItsAllocator) {
  const auto allocator = zym::CreateObject<test_support::CountingAllocator>();
  {
    InterceptorSettings source;
    source.excluded = zym::types::vector_t<qor::NativePath>(
        zym::types::vector_t<qor::NativePath>::allocator_type(allocator.get()));
    source.excluded.emplace_back("/a");
    const qor::NativePath* const first = source.excluded.data();
    InterceptorSettings target;
    target.excluded.emplace_back("/old");
    EXPECT_EQ(Settings()->Move(&source, &target), zym::ZYM_OK);
    EXPECT_EQ(target.excluded.data(), first);
    EXPECT_EQ(target.excluded.get_allocator().source().get(), allocator.get());
    EXPECT_TRUE(source.excluded.empty());
    EXPECT_EQ(source.excluded.capacity(), 0U);
    EXPECT_EQ(source.excluded.get_allocator().source().get(), nullptr);
  }
  EXPECT_EQ(allocator->Live(), 0);
}

// --- the descriptors of the two small records ---

template <class T>
class FieldDescriptor : public testing::Test {
 protected:
  const zym::SerObjDescriptorImpl<T> m_descriptor{1, "field", {}};
};
using Fields = testing::Types<qor::RuntimeField, qor::AdditionalField>;
TYPED_TEST_SUITE(FieldDescriptor, Fields);

TYPED_TEST(FieldDescriptor, TheDefaultHasNoIdAndNoValue) {
  const auto allocator = zym::CreateObject<test_support::CountingAllocator>();
  auto* const field = static_cast<TypeParam*>(this->m_descriptor.Create(nullptr, allocator.get()));
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(field->id, 0xffffffffU);
  EXPECT_EQ(field->value.GetTag(), 0U);
  this->m_descriptor.Destroy(field);
  allocator->Free(field);
}

TYPED_TEST(FieldDescriptor, AMoveCopiesTheIdAndLeavesTheSourceWithNoValue) {
  TypeParam source{.id = 3, .value = zym::types::variant_t(zym::types::string_t("text"))};
  TypeParam target;
  EXPECT_EQ(this->m_descriptor.Move(&source, &target), zym::ZYM_OK);
  EXPECT_EQ(target.id, 3U);
  EXPECT_EQ(target.value.GetTag(), 14U);
  EXPECT_EQ(source.id, 3U);
  EXPECT_EQ(source.value.GetTag(), 0U);
}

TYPED_TEST(FieldDescriptor, AMoveToItselfChangesNothing) {
  TypeParam field{.id = 3, .value = zym::types::variant_t(std::uint32_t{7})};
  EXPECT_EQ(this->m_descriptor.Move(&field, &field), zym::ZYM_OK);
  EXPECT_EQ(field.id, 3U);
  ASSERT_NE(field.value.template If<std::uint32_t>(), nullptr);
  EXPECT_EQ(*field.value.template If<std::uint32_t>(), 7U);
}

TYPED_TEST(FieldDescriptor, AnObjectInAFieldIsReleasedWithIt) {
  const auto object = zym::CreateObject<test_support::CountingAllocator>();
  {
    TypeParam field{.id = 3, .value = zym::types::variant_t(zym::objptr_t<zym::IObject>(object.get()))};
    EXPECT_EQ(field.value.GetTag(), 13U);
    TypeParam copy;
    EXPECT_EQ(this->m_descriptor.Assign(&field, &copy), zym::ZYM_OK);
    EXPECT_EQ(object->AddRef(), 4U);
    object->Release();
  }
  EXPECT_EQ(object->AddRef(), 2U);
  object->Release();
}

TYPED_TEST(FieldDescriptor, EachOwnedValueHasTheTagOfItsKind) {
  using namespace zym::types;
  EXPECT_EQ(variant_t(string_t("a")).GetTag(), 14U);
  EXPECT_EQ(variant_t(string16_t(u"a")).GetTag(), 15U);
  EXPECT_EQ(variant_t(buffer_t{1}).GetTag(), 17U);
  EXPECT_EQ(variant_t(variant_t::vector_type(2)).GetTag(), 0x1007U);
}

// --- the class ---

// Once for the object's memory, and once for the object's own use.
TEST(MetaInfoRegistry, NeedsTheAllocatorTwice) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    test_support::FakeHost host;
    const auto factory = zym::intrusive_ptr<zym::IObjectFactory>::Attach(new zym::Factory<Registry>());
    const std::uint32_t references = host.allocator->AddRef();
    zym::intrusive_ptr<zym::IMetaInfoProvider> registry;
    ASSERT_EQ(zym::CreateInstance(factory.get(), host.locator.get(), registry.Ref()), zym::ZYM_OK);
    EXPECT_EQ(host.allocator->AddRef(), references + 3);
    host.allocator->Release();
    host.allocator->Release();
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

TEST(MetaInfoRegistry, WithoutAnAllocatorThereIsNone) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    test_support::FakeHost host;
    host.locator->FailWith(zym::IAllocator::kIid, zym::ZYM_E_ACCESS_DENIED);
    const auto factory = zym::intrusive_ptr<zym::IObjectFactory>::Attach(new zym::Factory<Registry>());
    void* object = nullptr;
    EXPECT_EQ(factory->CreateInstance(host.locator.get(), 0, &object), zym::ZYM_E_ACCESS_DENIED);
    EXPECT_EQ(object, nullptr);
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

}  // namespace
