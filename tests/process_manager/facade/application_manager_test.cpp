#include "process_manager/facade/application_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/facade/null_interceptor.h"
#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace {

using namespace system_interceptors;
using application_manager::ApplicationId;
using application_manager_facade::IApplication;
using qor::process_manager::ApplicationManager;
using ApplicationPtr = zym::intrusive_ptr<IApplication>;
namespace priority = application_manager::application_priority;

class ApplicationManagerTest : public testing::Test {
 protected:
  ~ApplicationManagerTest() override {
    m_manager.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  zym::result_t Create(ApplicationId id, ApplicationPtr& application,
                       priority::Type type = priority::kNormal) {
    return m_manager->CreateApplication(id, type, application.Ref());
  }
  zym::result_t Create(ApplicationId id) {
    ApplicationPtr application;
    return Create(id, application);
  }

  test_support::FakeHost m_host;
  const std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<ApplicationManager> m_manager =
      zym::CreateObject<ApplicationManager>(m_host.locator.get());
};

TEST_F(ApplicationManagerTest, NeedsAnAllocatorAndATracer) {
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    EXPECT_THROW(static_cast<void>(zym::CreateObject<ApplicationManager>(host.locator.get())),
                 zym::GetInterfaceException);
  }
}

TEST_F(ApplicationManagerTest, ACreatedApplicationCanBeOpenedAndIsTheSame) {
  ApplicationPtr created;
  ASSERT_EQ(Create(7, created), zym::ZYM_OK);
  ApplicationPtr opened;
  EXPECT_EQ(m_manager->OpenApplication(7, opened.Ref()), zym::ZYM_OK);
  EXPECT_EQ(opened.get(), created.get());
  EXPECT_EQ(created->AddRef(), 4U) << "the manager's, this one, the opened one, and this";
  created->Release();
}

TEST_F(ApplicationManagerTest, ASecondCreateWithAnExistingIdIsAlreadyDoneWithAnotherPriorityToo) {
  ApplicationPtr first;
  ASSERT_EQ(Create(7, first, priority::kLow), zym::ZYM_OK);
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IApplication*>(&sentinel);
  IApplication* second = untouched;
  for (const priority::Type type : {priority::kLow, priority::kHigh, static_cast<priority::Type>(4711)}) {
    EXPECT_EQ(static_cast<std::uint32_t>(m_manager->CreateApplication(7, type, &second)), 0x80000067U);
    EXPECT_EQ(second, untouched);
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects + 2) << "the new objects are dropped";
  ApplicationPtr opened;
  EXPECT_EQ(m_manager->OpenApplication(7, opened.Ref()), zym::ZYM_OK);
  EXPECT_EQ(opened.get(), first.get());
}

TEST_F(ApplicationManagerTest, OpenAfterDeleteIsNotFound) {
  ASSERT_EQ(Create(7), zym::ZYM_OK);
  ASSERT_EQ(m_manager->DeleteApplication(7), zym::ZYM_OK);
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IApplication*>(&sentinel);
  IApplication* opened = untouched;
  EXPECT_EQ(static_cast<std::uint32_t>(m_manager->OpenApplication(7, &opened)), 0x8000004cU);
  EXPECT_EQ(opened, untouched);
}

TEST_F(ApplicationManagerTest, AnIdThatNeverWasIsNotFound) {
  ApplicationPtr application;
  EXPECT_EQ(m_manager->OpenApplication(1, application.Ref()), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(m_manager->DeleteApplication(1), zym::ZYM_E_NOT_FOUND);
}

TEST_F(ApplicationManagerTest, ADeletedApplicationCanBeDeletedOnceAndCreatedAnew) {
  ApplicationPtr old;
  ASSERT_EQ(Create(7, old), zym::ZYM_OK);
  EXPECT_EQ(m_manager->DeleteApplication(7), zym::ZYM_OK);
  EXPECT_EQ(m_manager->DeleteApplication(7), zym::ZYM_E_NOT_FOUND);
  ApplicationPtr anew;
  EXPECT_EQ(Create(7, anew), zym::ZYM_OK);
  EXPECT_NE(anew.get(), old.get());
}

TEST_F(ApplicationManagerTest, AClientThatHoldsADeletedApplicationKeepsIt) {
  m_host.locator->Add<interceptor_facade::IInterceptor>(zym::CreateObject<test_support::NullInterceptor>());
  ApplicationPtr kept;
  ASSERT_EQ(Create(7, kept), zym::ZYM_OK);
  ASSERT_EQ(m_manager->DeleteApplication(7), zym::ZYM_OK);
  EXPECT_EQ(kept->AddRef(), 2U) << "this one alone, and this";
  kept->Release();
  zym::intrusive_ptr<interceptor_facade::IInterceptor> interceptor;
  EXPECT_EQ(kept->GetInterceptor(interceptor.Ref()), zym::ZYM_OK);
  interceptor.Reset();
  kept.Reset();
  m_host.locator->Clear();
}

TEST_F(ApplicationManagerTest, IdsAreAll32Bits) {
  for (const ApplicationId id : {0U, 1U, 0x7fffffffU, 0x80000000U, 0xffffffffU})
    EXPECT_EQ(Create(id), zym::ZYM_OK);
  for (const ApplicationId id : {0xffffffffU, 0U, 0x80000000U}) {
    ApplicationPtr application;
    EXPECT_EQ(m_manager->OpenApplication(id, application.Ref()), zym::ZYM_OK) << id;
  }
}

TEST_F(ApplicationManagerTest, ItsEndLetsItsApplicationsGo) {
  ApplicationPtr kept;
  ASSERT_EQ(Create(1, kept), zym::ZYM_OK);
  ASSERT_EQ(Create(2), zym::ZYM_OK);
  m_manager.Reset();
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects + 1) << "the one that is held";
  kept.Reset();
}

TEST_F(ApplicationManagerTest, EachOperationTracesItsSignature) {
  ApplicationPtr application;
  static_cast<void>(Create(7, application, priority::kHigh));
  static_cast<void>(m_manager->OpenApplication(8, application.Ref()));
  static_cast<void>(m_manager->DeleteApplication(7));
  EXPECT_TRUE(m_host.tracer->Has(
      800, "virtual zym::result_t qor::process_manager::ApplicationManager::CreateApplication("));
  EXPECT_TRUE(m_host.tracer->Has(800, "::ApplicationManager::OpenApplication("));
  EXPECT_TRUE(m_host.tracer->Has(800, "::ApplicationManager::DeleteApplication("));
  EXPECT_FALSE(m_host.tracer->Has(300, ""));
}

TEST_F(ApplicationManagerTest, ADeleteOfAMissingIdRepeatsItsSignatureAsAFailure) {
  EXPECT_EQ(m_manager->DeleteApplication(9), zym::ZYM_E_NOT_FOUND);
  const auto records = m_host.tracer->Records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].level, 800U);
  EXPECT_EQ(records[1].level, 300U);
  EXPECT_EQ(records[0].text, records[1].text);
  EXPECT_TRUE(records[1].text.starts_with("virtual zym::result_t ")) << records[1].text;
  EXPECT_NE(records[1].text.find("ApplicationManager::DeleteApplication("), std::string::npos);
}

TEST_F(ApplicationManagerTest, WithoutWhatAnApplicationNeedsNoneIsCreated) {
  m_host.locator->FailWith(zym::IAllocator::kIid, zym::ZYM_E_LOCKED);
  ApplicationPtr application;
  EXPECT_EQ(Create(7, application), zym::ZYM_E_LOCKED);
  EXPECT_FALSE(application);
  EXPECT_TRUE(m_host.tracer->Has(300, "CreateApplication: "));
  EXPECT_EQ(m_manager->OpenApplication(7, application.Ref()), zym::ZYM_E_NOT_FOUND);
}

// The new object is made before the lock is taken: a locator that comes back to the manager is no deadlock.
TEST_F(ApplicationManagerTest, AnApplicationIsMadeOutsideTheLock) {
  class ReentrantLocator : public zym::object::Ifaces<zym::IServiceLocator> {
   public:
    explicit ReentrantLocator(zym::IServiceLocator* inner) : m_inner(inner) {}
    zym::result_t GetInterface(zym::iid_t iid, std::uint32_t key, void** out) override {
      if (manager != nullptr) results.push_back(manager->DeleteApplication(99));
      return m_inner->GetInterface(iid, key, out);
    }
    ApplicationManager* manager = nullptr;
    std::vector<zym::result_t> results;

   private:
    zym::IServiceLocator* m_inner;
  };
  const auto locator = zym::CreateObject<ReentrantLocator>(m_host.locator.get());
  {
    const auto manager = zym::CreateObject<ApplicationManager>(locator.get());
    locator->manager = manager.get();
    ApplicationPtr application;
    EXPECT_EQ(manager->CreateApplication(1, priority::kLow, application.Ref()), zym::ZYM_OK);
    EXPECT_EQ(locator->results, (std::vector<zym::result_t>(2, zym::ZYM_E_NOT_FOUND))) << "for two services";
    locator->manager = nullptr;
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects + 2) << "the manager of the test and the locator";
}

TEST_F(ApplicationManagerTest, OfManyThreadsThatCreateOneIdOneWins) {
  constexpr int kThreads = 8;
  constexpr ApplicationId kRounds = 200;
  std::vector<std::atomic<int>> winners(kRounds);
  std::vector<std::atomic<IApplication*>> won(kRounds);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (ApplicationId id = 0; id < kRounds; ++id) {
        ApplicationPtr application;
        const zym::result_t result = Create(id, application);
        if (result == zym::ZYM_OK) {
          ++winners[id];
          won[id] = application.get();
        } else {
          EXPECT_EQ(result, zym::ZYM_E_ALREADY_DONE);
          EXPECT_FALSE(application);
        }
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (ApplicationId id = 0; id < kRounds; ++id) {
    EXPECT_EQ(winners[id], 1) << id;
    ApplicationPtr application;
    EXPECT_EQ(m_manager->OpenApplication(id, application.Ref()), zym::ZYM_OK);
    EXPECT_EQ(application.get(), won[id]) << id;
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects + 1 + static_cast<std::int32_t>(kRounds));
}

TEST_F(ApplicationManagerTest, CreatingOpeningAndDeletingMayRace) {
  constexpr int kThreads = 6;
  std::atomic<int> created{0};
  std::atomic<int> deleted{0};
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      for (int round = 0; round < 2000; ++round) {
        const auto id = static_cast<ApplicationId>(round % 3);
        ApplicationPtr application;
        if (i % 3 == 0) {
          if (Create(id, application) == zym::ZYM_OK) ++created;
        } else if (i % 3 == 1) {
          if (m_manager->DeleteApplication(id) == zym::ZYM_OK) ++deleted;
        } else if (m_manager->OpenApplication(id, application.Ref()) == zym::ZYM_OK) {
          zym::intrusive_ptr<interceptor_facade::IInterceptor> interceptor;
          EXPECT_EQ(application->GetInterceptor(interceptor.Ref()), zym::ZYM_E_NO_INTERFACE);
        }
      }
    });
  for (std::thread& thread : threads) thread.join();
  int left = 0;
  for (ApplicationId id = 0; id < 3; ++id)
    if (m_manager->DeleteApplication(id) == zym::ZYM_OK) ++left;
  EXPECT_EQ(created, deleted + left) << "each that was created was deleted once";
}

}  // namespace
