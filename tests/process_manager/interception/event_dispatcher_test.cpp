#include "process_manager/interception/event_dispatcher.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/fake_services.h"
#include "support/threads.h"
#include "zym/module_counter.h"
#include "zym/utf.h"

namespace qor::process_manager::non_blocking {
namespace {

using test_support::Call;
using test_support::Eventually;
using test_support::Gate;
namespace event_type = system_interceptors::event_type;

// The number that the creator of the product's dispatcher builds with.
static_assert(EventDispatcher::kPendingLimit == 2'000'000);

class TestEvent : public zym::object::Ifaces<ISystemEvent> {
 public:
  TestEvent(std::uint32_t type, PidType pid, PidType cpid, std::uint64_t number = 0)
      : m_type(type), m_pid(pid), m_cpid(cpid), m_number(number) {}

  zym::result_t GetEventId(const std::uint64_t** id) override {
    *id = &m_number;
    return zym::ZYM_OK;
  }
  zym::result_t GetParam(std::uint32_t, zym::types::range_t<const std::uint8_t*>*) override {
    return zym::ZYM_E_NOT_SUPPORTED;
  }
  std::uint32_t GetType() override { return m_type; }
  PidType GetPid() override {
    if (raiseInGetPid) throw std::runtime_error("no pid");
    return m_pid;
  }
  PidType GetCpid() override { return m_cpid; }
  bool IsFake() override { return false; }
  bool Complete() override {
    ++completions;
    return showToHandlers;
  }
  zym::types::string16_t ToString() override {
    if (raiseInToString) throw std::bad_alloc();
    return *zym::Utf8ToUtf16("event " + std::to_string(m_number));
  }

  std::atomic<int> completions{0};
  bool showToHandlers = true;
  bool raiseInGetPid = false;
  bool raiseInToString = false;

 private:
  const std::uint32_t m_type;
  const PidType m_pid;
  const PidType m_cpid;
  const std::uint64_t m_number;
};

using Event = zym::intrusive_ptr<ISystemEvent>;
using Events = zym::types::vector_t<Event>;

zym::intrusive_ptr<TestEvent> MakeEvent(std::uint32_t type, PidType pid, PidType cpid = 0,
                                        std::uint64_t number = 0) {
  return zym::CreateObject<TestEvent>(type, pid, cpid, number);
}

std::uint64_t NumberOf(const Event& event) {
  const std::uint64_t* id = nullptr;
  event->GetEventId(&id);
  return *id;
}

class EventDispatcherTest : public testing::Test {
 protected:
  ~EventDispatcherTest() override {
    m_dispatcher = {};
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
  }

  void Create(std::uint64_t pendingLimit = EventDispatcher::kPendingLimit) {
    m_dispatcher = zym::CreateObject<EventDispatcher>(m_host.locator.get(), pendingLimit);
  }

  void Dispatch(std::initializer_list<Event> list) {
    Events events(list);
    m_dispatcher->Dispatch(events);
    EXPECT_TRUE(events.empty()) << "the events were taken over";
  }

  // Holds the worker in the handler of exit_process, with one event of this pid, until Release.
  void HoldWorker(PidType pid = 100) {
    m_dispatcher->SetExitProcessHandler([this](const Event&) {
      if (m_held.exchange(true)) return;
      m_entered.Open();
      m_release.Wait();
    });
    Dispatch({MakeEvent(event_type::kExitProcess, pid)});
    m_entered.Wait();
  }
  void Release() { m_release.Open(); }

  void WaitUntilIdle() {
    EXPECT_TRUE(Eventually([this] { return m_dispatcher->GetTotal() == 0; }));
  }
  bool Has(std::string_view text) {
    return m_host.tracer->Has(zym::trace::kCall, "EventDispatcher::" + std::string(text));
  }

  test_support::FakeHost m_host;
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<EventDispatcher> m_dispatcher;
  std::atomic<bool> m_held{false};
  Gate m_entered;
  Gate m_release;
};

TEST_F(EventDispatcherTest, ItsInterfacesAreTheDispatcherAlone) {
  Create();
  zym::intrusive_ptr<IEventDispatcher> dispatcher;
  EXPECT_EQ(m_dispatcher->QueryInterface(0x4c2ef210, reinterpret_cast<void**>(dispatcher.Ref())),
            zym::ZYM_OK);
  EXPECT_EQ(dispatcher.get(), m_dispatcher.get());
  void* other = nullptr;
  EXPECT_EQ(m_dispatcher->QueryInterface(ISystemEvent::kIid, &other), zym::ZYM_E_NO_INTERFACE);
}

TEST_F(EventDispatcherTest, WithoutATracerThereIsNoDispatcher) {
  m_host.locator->Remove(zym::ITracer::kIid);
  EXPECT_THROW(Create(), zym::GetInterfaceException);
}

TEST_F(EventDispatcherTest, WithoutAThreadThereIsNoDispatcher) {
  pthread_attr_t usual{};
  ASSERT_EQ(::pthread_getattr_default_np(&usual), 0);
  pthread_attr_t huge{};
  ASSERT_EQ(::pthread_attr_init(&huge), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 50), 0);
  ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
  EXPECT_THROW(Create(), std::exception);
  ASSERT_EQ(::pthread_setattr_default_np(&usual), 0);
  EXPECT_FALSE(m_dispatcher);
  Create();
  const auto event = MakeEvent(event_type::kFileCreated, 5);
  Dispatch({event});
  WaitUntilIdle();
  EXPECT_EQ(event->completions, 1);
}

TEST_F(EventDispatcherTest, EntriesOfConstructionAndDestructionAreTraced) {
  Create();
  EXPECT_TRUE(Has("EventDispatcher() "));
  m_dispatcher = {};
  EXPECT_TRUE(Has("~EventDispatcher() "));
}

TEST_F(EventDispatcherTest, HandlersRunOnTheWorkerWhichHasItsName) {
  Create();
  std::string name;
  Gate handled;
  m_dispatcher->SetCreateProcessHandler([&](const Event&) {
    char buffer[16] = {};
    ::prctl(PR_GET_NAME, buffer);
    name = buffer;
    handled.Open();
  });
  Dispatch({MakeEvent(event_type::kCreateProcess, 5)});
  handled.Wait();
  EXPECT_EQ(name, "vornPrcMonProc");
}

TEST_F(EventDispatcherTest, EachTypeHasItsHandler) {
  Create();
  std::map<std::uint32_t, std::vector<std::uint32_t>> seen;  // by the handler that was set for the type
  const auto note = [&](std::uint32_t type) {
    return [&seen, type](const Event& event) { seen[type].push_back(event->GetType()); };
  };
  m_dispatcher->SetCreateProcessHandler(note(0x7fc4443b));
  m_dispatcher->SetExitProcessHandler(note(0x0ed23a39));
  m_dispatcher->SetFileCreatedHandler(note(0x4889b764));
  m_dispatcher->SetFileChangedHandler(note(0x59473d26));
  m_dispatcher->SetConsoleInputHandler(note(0x0e21bfd7));
  for (const std::uint32_t type : {0x7fc4443bU, 0x0ed23a39U, 0x4889b764U, 0x59473d26U, 0x0e21bfd7U})
    Dispatch({MakeEvent(type, 5)});
  WaitUntilIdle();
  EXPECT_EQ(seen.size(), 5U);
  for (const auto& [type, events] : seen) EXPECT_EQ(events, std::vector<std::uint32_t>{type});
}

TEST_F(EventDispatcherTest, AnEventWithoutAHandlerIsCompletedAndForgotten) {
  Create();
  const auto event = MakeEvent(event_type::kFileCreated, 5);
  Dispatch({event});
  WaitUntilIdle();
  EXPECT_EQ(event->completions, 1);
}

// The journal's events don't pass through here.
TEST_F(EventDispatcherTest, AnUnknownTypeIsTracedAndLeavesTheCountersAsIfHandled) {
  Create();
  Dispatch({MakeEvent(event_type::kJournal, 5)});
  WaitUntilIdle();
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure,
                                 "EventDispatcher::ProcessQueuedEvent: Unsupported event : 3660608892"));
}

TEST_F(EventDispatcherTest, AnEventWhoseTextCannotBeMadeForTheTraceIsCompletedAndHandled) {
  Create();
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([&](const Event&) { ++calls; });
  const auto event = MakeEvent(event_type::kCreateProcess, 5, 4);
  event->raiseInToString = true;
  Dispatch({event});
  WaitUntilIdle();
  EXPECT_TRUE(m_host.tracer->Has(800, "ProcessQueuedEvent: nonblocking event: "));
  EXPECT_EQ(event->completions, 1);
  EXPECT_EQ(calls, 1);
}

TEST_F(EventDispatcherTest, AnEventThatCompleteSkipsReachesNoHandlerAndLeavesTheCountersAsIfHandled) {
  Create();
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([&](const Event&) { ++calls; });
  const auto event = MakeEvent(event_type::kCreateProcess, 5, 4);
  event->showToHandlers = false;
  Dispatch({event});
  WaitUntilIdle();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(event->completions, 1);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

TEST_F(EventDispatcherTest, EventsAreHandledInTheOrderOfDispatch) {
  Create();
  std::vector<std::uint64_t> seen;
  const auto note = [&](const Event& event) { seen.push_back(NumberOf(event)); };
  m_dispatcher->SetExitProcessHandler(note);
  m_dispatcher->SetCreateProcessHandler(note);
  std::vector<std::uint64_t> expected;
  for (std::uint64_t i = 0; i < 1000; i += 2) {
    // Both sides of an exec, of changing pids.
    Dispatch({MakeEvent(event_type::kExitProcess, static_cast<PidType>(2 + i % 7), 0, i),
              MakeEvent(event_type::kCreateProcess, static_cast<PidType>(2 + i % 7), 0, i + 1)});
    expected.insert(expected.end(), {i, i + 1});
  }
  WaitUntilIdle();
  EXPECT_EQ(seen, expected);
}

TEST_F(EventDispatcherTest, EventsOfSeveralThreadsAllArriveAndThoseOfEachThreadInOrder) {
  constexpr std::uint64_t kEach = 2000;
  constexpr PidType kThreads = 4;
  Create();
  std::map<PidType, std::vector<std::uint64_t>> seen;
  m_dispatcher->SetCreateProcessHandler(
      [&](const Event& event) { seen[event->GetPid()].push_back(NumberOf(event)); });
  std::vector<std::thread> threads;
  for (PidType pid = 2; pid < 2 + kThreads; ++pid)
    threads.emplace_back([&, pid] {
      for (std::uint64_t i = 0; i < kEach; ++i)
        Dispatch({MakeEvent(event_type::kCreateProcess, pid, 1000, i)});
    });
  for (std::thread& thread : threads) thread.join();
  WaitUntilIdle();
  EXPECT_EQ(seen.size(), kThreads);
  for (const auto& [pid, numbers] : seen) {
    ASSERT_EQ(numbers.size(), kEach) << pid;
    for (std::uint64_t i = 0; i < kEach; ++i) ASSERT_EQ(numbers[i], i) << pid;
  }
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

// After the last event the worker rests for a moment. One event at a time finds it waiting, resting, or on
// its way from the one to the other.
TEST_F(EventDispatcherTest, EventsThatComeWhileTheWorkerRestsAreHandledInTheirOrder) {
  Create();
  std::vector<std::uint64_t> seen;
  m_dispatcher->SetCreateProcessHandler([&](const Event& event) { seen.push_back(NumberOf(event)); });
  std::vector<std::uint64_t> expected;
  for (std::uint64_t i = 0; i < 300; i += 3) {
    Dispatch({MakeEvent(event_type::kCreateProcess, 5, 0, i)});
    WaitUntilIdle();
    Dispatch({MakeEvent(event_type::kCreateProcess, 6, 0, i + 1)});
    Dispatch({MakeEvent(event_type::kCreateProcess, 5, 0, i + 2)});
    expected.insert(expected.end(), {i, i + 1, i + 2});
  }
  WaitUntilIdle();
  EXPECT_EQ(seen, expected);
}

// --- The limit. ---

TEST_F(EventDispatcherTest, TheEventThatFindsTheTotalAtTheLimitIsAcceptedAndBeyondOnlyExitProcess) {
  Create(3);
  HoldWorker();  // one event is pending as long as its handler runs
  Dispatch({MakeEvent(event_type::kCreateProcess, 5), MakeEvent(event_type::kCreateProcess, 5)});
  EXPECT_EQ(m_dispatcher->GetTotal(), 3U);
  EXPECT_FALSE(Has("Dispatch: event queue is full"));

  const auto atLimit = MakeEvent(event_type::kCreateProcess, 5);
  Dispatch({atLimit});
  EXPECT_EQ(m_dispatcher->GetTotal(), 4U);
  EXPECT_FALSE(Has("Dispatch: event queue is full"));

  for (const std::uint32_t type : {event_type::kCreateProcess, event_type::kFileCreated,
                                   event_type::kFileChanged, event_type::kConsoleInput}) {
    const auto beyond = MakeEvent(type, 5);
    m_host.tracer->Clear();
    Dispatch({beyond});
    EXPECT_EQ(m_dispatcher->GetTotal(), 4U);
    EXPECT_TRUE(Has("Dispatch: event queue is full. skip all events except exit_process"));
    EXPECT_EQ(beyond->AddRef(), 2U) << "it was released at once";
    beyond->Release();
  }

  Dispatch({MakeEvent(event_type::kExitProcess, 5)});
  EXPECT_EQ(m_dispatcher->GetTotal(), 5U);

  Release();
  WaitUntilIdle();
  EXPECT_EQ(atLimit->completions, 1);
  const auto afterwards = MakeEvent(event_type::kCreateProcess, 5);
  Dispatch({afterwards});
  WaitUntilIdle();
  EXPECT_EQ(afterwards->completions, 1);
}

// --- Who counts. ---

TEST_F(EventDispatcherTest, ACpidOf0Or1OrOfThePidItselfTakesNoReference) {
  Create();
  HoldWorker(100);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 1U);
  for (const PidType cpid : {0U, 1U, 7U}) Dispatch({MakeEvent(event_type::kCreateProcess, 7, cpid)});
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 2U);
  Dispatch({MakeEvent(event_type::kCreateProcess, 7, 2)});
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 3U);
  Release();
  WaitUntilIdle();
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

TEST_F(EventDispatcherTest, AfterAllEventsTheMapIsEmptyAndTheTotalIsZero) {
  Create();
  HoldWorker();
  for (PidType pid = 10; pid < 50; ++pid)
    Dispatch({MakeEvent(event_type::kCreateProcess, pid, pid / 2), MakeEvent(event_type::kExitProcess, pid)});
  EXPECT_EQ(m_dispatcher->GetTotal(), 81U);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 46U);  // 5 to 49, and the held one
  Release();
  WaitUntilIdle();
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

TEST_F(EventDispatcherTest, AParentAndItsChildInFlightAreOnOneQueue) {
  Create();
  HoldWorker(100);
  m_host.tracer->Clear();
  Dispatch({MakeEvent(event_type::kCreateProcess, 200, 100)});  // the child of the one that is held
  Dispatch({MakeEvent(event_type::kExitProcess, 100, 1)});
  EXPECT_TRUE(
      Has("GetStrand: pid: 200, cpid: 100, assigned to queue 0, size: 2, processing pids count: 2, all: 2"));
  EXPECT_TRUE(
      Has("GetStrand: pid: 100, cpid: 1, assigned to queue 0, size: 3, processing pids count: 2, all: 3"));
  Release();
  WaitUntilIdle();
}

TEST_F(EventDispatcherTest, TheStagesOfAnEventAreTraced) {
  Create();
  Dispatch({MakeEvent(event_type::kCreateProcess, 200, 100, 17)});
  WaitUntilIdle();
  m_dispatcher = {};  // joins the worker, whose last trace follows its last count
  EXPECT_TRUE(
      Has("GetStrand: pid: 200, cpid: 100, assigned to queue 0, size: 1, processing pids count: 2, all: 1"));
  EXPECT_TRUE(Has("ProcessQueuedEvent: nonblocking event: event 17"));
  EXPECT_TRUE(
      Has("OnEventProcessed: pid: 200, cpid: 100, removed from queue 0, size: 0, processing pids count: 0, "
          "all: 0"));
}

// --- Handlers and setters. ---

TEST_F(EventDispatcherTest, ASetterWaitsForTheRunningHandlerAndTheOldFunctionIsNotCalledAgain) {
  Create();
  HoldWorker();
  const auto queued = MakeEvent(event_type::kExitProcess, 8);
  Dispatch({queued});
  std::atomic<int> calls{0};
  Call set([&] { m_dispatcher->SetExitProcessHandler([&](const Event&) { ++calls; }); });
  EXPECT_TRUE(set.IsBlocked());
  Release();
  set.Join();
  Dispatch({MakeEvent(event_type::kExitProcess, 9)});
  WaitUntilIdle();
  EXPECT_GE(calls, 1);
}

TEST_F(EventDispatcherTest, AfterAnEmptyFunctionIsSetTheOldOneIsGone) {
  Create();
  auto owned = std::make_shared<int>(0);
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([owned, &calls](const Event&) { ++calls; });
  m_dispatcher->SetCreateProcessHandler({});
  EXPECT_EQ(owned.use_count(), 1);
  const auto event = MakeEvent(event_type::kCreateProcess, 5);
  Dispatch({event});
  WaitUntilIdle();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(event->completions, 1);
}

TEST_F(EventDispatcherTest, WhatAHandlerRaisesIsTracedAndTheNextEventIsHandled) {
  Create();
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([&](const Event&) {
    ++calls;
    throw std::out_of_range("no such row");
  });
  Dispatch({MakeEvent(event_type::kCreateProcess, 5, 4), MakeEvent(event_type::kCreateProcess, 5, 4)});
  WaitUntilIdle();
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "EventDispatcher::ProcessQueuedEvent: no such row"));
}

TEST_F(EventDispatcherTest, AnEventThatCannotBeQueuedIsTracedAndTheOthersAreHandled) {
  Create();
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([&](const Event&) { ++calls; });
  const auto broken = MakeEvent(event_type::kCreateProcess, 5);
  broken->raiseInGetPid = true;
  Dispatch({MakeEvent(event_type::kCreateProcess, 5), broken, MakeEvent(event_type::kCreateProcess, 6)});
  WaitUntilIdle();
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "EventDispatcher::Dispatch: no pid"));
}

TEST_F(EventDispatcherTest, AHandlerMayDispatch) {
  Create();
  Gate handled;
  m_dispatcher->SetCreateProcessHandler(
      [&](const Event&) { Dispatch({MakeEvent(event_type::kFileCreated, 6)}); });
  m_dispatcher->SetFileCreatedHandler([&](const Event&) { handled.Open(); });
  Dispatch({MakeEvent(event_type::kCreateProcess, 5)});
  handled.Wait();
}

// --- The end. ---

TEST_F(EventDispatcherTest, ADispatcherWhoseWorkerRestsEndsAtOnceAndLeavesNothing) {
  for (int i = 0; i < 20; ++i) {
    Create();
    const auto event = MakeEvent(event_type::kCreateProcess, 5);
    Dispatch({event});
    WaitUntilIdle();
    m_dispatcher = {};
    EXPECT_EQ(event->completions, 1);
    EXPECT_EQ(event->AddRef(), 2U) << "nobody else holds it";
    event->Release();
  }
}

TEST_F(EventDispatcherTest, DestructionReleasesQueuedEventsAndCallsNoHandler) {
  Create();
  std::atomic<int> calls{0};
  m_dispatcher->SetCreateProcessHandler([&](const Event&) { ++calls; });
  HoldWorker();
  std::vector<zym::intrusive_ptr<TestEvent>> queued;
  for (PidType pid = 2; pid < 12; ++pid) queued.push_back(MakeEvent(event_type::kCreateProcess, pid));
  for (const auto& event : queued) Dispatch({event});
  Call destroy([this] { m_dispatcher = {}; });
  EXPECT_TRUE(destroy.IsBlocked()) << "it waits for the running handler";
  Release();
  destroy.Join();
  EXPECT_EQ(calls, 0);
  for (const auto& event : queued) {
    EXPECT_EQ(event->completions, 0);
    EXPECT_EQ(event->AddRef(), 2U) << "it was released with the queue";
    event->Release();
  }
}

TEST_F(EventDispatcherTest, DestructionOfAnIdleDispatcherReturns) {
  Create();
  m_dispatcher = {};
  EXPECT_FALSE(m_host.tracer->Has(zym::trace::kFailure, ""));
}

// The worker can't wait for itself: nothing but the end of the process is left.
TEST(EventDispatcherDeathTest, ReleasedOnItsOwnWorkerItEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr const char* kEnd =
      "terminate called";  // the exception's text is lost on the way through the sanitizer
#else
  constexpr const char* kEnd = "trying joining itself";
#endif
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        test_support::FakeHost host;
        auto dispatcher = zym::CreateObject<EventDispatcher>(host.locator.get());
        IEventDispatcher* const raw = dispatcher.Detach();
        raw->SetCreateProcessHandler([raw](const Event&) { raw->Release(); });
        Events events{MakeEvent(event_type::kCreateProcess, 5)};
        raw->Dispatch(events);
        Gate never;
        never.Wait();
      },
      kEnd);
}

}  // namespace
}  // namespace qor::process_manager::non_blocking
