#include "process_manager/interception/filter_manager.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_services.h"
#include "support/threads.h"
#include "zym/module_counter.h"
#include "zym/object.h"

namespace qor::process_manager {
namespace {

using system_interceptors::event_processing::Action;
using system_interceptors::event_processing::IEventControl;
using test_support::Call;
using test_support::Eventually;
using test_support::Gate;

constexpr std::uint32_t kType = system_interceptors::event_type::kCreateProcess;
constexpr std::uint32_t kOtherType = system_interceptors::event_type::kExitProcess;

// An event that nobody looks into.
class SomeEvent : public zym::object::Ifaces<ISystemEvent> {
 public:
  zym::result_t GetEventId(const std::uint64_t**) override { return zym::ZYM_E_NOT_FOUND; }
  zym::result_t GetParam(std::uint32_t, zym::types::range_t<const std::uint8_t*>*) override {
    return zym::ZYM_E_NOT_SUPPORTED;
  }
  std::uint32_t GetType() override { return kType; }
  PidType GetPid() override { return 0; }
  PidType GetCpid() override { return 0; }
  bool IsFake() override { return false; }
  bool Complete() override { return true; }
  zym::types::string16_t ToString() override { return {}; }
};

// Notes the ids that it is called with, and then does what the test asks for.
class Handler : public zym::object::Ifaces<system_interceptors::event_processing::INonBlockingEventHandler> {
 public:
  explicit Handler(std::function<void(std::uint32_t)> then = {}) : m_then(std::move(then)) {}

  void OnEvent(ISystemEvent*, std::uint32_t filterId) override {
    {
      const std::scoped_lock lock(m_mutex);
      m_calls.push_back(filterId);
    }
    if (m_then) m_then(filterId);
  }

  std::vector<std::uint32_t> Calls() const {
    const std::scoped_lock lock(m_mutex);
    return m_calls;
  }

 private:
  mutable std::mutex m_mutex;  // guards m_calls
  std::vector<std::uint32_t> m_calls;
  const std::function<void(std::uint32_t)> m_then;
};

template <class Filter>
class Source : public zym::object::Ifaces<>, public FilterManager<Filter> {
 public:
  explicit Source(zym::IServiceLocator* locator) : FilterManager<Filter>(locator, "Source") {}

  zym::result_t Start() override {
    ++starts;
    if (onStart) onStart();
    return startResult;
  }
  zym::result_t Stop() override {
    ++stops;
    if (onStop) onStop();
    return stopResult;
  }

  std::atomic<int> starts{0};
  std::atomic<int> stops{0};
  std::function<void()> onStart;
  std::function<void()> onStop;
  zym::result_t startResult = zym::ZYM_OK;
  zym::result_t stopResult = zym::ZYM_OK;
};

using Ids = std::vector<unsigned int>;
zym::types::range_t<unsigned int*> RangeOf(Ids& ids) {
  return {ids.data(), ids.data() + ids.size()};
}

// A handler that is inside its call until the test lets it go.
struct HeldCall {
  Gate entered;
  Gate release;
  std::atomic<bool> left{false};
  zym::intrusive_ptr<Handler> handler = zym::CreateObject<Handler>([this](std::uint32_t) {
    entered.Open();
    release.Wait();
    left = true;
  });
};

class FilterManagerTest : public testing::Test {
 protected:
  ~FilterManagerTest() override {
    m_source = {};
    m_event = {};
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  static non_blocking::Filter MakeFilter(std::uint32_t id, const zym::intrusive_ptr<Handler>& handler,
                                         bool enabled = true, std::uint32_t type = kType) {
    return {.enabled = enabled,
            .handler = zym::intrusive_ptr<non_blocking::Filter::Handler>(handler),
            .descriptor = {.type = type},
            .id = id};
  }
  zym::result_t Register(std::uint32_t id, const zym::intrusive_ptr<Handler>& handler, bool enabled = true,
                         std::uint32_t type = kType) {
    return m_source->RegisterFilter(MakeFilter(id, handler, enabled, type));
  }
  zym::result_t Delete(Ids ids) { return m_source->DeleteFilters(RangeOf(ids)); }
  zym::result_t Enable(Ids ids) { return m_source->EnableFilters(RangeOf(ids)); }
  zym::result_t Disable(Ids ids) { return m_source->DisableFilters(RangeOf(ids)); }
  zym::result_t EnableDisable(Ids toEnable, Ids toDisable) {
    return m_source->EnableDisableFilters(RangeOf(toEnable), RangeOf(toDisable));
  }
  bool IsEnabled(std::uint32_t id) {
    bool enabled = false;
    EXPECT_EQ(m_source->GetFilterStatus(id, &enabled), zym::ZYM_OK) << id;
    return enabled;
  }
  bool IsThere(std::uint32_t id) {
    bool enabled = false;
    return m_source->GetFilterStatus(id, &enabled) == zym::ZYM_OK;
  }
  void SendEvent(std::uint32_t type = kType) { m_source->OnEvent(type, m_event.get()); }

  // Runs `remove` while the handler of filter 1 is held, and shows that it waits for the handler to return.
  void ExpectToWaitForTheRunningHandler(const std::function<zym::result_t()>& remove);

  test_support::FakeHost m_host;
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<Source<non_blocking::Filter>> m_source =
      zym::CreateObject<Source<non_blocking::Filter>>(m_host.locator.get());
  zym::intrusive_ptr<SomeEvent> m_event = zym::CreateObject<SomeEvent>();
};

// --- Who makes the source run. ---

TEST_F(FilterManagerTest, AFilterWithoutAHandlerStartsNothingAndAttachHandlerThenDoes) {
  EXPECT_EQ(Register(1, {}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 0);
  const auto handler = zym::CreateObject<Handler>();
  EXPECT_EQ(m_source->AttachHandler(1, handler.get()), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 1);
}

TEST_F(FilterManagerTest, ADisabledFilterStartsNothingAndEnableFiltersThenDoes) {
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>(), false), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 0);
  EXPECT_FALSE(IsEnabled(1));
  EXPECT_EQ(Enable({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 1);
  EXPECT_TRUE(IsEnabled(1));
}

TEST_F(FilterManagerTest, EveryRegistrationIntoAnActiveTableCallsStart) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, zym::CreateObject<Handler>());
  Register(3, {}, false);
  EXPECT_EQ(m_source->starts, 3);
}

TEST_F(FilterManagerTest, DisablingTheLastActiveFilterStopsAndEnablingItStartsAgain) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, zym::CreateObject<Handler>());
  EXPECT_EQ(m_source->starts, 2);
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 0);
  EXPECT_EQ(Disable({2}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_EQ(Enable({2}), zym::ZYM_OK);
  EXPECT_EQ(m_source->starts, 3);
}

TEST_F(FilterManagerTest, DetachingTheLastHandlerStopsAndTheFilterStaysEnabled) {
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(m_source->DetachHandler(1), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_TRUE(IsEnabled(1));
}

TEST_F(FilterManagerTest, DeletingTheLastActiveFilterStops) {
  Register(1, zym::CreateObject<Handler>());
  Register(2, {});
  EXPECT_EQ(Delete({1}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_FALSE(IsThere(1));
  EXPECT_TRUE(IsThere(2));
}

// Meant: stopping a source that doesn't run is harmless.
TEST_F(FilterManagerTest, DeletingUnknownIdsFromAnIdleTableCallsStop) {
  EXPECT_EQ(Delete({7, 8}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 1);
  EXPECT_EQ(Disable({7}), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 2);
  EXPECT_EQ(m_source->DetachHandler(7), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 3);
}

TEST_F(FilterManagerTest, DeletingUnknownIdsFromAnActiveTableLeavesTheSourceRunning) {
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(Delete({7, 8}), zym::ZYM_OK);
  EXPECT_EQ(Disable({7}), zym::ZYM_OK);
  EXPECT_EQ(m_source->DetachHandler(7), zym::ZYM_OK);
  EXPECT_EQ(m_source->stops, 0);
}

TEST_F(FilterManagerTest, UnknownIdsArePassedOver) {
  Register(1, zym::CreateObject<Handler>(), false);
  EXPECT_EQ(Enable({9, 1, 8}), zym::ZYM_OK);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_EQ(m_source->AttachHandler(9, zym::CreateObject<Handler>().get()), zym::ZYM_OK);
  EXPECT_FALSE(IsThere(9));
}

TEST_F(FilterManagerTest, TheStatusOfAnUnknownFilterIsNotFoundAndTheOutputIsLeftAlone) {
  bool enabled = true;
  EXPECT_EQ(m_source->GetFilterStatus(1, &enabled), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(enabled);
}

// --- Starting and stopping that fail. ---

TEST_F(FilterManagerTest, AStartThatFailsIsTracedAndReturnedAndTheFilterStays) {
  m_source->startResult = zym::ZYM_E_ACCESS_DENIED;
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>()), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(IsEnabled(1));
  const std::string trace = m_host.tracer->Find("Cannot start interceptor");
  EXPECT_TRUE(trace.starts_with("Source::process_manager/interception/filter_manager.h:")) << trace;
  EXPECT_NE(
      trace.find("(Start()),(ZYM_SUCCEEDED(_result)) failed: result = 0x80000045 (Access denied) Cannot "
                 "start interceptor"),
      std::string::npos)
      << trace;
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Cannot start interceptor"));

  Register(2, zym::CreateObject<Handler>(), false);
  EXPECT_EQ(Enable({2}), zym::ZYM_E_ACCESS_DENIED);
  EXPECT_TRUE(IsEnabled(2));
  EXPECT_EQ(m_source->AttachHandler(2, zym::CreateObject<Handler>().get()), zym::ZYM_E_ACCESS_DENIED);
}

TEST_F(FilterManagerTest, AStopThatFailsIsTracedAndReturnedAndTheFiltersStayChanged) {
  m_source->stopResult = zym::ZYM_E_TIMEOUT;
  Register(1, zym::CreateObject<Handler>());
  EXPECT_EQ(Disable({1}), zym::ZYM_E_TIMEOUT);
  EXPECT_FALSE(IsEnabled(1));
  const std::string trace = m_host.tracer->Find("Cannot stop interceptor");
  EXPECT_NE(trace.find("(Stop()),(ZYM_SUCCEEDED(_result)) failed: result = 0x80000221"), std::string::npos)
      << trace;
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Cannot stop interceptor"));

  EXPECT_EQ(m_source->DetachHandler(1), zym::ZYM_E_TIMEOUT);
  EXPECT_EQ(Delete({1}), zym::ZYM_E_TIMEOUT);
  EXPECT_FALSE(IsThere(1));
}

TEST_F(FilterManagerTest, NothingToDoIsASuccessOfStartAndStop) {
  m_source->startResult = zym::ZYM_FALSE;
  m_source->stopResult = zym::ZYM_FALSE;
  EXPECT_EQ(Register(1, zym::CreateObject<Handler>()), zym::ZYM_OK);
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
  EXPECT_FALSE(m_host.tracer->Has(zym::trace::kFailure, ""));
}

TEST_F(FilterManagerTest, EnableDisableChangesBothListsInOneCall) {
  Register(1, zym::CreateObject<Handler>(), false);
  Register(2, zym::CreateObject<Handler>(), true);
  EXPECT_EQ(EnableDisable({1}, {2}), zym::ZYM_OK);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_FALSE(IsEnabled(2));
  EXPECT_EQ(m_source->stops, 0);
}

TEST_F(FilterManagerTest, EnableDisableStopsAtAnEnableThatFails) {
  Register(1, zym::CreateObject<Handler>(), false);
  Register(2, zym::CreateObject<Handler>(), true);
  m_source->startResult = zym::ZYM_E_PLATFORM;
  EXPECT_EQ(EnableDisable({1}, {2}), zym::ZYM_E_PLATFORM);
  EXPECT_TRUE(IsEnabled(1));
  EXPECT_TRUE(IsEnabled(2));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "(EnableFilters(filtersToEnable)),(ZYM_SUCCEEDED("));
}

TEST_F(FilterManagerTest, EnableDisableReturnsADisableThatFails) {
  Register(1, zym::CreateObject<Handler>());
  m_source->stopResult = zym::ZYM_E_PLATFORM;
  EXPECT_EQ(EnableDisable({}, {1}), zym::ZYM_E_PLATFORM);
  EXPECT_FALSE(IsEnabled(1));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "(DisableFilters(filtersToDisable)),(ZYM_SUCCEEDED("));
}

// --- Who gets an event. ---

TEST_F(FilterManagerTest, AnEventOfATypeWithNoFilterCallsNobody) {
  const auto handler = zym::CreateObject<Handler>();
  SendEvent();
  Register(1, handler);
  SendEvent(kOtherType);
  EXPECT_TRUE(handler->Calls().empty());
}

TEST_F(FilterManagerTest, EachActiveFilterOfTheTypeIsCalledOnceInTheOrderOfRegistration) {
  const auto handler = zym::CreateObject<Handler>();
  Register(5, handler);
  Register(3, handler);
  Register(4, handler, false);
  Register(8, handler, true, kOtherType);
  Register(7, {});
  Register(1, handler);
  SendEvent();
  EXPECT_EQ(handler->Calls(), (std::vector<std::uint32_t>{5, 3, 1}));
}

TEST_F(FilterManagerTest, ADisabledOrDetachedFilterIsNotCalled) {
  const auto handler = zym::CreateObject<Handler>();
  for (const std::uint32_t id : {1U, 2U, 3U}) Register(id, handler);
  Disable({1});
  m_source->DetachHandler(2);
  SendEvent();
  EXPECT_EQ(handler->Calls(), (std::vector<std::uint32_t>{3}));
}

TEST_F(FilterManagerTest, AttachHandlerReleasesTheOldOneAndANullHandlerClearsIt) {
  auto old = zym::CreateObject<Handler>();
  const auto other = zym::CreateObject<Handler>();
  Register(1, old);
  EXPECT_EQ(m_source->AttachHandler(1, other.get()), zym::ZYM_OK);
  EXPECT_EQ(old->AddRef(), 2U) << "the table still holds the old handler";
  old->Release();
  SendEvent();
  EXPECT_TRUE(old->Calls().empty());
  EXPECT_EQ(other->Calls().size(), 1U);
  EXPECT_EQ(m_source->AttachHandler(1, nullptr), zym::ZYM_OK);
  SendEvent();
  EXPECT_EQ(other->Calls().size(), 1U);
}

TEST_F(FilterManagerTest, AHandlerThatRaisesIsTracedAndTheNextFilterIsCalled) {
  const auto raising =
      zym::CreateObject<Handler>([](std::uint32_t) { throw std::out_of_range("no such row"); });
  const auto next = zym::CreateObject<Handler>();
  Register(1, raising);
  Register(2, next);
  SendEvent();
  EXPECT_EQ(next->Calls(), (std::vector<std::uint32_t>{2}));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Source::OnEvent: no such row"));
  // Its use count is back: nothing waits for it.
  EXPECT_EQ(Delete({1}), zym::ZYM_OK);
  EXPECT_FALSE(IsThere(1));
}

TEST_F(FilterManagerTest, AnythingElseThanAnExceptionIsCaughtToo) {
  Register(1, zym::CreateObject<Handler>([](std::uint32_t) { throw 42; }));
  SendEvent();
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "OnEvent: unknown exception"));
  EXPECT_EQ(Disable({1}), zym::ZYM_OK);
}

TEST_F(FilterManagerTest, AFilterThatIsAddedDuringTheWalkIsServedByIt) {
  const auto late = zym::CreateObject<Handler>();
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) { Register(2, late); }));
  SendEvent();
  EXPECT_EQ(late->Calls(), (std::vector<std::uint32_t>{2}));
}

TEST_F(FilterManagerTest, NoLockIsHeldDuringStartStopAndHandlers) {
  int looks = 0;
  const auto look = [&] {
    bool enabled = false;
    m_source->GetFilterStatus(1, &enabled);
    ++looks;
  };
  m_source->onStart = look;
  m_source->onStop = look;
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) { look(); }));
  SendEvent();
  Disable({1});
  EXPECT_EQ(looks, 3);
}

// --- Removal while handlers run. ---

void FilterManagerTest::ExpectToWaitForTheRunningHandler(const std::function<zym::result_t()>& remove) {
  HeldCall held;
  Register(1, held.handler);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  bool handlerHadLeft = false;
  Call call([&] {
    EXPECT_EQ(remove(), zym::ZYM_OK);
    handlerHadLeft = held.left;
  });
  EXPECT_TRUE(call.IsBlocked());
  EXPECT_EQ(m_source->stops, 0);
  held.release.Open();
  call.Join();
  EXPECT_TRUE(handlerHadLeft);
  EXPECT_EQ(m_source->stops, 1);
  sender.join();
  SendEvent();
  EXPECT_EQ(held.handler->Calls().size(), 1U) << "a call began after the removal had returned";
}

TEST_F(FilterManagerTest, DisableFiltersWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return Disable({1}); });
}

TEST_F(FilterManagerTest, DetachHandlerWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return m_source->DetachHandler(1); });
}

TEST_F(FilterManagerTest, DeleteFiltersWaitsForARunningHandlerAndNoCallBeginsAfterwards) {
  ExpectToWaitForTheRunningHandler([this] { return Delete({1}); });
}

TEST_F(FilterManagerTest, DisableFiltersDoesNotWaitForTheHandlersOfOtherFilters) {
  HeldCall held;
  Register(1, held.handler);
  Register(2, zym::CreateObject<Handler>());
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  EXPECT_EQ(Disable({2}), zym::ZYM_OK);
  EXPECT_FALSE(held.left);
  held.release.Open();
  sender.join();
}

TEST_F(FilterManagerTest, DisableFiltersWaitsForEveryRunningCallOfAFilter) {
  std::array<Gate, 2> entered;
  std::array<Gate, 2> release;
  std::atomic<std::size_t> calls{0};
  std::atomic<int> left{0};
  Register(1, zym::CreateObject<Handler>([&](std::uint32_t) {
             const std::size_t call = calls++;
             entered[call].Open();
             release[call].Wait();
             ++left;
           }));
  std::array<std::thread, 2> senders;
  for (std::thread& sender : senders) sender = std::thread([this] { SendEvent(); });
  for (Gate& gate : entered) gate.Wait();
  int leftAtReturn = 0;
  Call disable([&] {
    Disable({1});
    leftAtReturn = left;
  });
  EXPECT_TRUE(disable.IsBlocked());
  release[0].Open();
  EXPECT_TRUE(Eventually([&] { return left == 1; }));
  EXPECT_TRUE(disable.IsBlocked());
  release[1].Open();
  disable.Join();
  EXPECT_EQ(leftAtReturn, 2);
  for (std::thread& sender : senders) sender.join();
}

TEST_F(FilterManagerTest, AFilterThatIsDeletedDuringTheWalkIsNotCalledAndTheWalkGoesOn) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, others);
  Register(2, held.handler);
  Register(3, others);
  Register(4, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  EXPECT_EQ(Delete({3}), zym::ZYM_OK);
  held.release.Open();
  sender.join();
  EXPECT_EQ(others->Calls(), (std::vector<std::uint32_t>{1, 4}));
}

TEST_F(FilterManagerTest, TheTableMayMoveDuringACallAndNobodyIsCalledTwiceOrForgotten) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, others);
  Register(2, others);
  Register(3, held.handler);
  Register(4, others);
  Register(5, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  // Filter 3 stands first now; the walk goes on two places behind it and comes around.
  EXPECT_EQ(Delete({1, 2}), zym::ZYM_OK);
  held.release.Open();
  sender.join();
  std::vector<std::uint32_t> calls = others->Calls();
  std::ranges::sort(calls);
  EXPECT_EQ(calls, (std::vector<std::uint32_t>{1, 2, 4, 5}));
  EXPECT_EQ(held.handler->Calls().size(), 1U);
  EXPECT_EQ(Disable({3}), zym::ZYM_OK) << "its use count was put back where it stands now";
}

TEST_F(FilterManagerTest, AFilterThatIsDeletedByAnotherThreadDuringItsOwnCallIsGoneAndTheWalkGoesOn) {
  const auto others = zym::CreateObject<Handler>();
  HeldCall held;
  Register(1, held.handler);
  Register(2, others);
  std::thread sender([this] { SendEvent(); });
  held.entered.Wait();
  Call remove([&] { EXPECT_EQ(Delete({1}), zym::ZYM_OK); });
  EXPECT_TRUE(remove.IsBlocked());
  held.release.Open();
  remove.Join();
  sender.join();
  EXPECT_FALSE(IsThere(1));
  EXPECT_EQ(others->Calls(), (std::vector<std::uint32_t>{2}));
}

TEST_F(FilterManagerTest, AHandlerLivesUntilItsLastCallReturns) {
  std::atomic<bool> destroyed{false};
  struct Mark {
    explicit Mark(std::atomic<bool>& f) : flag(f) {}
    std::atomic<bool>& flag;
    ~Mark() { flag = true; }
  };
  Gate entered;
  Gate release;
  bool destroyedDuringCall = true;
  {
    auto mark = std::make_shared<Mark>(destroyed);
    Register(1, zym::CreateObject<Handler>([&, mark](std::uint32_t) {
               entered.Open();
               release.Wait();
               destroyedDuringCall = destroyed;
             }));
  }
  std::thread sender([this] { SendEvent(); });
  entered.Wait();
  Call detach([&] { m_source->DetachHandler(1); });
  EXPECT_TRUE(detach.IsBlocked());
  release.Open();
  detach.Join();
  sender.join();
  EXPECT_FALSE(destroyedDuringCall);
  EXPECT_TRUE(destroyed);
}

TEST_F(FilterManagerTest, ManyThreadsSendAndChangeAtOnceAndNoCallOutlivesItsRemoval) {
  constexpr int kRounds = 300;
  std::atomic<bool> done{false};
  std::atomic<int> lateCalls{0};
  std::vector<std::thread> senders;
  for (int i = 0; i < 2; ++i)
    senders.emplace_back([&] {
      while (!done) SendEvent();
    });
  const auto change = [&](std::uint32_t id) {
    for (int round = 0; round < kRounds; ++round) {
      std::atomic<bool> removed{false};
      Register(id, zym::CreateObject<Handler>([&](std::uint32_t) {
                 if (removed) ++lateCalls;
               }));
      switch (round % 3) {
        case 0:
          Disable({id});
          break;
        case 1:
          m_source->DetachHandler(id);
          break;
        default:
          break;
      }
      Delete({id});
      removed = true;
    }
  };
  std::vector<std::thread> changers;
  for (const std::uint32_t id : {1U, 2U, 3U}) changers.emplace_back(change, id);
  for (std::thread& changer : changers) changer.join();
  done = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(lateCalls, 0);
}

// --- The blocking table. ---

class NoControl : public zym::object::Ifaces<IEventControl> {
 public:
  zym::result_t Pend(std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t PreReply(const Action&, std::uint32_t) override { return zym::ZYM_OK; }
  zym::result_t Reply(const Action& action) override {
    replies.push_back(action);
    return zym::ZYM_OK;
  }
  std::vector<Action> replies;
};

class BlockingHandler
    : public zym::object::Ifaces<system_interceptors::event_processing::IBlockingEventHandler> {
 public:
  void OnEvent(ISystemEvent*, std::uint32_t filterId, IEventControl* control) override {
    calls.push_back(filterId);
    control->Reply(Action::kDeny);
  }
  std::vector<std::uint32_t> calls;
};

TEST(BlockingFilterManager, PassesTheControlBehindTheId) {
  const std::int32_t before = zym::ModuleObjectCounter::Value();
  {
    test_support::FakeHost host;
    const auto source = zym::CreateObject<Source<blocking::Filter>>(host.locator.get());
    const auto handler = zym::CreateObject<BlockingHandler>();
    const auto control = zym::CreateObject<NoControl>();
    const auto event = zym::CreateObject<SomeEvent>();
    for (const std::uint32_t id : {4U, 2U})
      EXPECT_EQ(source->RegisterFilter({.enabled = true,
                                        .handler = handler,
                                        .descriptor = {.type = kType},
                                        .id = id,
                                        .timeout = 1000}),
                zym::ZYM_OK);
    source->OnEvent(kType, event.get(), control.get());
    EXPECT_EQ(handler->calls, (std::vector<std::uint32_t>{4, 2}));
    EXPECT_EQ(control->replies.size(), 2U);
    Ids ids{4, 2};
    EXPECT_EQ(source->DeleteFilters(RangeOf(ids)), zym::ZYM_OK);
    EXPECT_EQ(source->stops, 1);
  }
  EXPECT_EQ(zym::ModuleObjectCounter::Value(), before);
}

// A handler of a blocking filter is given at its registration and stays.
template <class Table>
concept HasHandlerOperations = requires(Table& table, typename Table::Handler* handler) {
  table.AttachHandler(1, handler);
  table.DetachHandler(1);
};
static_assert(HasHandlerOperations<FilterManager<non_blocking::Filter>>);
static_assert(!HasHandlerOperations<FilterManager<blocking::Filter>>);

}  // namespace
}  // namespace qor::process_manager
