#include "process_manager/interception/interceptor_settings_subscription.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/fake_services.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager;
using Values = std::vector<std::vector<std::string>>;

InterceptorSettings Excluding(std::initializer_list<const char*> patterns) {
  InterceptorSettings settings;
  settings.excluded.assign(patterns.begin(), patterns.end());
  return settings;
}

std::vector<std::string> Patterns(const InterceptorSettings& settings) {
  return {settings.excluded.begin(), settings.excluded.end()};
}

class Subscriber : public zym::object::Ifaces<IInterceptorSettings> {
 public:
  explicit Subscriber(std::vector<Subscriber*>* calls = nullptr) : m_calls(calls) {}

  zym::result_t OnInterceptorSettingsChanged(const InterceptorSettings& settings) override {
    values.push_back(Patterns(settings));
    if (m_calls != nullptr) m_calls->push_back(this);
    return result;
  }

  Values values;
  zym::result_t result = zym::ZYM_OK;

 private:
  std::vector<Subscriber*>* m_calls;
};

class InterceptorSettingsSubscriptionTest : public testing::Test {
 protected:
  static auto MakeSubscriber(std::vector<Subscriber*>* calls = nullptr) {
    return zym::CreateObject<Subscriber>(calls);
  }

  const zym::intrusive_ptr<test_support::RecordingTracer> m_tracer =
      zym::CreateObject<test_support::RecordingTracer>();
  const zym::intrusive_ptr<InterceptorSettingsSubscription> m_subscription =
      zym::CreateObject<InterceptorSettingsSubscription>(m_tracer, InterceptorSettings());
};

TEST_F(InterceptorSettingsSubscriptionTest, SubscribeDeliversTheDefaultEmptyListIfNothingWasSet) {
  const auto subscriber = MakeSubscriber();
  EXPECT_EQ(m_subscription->Subscribe(subscriber.get()), zym::ZYM_OK);
  EXPECT_EQ(subscriber->values, (Values{{}}));
}

TEST_F(InterceptorSettingsSubscriptionTest, TheValueGivenAtConstructionIsDelivered) {
  const auto subscription =
      zym::CreateObject<InterceptorSettingsSubscription>(m_tracer, Excluding({"/mnt/*"}));
  const auto subscriber = MakeSubscriber();
  EXPECT_EQ(subscription->Subscribe(subscriber.get()), zym::ZYM_OK);
  EXPECT_EQ(subscriber->values, (Values{{"/mnt/*"}}));
}

TEST_F(InterceptorSettingsSubscriptionTest, WhatWasSetWithNoSubscribersIsDeliveredToALaterOne) {
  EXPECT_EQ(m_subscription->SetSettings(Excluding({"/mnt/a", "/mnt/b"})), zym::ZYM_OK);
  const auto subscriber = MakeSubscriber();
  EXPECT_EQ(m_subscription->Subscribe(subscriber.get()), zym::ZYM_OK);
  EXPECT_EQ(subscriber->values, (Values{{"/mnt/a", "/mnt/b"}}));
}

TEST_F(InterceptorSettingsSubscriptionTest, EachChangeReachesEverySubscriberInTheOrderOfSubscription) {
  std::vector<Subscriber*> calls;
  const auto first = MakeSubscriber(&calls);
  const auto second = MakeSubscriber(&calls);
  const auto third = MakeSubscriber(&calls);
  for (const auto& subscriber : {second, first, third}) m_subscription->Subscribe(subscriber.get());
  calls.clear();
  m_subscription->SetSettings(Excluding({"/a"}));
  EXPECT_EQ(calls, (std::vector<Subscriber*>{second.get(), first.get(), third.get()}));
}

TEST_F(InterceptorSettingsSubscriptionTest, ASecondSubscriptionIsRefusedWithoutANotification) {
  const auto subscriber = MakeSubscriber();
  m_subscription->Subscribe(subscriber.get());
  EXPECT_EQ(m_subscription->Subscribe(subscriber.get()), zym::ZYM_E_ALREADY_DONE);
  EXPECT_EQ(static_cast<std::uint32_t>(zym::ZYM_E_ALREADY_DONE), 0x80000067U);
  EXPECT_EQ(subscriber->values.size(), 1U);
}

TEST_F(InterceptorSettingsSubscriptionTest, ASubscriberThatIsNotKnownCantBeUnsubscribed) {
  const auto subscriber = MakeSubscriber();
  EXPECT_EQ(m_subscription->Unsubscribe(subscriber.get()), zym::ZYM_E_NOT_FOUND);
  m_subscription->Subscribe(subscriber.get());
  EXPECT_EQ(m_subscription->Unsubscribe(subscriber.get()), zym::ZYM_OK);
  EXPECT_EQ(m_subscription->Unsubscribe(subscriber.get()), zym::ZYM_E_NOT_FOUND);
}

TEST_F(InterceptorSettingsSubscriptionTest, AnUnsubscribedOneIsLeftAloneAndTheRestKeepTheirOrder) {
  std::vector<Subscriber*> calls;
  const auto first = MakeSubscriber(&calls);
  const auto second = MakeSubscriber(&calls);
  const auto third = MakeSubscriber(&calls);
  for (const auto& subscriber : {first, second, third}) m_subscription->Subscribe(subscriber.get());
  m_subscription->Unsubscribe(second.get());
  calls.clear();
  m_subscription->SetSettings(Excluding({"/a"}));
  EXPECT_EQ(calls, (std::vector<Subscriber*>{first.get(), third.get()}));
  m_subscription->Subscribe(second.get());
  calls.clear();
  m_subscription->SetSettings(Excluding({"/b"}));
  EXPECT_EQ(calls, (std::vector<Subscriber*>{first.get(), third.get(), second.get()}));
}

TEST_F(InterceptorSettingsSubscriptionTest, ASubscriberThatFailsOnEveryCallStaysInTheList) {
  const auto failing = MakeSubscriber();
  failing->result = zym::ZYM_E_NOT_SUPPORTED;
  EXPECT_EQ(m_subscription->Subscribe(failing.get()), zym::ZYM_OK) << "it is subscribed all the same";
  EXPECT_TRUE(m_tracer->Has(300,
                            "Subscribe: subscriber->OnInterceptorSettingsChanged(m_settings) 0x80000042 "
                            "(Not supported) Cannot update InterceptorSettings"));
  const auto behind = MakeSubscriber();
  m_subscription->Subscribe(behind.get());
  EXPECT_EQ(m_subscription->SetSettings(Excluding({"/a"})), zym::ZYM_OK);
  EXPECT_TRUE(m_tracer->Has(300,
                            "SetSettings: subscriber->OnInterceptorSettingsChanged(m_settings) 0x80000042 "
                            "(Not supported) Cannot update InterceptorSettings"));
  EXPECT_EQ(m_subscription->SetSettings(Excluding({"/b"})), zym::ZYM_OK);
  EXPECT_EQ(failing->values, (Values{{}, {"/a"}, {"/b"}}));
  EXPECT_EQ(behind->values, (Values{{}, {"/a"}, {"/b"}})) << "the one behind it is told too";
}

TEST_F(InterceptorSettingsSubscriptionTest, AValueThatASubscriberRefusedStays) {
  const auto failing = MakeSubscriber();
  failing->result = zym::ZYM_E_UNSPECIFIED;
  m_subscription->Subscribe(failing.get());
  m_subscription->SetSettings(Excluding({"/a"}));
  InterceptorSettings settings = Excluding({"/other"});
  EXPECT_EQ(m_subscription->GetSettings(settings), zym::ZYM_OK);
  EXPECT_EQ(Patterns(settings), (std::vector<std::string>{"/a"}));
}

TEST_F(InterceptorSettingsSubscriptionTest, WhatIsReadIsACopy) {
  m_subscription->SetSettings(Excluding({"/a"}));
  InterceptorSettings settings;
  m_subscription->GetSettings(settings);
  settings.excluded.emplace_back("/b");
  InterceptorSettings again;
  m_subscription->GetSettings(again);
  EXPECT_EQ(Patterns(again), (std::vector<std::string>{"/a"}));
}

TEST_F(InterceptorSettingsSubscriptionTest, TheValueCanBeSetFromWhatWasReadOfItself) {
  m_subscription->SetSettings(Excluding({"/a"}));
  InterceptorSettings settings;
  m_subscription->GetSettings(settings);
  EXPECT_EQ(m_subscription->SetSettings(settings), zym::ZYM_OK);
  InterceptorSettings again;
  m_subscription->GetSettings(again);
  EXPECT_EQ(Patterns(again), (std::vector<std::string>{"/a"}));
}

TEST_F(InterceptorSettingsSubscriptionTest, ASubscriberLivesUntilItIsUnsubscribed) {
  const auto subscriber = MakeSubscriber();
  m_subscription->Subscribe(subscriber.get());
  EXPECT_EQ(subscriber->AddRef(), 3U);
  subscriber->Release();
  m_subscription->Unsubscribe(subscriber.get());
  EXPECT_EQ(subscriber->AddRef(), 2U);
  subscriber->Release();
}

TEST_F(InterceptorSettingsSubscriptionTest, EachOperationTracesItsName) {
  const auto subscriber = MakeSubscriber();
  InterceptorSettings settings;
  m_subscription->Subscribe(subscriber.get());
  m_subscription->Unsubscribe(subscriber.get());
  m_subscription->SetSettings(settings);
  m_subscription->GetSettings(settings);
  for (const char* text :
       {"InterceptorSettingsSubscription::Subscribe() ", "InterceptorSettingsSubscription::Unsubscribe() ",
        "InterceptorSettingsSubscription::SetSettings() ", "InterceptorSettingsSubscription::GetSettings() "})
    EXPECT_TRUE(m_tracer->Has(800, text)) << text;
}

TEST_F(InterceptorSettingsSubscriptionTest, BothInterfacesGiveEachOther) {
  zym::intrusive_ptr<IInterceptorSettingsHolder> holder;
  ASSERT_EQ(zym::QueryInterface(m_subscription, holder.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IInterceptorSettingsSubscription> back;
  ASSERT_EQ(zym::QueryInterface(holder, back.Ref()), zym::ZYM_OK);
  EXPECT_EQ(back.get(), static_cast<IInterceptorSettingsSubscription*>(m_subscription.get()));
  void* primary = nullptr;
  ASSERT_EQ(holder->QueryInterface(0, &primary), zym::ZYM_OK);
  EXPECT_EQ(primary, back.get());
  back->Release();
}

// Two changes reach all subscribers in one order, whatever threads they come from.
TEST_F(InterceptorSettingsSubscriptionTest, ChangesOfSeveralThreadsReachAllSubscribersInOneOrder) {
  const auto first = MakeSubscriber();
  const auto second = MakeSubscriber();
  m_subscription->Subscribe(first.get());
  m_subscription->Subscribe(second.get());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this, i] {
      const std::string pattern = "/thread" + std::to_string(i);
      for (int j = 0; j < 100; ++j) m_subscription->SetSettings(Excluding({pattern.c_str()}));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(first->values.size(), 401U);
  EXPECT_EQ(first->values, second->values);
}

TEST(InterceptorSettingsSubscription, EndsWithItsSubscribers) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    const auto tracer = zym::CreateObject<test_support::RecordingTracer>();
    const auto subscription = zym::CreateObject<InterceptorSettingsSubscription>(tracer, Excluding({"/a"}));
    subscription->Subscribe(zym::CreateObject<Subscriber>(nullptr).get());
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

}  // namespace
