#include "host_kit/service_locator.h"

#include <gtest/gtest.h>

#include "host_kit/malloc_allocator.h"
#include "host_kit/null_metrics.h"
#include "support/object_count.h"
#include "zym/service_provider.h"

namespace {

using host_kit::MallocAllocator;
using zym::telemetry::IMetricSource;
using zym::telemetry::IMetricsRegistry;

class ServiceLocatorTest : public testing::Test {
 protected:
  template <class I>
  zym::intrusive_ptr<I> Find() {
    zym::intrusive_ptr<I> service;
    m_result = zym::GetInterface(m_locator.get(), service.Ref());
    return service;
  }

  test_support::ObjectCount m_objects;
  zym::intrusive_ptr<host_kit::ServiceLocator> m_locator = zym::CreateObject<host_kit::ServiceLocator>();
  zym::result_t m_result = zym::ZYM_OK;
};

TEST_F(ServiceLocatorTest, AServiceIsFoundByTheIdOfItsInterface) {
  const auto allocator = zym::CreateObject<MallocAllocator>();
  m_locator->Add<zym::IAllocator>(allocator);
  EXPECT_EQ(Find<zym::IAllocator>().get(), allocator.get());
  EXPECT_TRUE(m_locator->Has(zym::IAllocator::kIid));
}

TEST_F(ServiceLocatorTest, AServiceThatNobodyOfferedIsNotFound) {
  EXPECT_EQ(Find<zym::IAllocator>().get(), nullptr);
  EXPECT_EQ(m_result, zym::ZYM_E_NO_INTERFACE);
  EXPECT_FALSE(m_locator->Has(zym::IAllocator::kIid));
}

TEST_F(ServiceLocatorTest, AServiceIsFoundUnderNoOtherKey) {
  m_locator->Add<zym::IAllocator>(zym::CreateObject<MallocAllocator>());
  void* out = nullptr;
  EXPECT_EQ(m_locator->GetInterface(zym::IAllocator::kIid, 1, &out), zym::ZYM_E_NO_INTERFACE);
}

TEST_F(ServiceLocatorTest, OneObjectCanBeTwoServices) {
  const auto metrics = zym::CreateObject<host_kit::NullMetrics>();
  m_locator->Add<IMetricSource>(metrics);
  m_locator->Add<IMetricsRegistry>(metrics);
  EXPECT_EQ(Find<IMetricSource>().get(), static_cast<IMetricSource*>(metrics.get()));
  EXPECT_EQ(Find<IMetricsRegistry>().get(), static_cast<IMetricsRegistry*>(metrics.get()));
}

TEST_F(ServiceLocatorTest, ALaterServiceTakesThePlaceOfAnEarlierOne) {
  m_locator->Add<zym::IAllocator>(zym::CreateObject<MallocAllocator>());
  const auto later = zym::CreateObject<MallocAllocator>();
  m_locator->Add<zym::IAllocator>(later);
  EXPECT_EQ(Find<zym::IAllocator>().get(), later.get());
}

TEST_F(ServiceLocatorTest, ARemovedServiceIsFoundNoMoreAndTheOthersAre) {
  m_locator->Add<zym::IAllocator>(zym::CreateObject<MallocAllocator>());
  m_locator->Add<IMetricSource>(zym::CreateObject<host_kit::NullMetrics>());
  m_locator->Remove(zym::IAllocator::kIid);
  EXPECT_FALSE(Find<zym::IAllocator>());
  EXPECT_TRUE(Find<IMetricSource>());
}

// A service that asks the locator for another one while it ends.
class Asking : public zym::object::Ifaces<zym::IRunnable> {
 public:
  Asking(host_kit::ServiceLocator& locator, int& ends) : m_locator(locator), m_ends(ends) {}
  ~Asking() {
    static_cast<void>(m_locator.Has(zym::ITracer::kIid));
    ++m_ends;
  }
  void Run() override {}

 private:
  host_kit::ServiceLocator& m_locator;
  int& m_ends;
};

TEST_F(ServiceLocatorTest, AServiceMayAskForAnotherOneWhileItEnds) {
  int ends = 0;
  const auto add = [&] { m_locator->Add<zym::IRunnable>(zym::CreateObject<Asking>(*m_locator, ends)); };
  add();
  add();
  EXPECT_EQ(ends, 1) << "replaced";
  m_locator->Remove(zym::IRunnable::kIid);
  EXPECT_EQ(ends, 2) << "removed";
  add();
  m_locator->Clear();
  EXPECT_EQ(ends, 3) << "cleared";
}

}  // namespace
