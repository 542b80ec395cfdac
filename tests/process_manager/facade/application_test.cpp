#include "process_manager/facade/application.h"

#include <gtest/gtest.h>

#include <string>

#include "process_manager/facade/null_interceptor.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace {

using namespace system_interceptors;
using qor::process_manager::Application;
using test_support::NullInterceptor;

class ApplicationTest : public testing::Test {
 protected:
  ~ApplicationTest() override {
    m_application.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  test_support::FakeHost m_host;
  const std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<Application> m_application = zym::CreateObject<Application>(m_host.locator.get());
};

TEST_F(ApplicationTest, NeedsAnAllocatorAndATracer) {
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    EXPECT_THROW(static_cast<void>(zym::CreateObject<Application>(host.locator.get())),
                 zym::GetInterfaceException);
  }
}

TEST_F(ApplicationTest, TheInterceptorIsTheLocatorsWithOneMoreReference) {
  {
    const auto registered = zym::CreateObject<NullInterceptor>();
    m_host.locator->Add<interceptor_facade::IInterceptor>(registered);
    const std::uint32_t before = registered->AddRef();
    zym::intrusive_ptr<interceptor_facade::IInterceptor> interceptor;
    EXPECT_EQ(m_application->GetInterceptor(interceptor.Ref()), zym::ZYM_OK);
    EXPECT_EQ(interceptor.get(), registered.get());
    EXPECT_EQ(registered->AddRef(), before + 2);
    registered->Release();
    registered->Release();
  }
  m_host.locator->Clear();
}

TEST_F(ApplicationTest, GetInterceptorFailsWithTheLocatorsResultWhenNoneIsRegistered) {
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<interceptor_facade::IInterceptor*>(&sentinel);
  interceptor_facade::IInterceptor* interceptor = untouched;
  EXPECT_EQ(m_application->GetInterceptor(&interceptor), zym::ZYM_E_NO_INTERFACE);
  m_host.locator->FailWith(interceptor_facade::IInterceptor::kIid, zym::ZYM_E_INVALID_STATE);
  EXPECT_EQ(m_application->GetInterceptor(&interceptor), zym::ZYM_E_INVALID_STATE);
  EXPECT_EQ(interceptor, untouched);
}

TEST_F(ApplicationTest, AMissingInterceptorIsTracedWithItsExpression) {
  m_host.locator->FailWith(interceptor_facade::IInterceptor::kIid, zym::ZYM_E_INVALID_STATE);
  zym::intrusive_ptr<interceptor_facade::IInterceptor> interceptor;
  static_cast<void>(m_application->GetInterceptor(interceptor.Ref()));
  const std::string record = m_host.tracer->Find("failed: result");
  EXPECT_TRUE(record.starts_with("process_manager/facade/application.cpp:")) << record;
  EXPECT_TRUE(record.ends_with(
      "(zym::GetInterface(GetServiceLocator(), interceptor)),(ZYM_SUCCEEDED(_result)) failed: "
      "result = 0x8000006a (Invalid state) Cannot get si_if::IInterceptor interface"))
      << record;
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot get si_if::IInterceptor interface"));
}

}  // namespace
