#include "zym/object.h"

#include <gtest/gtest.h>

#include "support/fake_services.h"
#include "zym/generic_object_factory.h"

namespace zym {
namespace {

struct IFirst : IObject {
  static constexpr iid_t kIid = 0x11111111;
  virtual int First() = 0;

 protected:
  ~IFirst() = default;
};

struct IFirst2 : IFirst {
  static constexpr iid_t kIid = 0x22222222;
  virtual int Second() = 0;

 protected:
  ~IFirst2() = default;
};

struct IOther : IObject {
  static constexpr iid_t kIid = 0x33333333;
  virtual int Other() = 0;

 protected:
  ~IOther() = default;
};

// What the test class is told to do, and what it did.
struct Script {
  bool throwInConstructor = false;
  result_t finalConstruct = ZYM_OK;
  int finalReleases = 0;
  int destructions = 0;
};
Script g_script;

class Thing : public object::Ifaces<IFirst, IFirst2, IOther>, public NonCopyable {
 public:
  explicit Thing(IServiceLocator*) {
    if (g_script.throwInConstructor) throw std::invalid_argument("as the test asked");
  }
  ~Thing() { ++g_script.destructions; }

  result_t FinalConstruct() { return g_script.finalConstruct; }
  void FinalRelease() { ++g_script.finalReleases; }

  int First() override { return 1; }
  int Second() override { return 2; }
  int Other() override { return 3; }
};

class NeedsTracer : public object::Ifaces<>, public ServiceProvider<IServiceLocator, ITracer> {
 public:
  explicit NeedsTracer(IServiceLocator* locator) : ServiceProvider(locator) {}
};

// Made by an owner that knows what it is made of beside the locator.
class Numbered : public Thing {
 public:
  Numbered(IServiceLocator* locator, int number) : Thing(locator), m_number(number) {}
  int Other() override { return m_number; }

 private:
  const int m_number;
};

class ObjectTest : public testing::Test {
 protected:
  ObjectTest() { g_script = {}; }
  ~ObjectTest() override { EXPECT_EQ(m_host.allocator->Live(), 0); }

  static std::int32_t Objects() { return ModuleObjectCounter::Value(); }

  template <class T>
  static intrusive_ptr<IObjectFactory> MakeFactory() {
    return intrusive_ptr<IObjectFactory>::Attach(new Factory<T>());
  }

  test_support::FakeHost m_host;
};

TEST_F(ObjectTest, QueryInterfaceOfZeroGivesThePrimaryInterfaceWithOneMoreReference) {
  const auto thing = CreateObject<Thing>(nullptr);
  void* primary = nullptr;
  ASSERT_EQ(thing->QueryInterface(0, &primary), ZYM_OK);
  EXPECT_EQ(primary, static_cast<IFirst*>(thing.get()));
  EXPECT_EQ(thing->AddRef(), 3U);
  EXPECT_EQ(thing->Release(), 2U);
  EXPECT_EQ(static_cast<IObject*>(primary)->Release(), 1U);
}

TEST_F(ObjectTest, AnInterfaceThatExtendsAnotherSharesItsPointerAndASecondHasItsOwn) {
  const auto thing = CreateObject<Thing>(nullptr);
  void* first = nullptr;
  void* first2 = nullptr;
  void* other = nullptr;
  ASSERT_EQ(thing->QueryInterface(IFirst::kIid, &first), ZYM_OK);
  ASSERT_EQ(thing->QueryInterface(IFirst2::kIid, &first2), ZYM_OK);
  ASSERT_EQ(thing->QueryInterface(IOther::kIid, &other), ZYM_OK);
  EXPECT_EQ(first, first2);
  EXPECT_NE(first, other);
  EXPECT_EQ(static_cast<IFirst2*>(first2)->Second(), 2);
  EXPECT_EQ(static_cast<IOther*>(other)->Other(), 3);
  for (int i = 0; i < 3; ++i) thing->Release();
}

TEST_F(ObjectTest, AnInternalObjectLeavesOutAloneOnAnUnknownInterface) {
  const auto thing = CreateObject<Thing>(nullptr);
  int mark = 0;
  void* out = &mark;
  EXPECT_EQ(thing->QueryInterface(0xdeadbeef, &out), ZYM_E_NO_INTERFACE);
  EXPECT_EQ(out, &mark);
}

TEST_F(ObjectTest, AFactoryAndWhatItMakesWriteNullOnAnUnknownInterface) {
  const auto factory = MakeFactory<Thing>();
  int mark = 0;
  void* out = &mark;
  EXPECT_EQ(factory->QueryInterface(0xdeadbeef, &out), ZYM_E_NO_INTERFACE);
  EXPECT_EQ(out, nullptr);

  intrusive_ptr<IOther> thing;
  ASSERT_EQ(CreateInstance(factory.get(), m_host.locator.get(), thing.Ref()), ZYM_OK);
  out = &mark;
  EXPECT_EQ(thing->QueryInterface(0xdeadbeef, &out), ZYM_E_NO_INTERFACE);
  EXPECT_EQ(out, nullptr);
}

TEST_F(ObjectTest, EachKindOfObjectCountsInTheModuleObjectCounter) {
  const std::int32_t before = Objects();
  {
    const auto internal = CreateObject<Thing>(nullptr);
    EXPECT_EQ(Objects(), before + 1);
    const auto factory = MakeFactory<Thing>();
    EXPECT_EQ(Objects(), before + 2);
    intrusive_ptr<IFirst> made;
    ASSERT_EQ(CreateInstance(factory.get(), m_host.locator.get(), made.Ref()), ZYM_OK);
    EXPECT_EQ(Objects(), before + 3);
    EXPECT_EQ(m_host.allocator->Live(), 1);
  }
  EXPECT_EQ(Objects(), before);
  EXPECT_EQ(g_script.destructions, 2);
  EXPECT_EQ(g_script.finalReleases, 2);
}

TEST_F(ObjectTest, AFactoryIsAskedForTheInterfaceOfThePointer) {
  const auto factory = MakeFactory<Thing>();
  intrusive_ptr<IOther> other;
  ASSERT_EQ(CreateInstance(factory.get(), m_host.locator.get(), other.Ref()), ZYM_OK);
  EXPECT_EQ(other->Other(), 3);
  IOther* untouched = other.get();
  g_script.finalConstruct = ZYM_E_INVALID_STATE;
  EXPECT_EQ(CreateInstance(factory.get(), m_host.locator.get(), &untouched), ZYM_E_INVALID_STATE);
  EXPECT_EQ(untouched, other.get());
}

TEST_F(ObjectTest, CreateInstanceWithAWrongInterfaceDestroysTheObjectAgain) {
  const auto factory = MakeFactory<Thing>();
  const std::int32_t before = Objects();
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0xdeadbeef, &out), ZYM_E_NO_INTERFACE);
  EXPECT_EQ(Objects(), before);
  EXPECT_EQ(g_script.destructions, 1);
}

TEST_F(ObjectTest, AFinalConstructThatFailsGivesItsCodeAfterFinalRelease) {
  const auto factory = MakeFactory<Thing>();
  const std::int32_t before = Objects();
  g_script.finalConstruct = ZYM_E_INVALID_STATE;
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0, &out), ZYM_E_INVALID_STATE);
  EXPECT_EQ(g_script.finalReleases, 1);
  EXPECT_EQ(g_script.destructions, 1);
  EXPECT_EQ(Objects(), before);
}

TEST_F(ObjectTest, AConstructorThatThrowsIsTranslatedAndPutsTheCounterBack) {
  const auto factory = MakeFactory<Thing>();
  const std::int32_t before = Objects();
  g_script.throwInConstructor = true;
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0, &out), ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_host.tracer->Has(trace::kFailure, "Exception during object construction: as the test asked"));
  EXPECT_EQ(Objects(), before);
}

TEST_F(ObjectTest, AnInternalConstructorThatThrowsPutsTheCounterBack) {
  const std::int32_t before = Objects();
  g_script.throwInConstructor = true;
  EXPECT_THROW(static_cast<void>(CreateObject<Thing>(nullptr)), std::invalid_argument);
  EXPECT_EQ(Objects(), before);
}

TEST_F(ObjectTest, AnAllocatorThatIsExhaustedGivesOutOfMemory) {
  const auto factory = MakeFactory<Thing>();
  m_host.allocator->FailFrom(0);
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0, &out), ZYM_E_OUT_OF_MEMORY);
}

TEST_F(ObjectTest, ALocatorWithoutAnAllocatorGivesItsOwnCode) {
  const auto factory = MakeFactory<Thing>();
  m_host.locator->FailWith(IAllocator::kIid, ZYM_E_ACCESS_DENIED);
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0, &out), ZYM_E_ACCESS_DENIED);
}

TEST_F(ObjectTest, AConstructorThatNeedsAMissingServiceGivesTheLocatorsCode) {
  const auto factory = MakeFactory<NeedsTracer>();
  m_host.locator->FailWith(ITracer::kIid, ZYM_E_LOCKED);
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(m_host.locator.get(), 0, &out), ZYM_E_LOCKED);
}

TEST_F(ObjectTest, AnOwnerWithinTheModuleMakesAHostAllocatedObjectWithArgumentsOfItsOwn) {
  intrusive_ptr<Numbered> numbered;
  ASSERT_EQ(CreateInstance(m_host.locator.get(), numbered.Ref(), 42), ZYM_OK);
  EXPECT_EQ(numbered->Other(), 42);
  EXPECT_EQ(m_host.allocator->Live(), 1);
  EXPECT_EQ(numbered->AddRef(), 2U) << "one reference, and this one";
  numbered->Release();
  numbered.Reset();
  EXPECT_EQ(g_script.finalReleases, 1);
  EXPECT_EQ(m_host.allocator->Live(), 0);
}

TEST_F(ObjectTest, AHostAllocatedObjectThatCannotBeMadeLeavesTheOutParameterAlone) {
  const auto other = intrusive_ptr<Numbered>(CreateObject<Numbered>(nullptr, 7));
  Numbered* numbered = other.get();
  const std::int32_t before = Objects();
  g_script.finalConstruct = ZYM_E_INVALID_STATE;
  EXPECT_EQ(CreateInstance(m_host.locator.get(), &numbered, 42), ZYM_E_INVALID_STATE);
  EXPECT_EQ(g_script.finalReleases, 1);
  g_script.throwInConstructor = true;
  EXPECT_EQ(CreateInstance(m_host.locator.get(), &numbered, 42), ZYM_E_INVALID_ARGUMENT);
  EXPECT_TRUE(m_host.tracer->Has(trace::kFailure, "Exception during object construction: as the test asked"));
  m_host.allocator->FailFrom(0);
  EXPECT_EQ(CreateInstance(m_host.locator.get(), &numbered, 42), ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(numbered, other.get());
  EXPECT_EQ(Objects(), before);
}

TEST(IntrusivePtr, CountsCopiesAndMovesNothingTwice) {
  g_script = {};
  const std::int32_t before = ModuleObjectCounter::Value();
  {
    intrusive_ptr<Thing> a = CreateObject<Thing>(nullptr);
    intrusive_ptr<IOther> b = a;
    EXPECT_EQ(a->AddRef(), 3U);
    EXPECT_EQ(a->Release(), 2U);
    const intrusive_ptr<IOther> c = std::move(b);
    EXPECT_FALSE(b);  // NOLINT(bugprone-use-after-move): a moved-from pointer is empty
    EXPECT_EQ(c->Other(), 3);
    a = a;
    EXPECT_EQ(a->First(), 1);
    static_cast<void>(a.Ref());
    EXPECT_FALSE(a);
  }
  EXPECT_EQ(ModuleObjectCounter::Value(), before);
}

}  // namespace
}  // namespace zym
