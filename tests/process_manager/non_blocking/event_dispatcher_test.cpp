#include "process_manager/non_blocking/event_dispatcher.h"

#include <gtest/gtest.h>

#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include "support/fake_services.h"

namespace qor::process_manager::non_blocking {
namespace {

namespace event_type = system_interceptors::event_type;

class FakeEvent : public zym::object::Ifaces<ISystemEvent> {
 public:
  FakeEvent(std::uint32_t type, PidType pid, PidType cpid, bool complete = true)
      : m_type(type), m_pid(pid), m_cpid(cpid), m_complete(complete) {}
  zym::result_t GetEventId(const std::uint64_t**) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetParam(std::uint32_t, zym::types::range_t<const std::uint8_t*>*) override {
    return zym::ZYM_E_NOT_SUPPORTED;
  }
  std::uint32_t GetType() override { return m_type; }
  PidType GetPid() override { return m_pid; }
  PidType GetCpid() override { return m_cpid; }
  bool IsFake() override { return false; }
  bool Complete() override { return m_complete; }
  zym::types::string16_t ToString() override { return u"fake event"; }

 private:
  std::uint32_t m_type;
  PidType m_pid;
  PidType m_cpid;
  bool m_complete;
};

using Events = zym::types::vector_t<zym::intrusive_ptr<ISystemEvent>>;

class EventDispatcherTest : public testing::Test {
 protected:
  void MakeDispatcher(std::uint64_t limit = EventDispatcher::kPendingLimit) {
    m_dispatcher = zym::CreateObject<EventDispatcher>(m_host.locator.get(), limit);
    const auto record = [this](const zym::intrusive_ptr<ISystemEvent>& event) {
      const std::scoped_lock lock(m_mutex);
      m_handled.push_back(event->GetPid());
    };
    m_dispatcher->SetCreateProcessHandler(record);
    m_dispatcher->SetExitProcessHandler(record);
  }
  void Dispatch(std::uint32_t type, PidType pid, PidType cpid = 0, bool complete = true) {
    Events events;
    events.push_back(zym::CreateObject<FakeEvent>(type, pid, cpid, complete));
    m_dispatcher->Dispatch(events);
  }
  // Returns once everything dispatched so far is finished.
  void WaitUntilIdle() {
    while (m_dispatcher->GetTotal() != 0) std::this_thread::yield();
  }
  // Keeps the worker in a handler until the latch is counted down.
  void Block(std::latch& mayReturn) {
    auto running = std::make_shared<std::latch>(1);
    m_dispatcher->SetFileChangedHandler([running, &mayReturn](const auto&) {
      running->count_down();
      mayReturn.wait();
    });
    Dispatch(event_type::kFileChanged, 1);
    running->wait();
  }

  test_support::FakeHost m_host;
  std::mutex m_mutex;
  std::vector<PidType> m_handled;
  zym::intrusive_ptr<EventDispatcher> m_dispatcher;
};

TEST_F(EventDispatcherTest, HandlesEventsInTheOrderOfDispatch) {
  MakeDispatcher();
  for (PidType pid = 10; pid < 200; ++pid) Dispatch(event_type::kCreateProcess, pid % 17 + 2, pid);
  WaitUntilIdle();
  ASSERT_EQ(m_handled.size(), 190U);
  for (PidType pid = 10; pid < 200; ++pid) EXPECT_EQ(m_handled[pid - 10], pid % 17 + 2);
}

TEST_F(EventDispatcherTest, TheEventThatFindsTheLimitIsAcceptedAndBeyondItOnlyExitsAre) {
  MakeDispatcher(3);
  std::latch mayReturn(1);
  Block(mayReturn);  // 1 pending
  Dispatch(event_type::kCreateProcess, 10);
  Dispatch(event_type::kCreateProcess, 11);
  Dispatch(event_type::kCreateProcess, 12);  // finds 3
  EXPECT_EQ(m_dispatcher->GetTotal(), 4U);
  Dispatch(event_type::kCreateProcess, 13);
  EXPECT_EQ(m_dispatcher->GetTotal(), 4U);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kCall,
                                 "Dispatch: event queue is full. skip all events except exit_process"));
  Dispatch(event_type::kExitProcess, 14);
  EXPECT_EQ(m_dispatcher->GetTotal(), 5U);
  mayReturn.count_down();
  WaitUntilIdle();
  EXPECT_EQ(m_handled, (std::vector<PidType>{10, 11, 12, 14}));
}

TEST_F(EventDispatcherTest, TheLimitIsTwoMillion) {
  EXPECT_EQ(EventDispatcher::kPendingLimit, 2000000U);
}

TEST_F(EventDispatcherTest, ACauseThatIsNoneOrTheProcessItselfTakesNoReference) {
  MakeDispatcher();
  std::latch mayReturn(1);
  Block(mayReturn);
  const std::size_t before = m_dispatcher->GetProcessingPidsCount();
  Dispatch(event_type::kCreateProcess, 20, 0);
  Dispatch(event_type::kCreateProcess, 21, 1);
  Dispatch(event_type::kCreateProcess, 22, 22);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), before + 3);
  Dispatch(event_type::kCreateProcess, 23, 24);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), before + 5);
  mayReturn.count_down();
  WaitUntilIdle();
}

TEST_F(EventDispatcherTest, AProcessAndItsCauseAreAssignedToOneQueue) {
  MakeDispatcher();
  std::latch mayReturn(1);
  Block(mayReturn);
  Dispatch(event_type::kCreateProcess, 30, 31);
  Dispatch(event_type::kExitProcess, 31, 31);
  EXPECT_TRUE(m_host.tracer->Has("GetStrand: pid: 30, cpid: 31, assigned to queue 0, size: 2, "));
  EXPECT_TRUE(m_host.tracer->Has("GetStrand: pid: 31, cpid: 31, assigned to queue 0, size: 3, "));
  mayReturn.count_down();
  WaitUntilIdle();
}

TEST_F(EventDispatcherTest, NothingIsCountedOnceAllEventsAreFinished) {
  MakeDispatcher();
  for (PidType pid = 10; pid < 100; ++pid) Dispatch(event_type::kCreateProcess, pid, pid + 1);
  WaitUntilIdle();
  EXPECT_EQ(m_dispatcher->GetTotal(), 0U);
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

TEST_F(EventDispatcherTest, AnEventThatIsNotToBeSeenReachesNoHandlerAndIsCountedOut) {
  MakeDispatcher();
  Dispatch(event_type::kCreateProcess, 10, 11, false);
  WaitUntilIdle();
  EXPECT_TRUE(m_handled.empty());
  EXPECT_EQ(m_dispatcher->GetProcessingPidsCount(), 0U);
}

TEST_F(EventDispatcherTest, AnUnknownTypeIsTracedAndForgotten) {
  MakeDispatcher();
  Dispatch(12345, 10);
  WaitUntilIdle();
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "ProcessQueuedEvent: Unsupported event : 12345"));
}

TEST_F(EventDispatcherTest, DestructionReleasesQueuedEventsWithoutHandlingThem) {
  MakeDispatcher();
  std::latch running(1);
  // The worker stays in this handler until the destructor has begun.
  m_dispatcher->SetFileChangedHandler([&](const auto&) {
    running.count_down();
    while (!m_host.tracer->Has("~EventDispatcher() ")) std::this_thread::yield();
  });
  const std::int32_t objects = zym::ModuleObjectCounter::Value();
  Dispatch(event_type::kFileChanged, 1);
  running.wait();
  constexpr std::size_t kQueued = 1000;
  for (PidType pid = 10; pid < 10 + kQueued; ++pid) Dispatch(event_type::kCreateProcess, pid);
  m_dispatcher.Reset();
  EXPECT_LT(m_handled.size(), kQueued);
  EXPECT_LT(zym::ModuleObjectCounter::Value(), objects) << "every event is released";
}

TEST_F(EventDispatcherTest, DispatchTakesEventsFromSeveralThreads) {
  MakeDispatcher();
  std::vector<std::thread> threads;
  for (PidType thread = 0; thread < 4; ++thread)
    threads.emplace_back([this, thread] {
      for (PidType i = 0; i < 250; ++i) Dispatch(event_type::kCreateProcess, 1000 * (thread + 1) + i, 5);
    });
  for (std::thread& thread : threads) thread.join();
  WaitUntilIdle();
  EXPECT_EQ(m_handled.size(), 1000U);
}

}  // namespace
}  // namespace qor::process_manager::non_blocking
