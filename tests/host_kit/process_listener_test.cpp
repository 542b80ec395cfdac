#include "host_kit/process_listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/actor.h"
#include "support/own_process.h"
#include "support/rights.h"
#include "support/threads.h"

namespace {

using host_kit::Bootstrap;
using host_kit::EventKind;
using host_kit::EventView;
using host_kit::ProcessListener;
using qor::process_manager::non_blocking_type::kKprobes;

class ProcessListenerTest : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingProcConnector()); }
  void TearDown() override {
    EXPECT_TRUE(test_support::ThreadsNamed("vornPrcMonPoll").empty()) << "the source still runs";
  }

  host_kit::LoadedModule m_module{PROCESS_MANAGER_MODULE};
};

TEST_F(ProcessListenerTest, EventsComeOnTheModulesWorker) {
  const Bootstrap host(m_module);
  std::atomic<pid_t> worker{0};
  const ProcessListener listener(host, [&worker](const EventView& event) {
    if (event.GetKind() == EventKind::kFork) worker = ::gettid();
  });
  test_support::RunTrue();
  ASSERT_TRUE(test_support::Eventually([&worker] { return worker != 0; }));
  EXPECT_EQ(test_support::ThreadsNamed("vornPrcMonProc"), std::vector<pid_t>{worker});
}

// What a process went through, as "fork", "exec" and "exit".
class Life {
 public:
  void Add(const EventView& event) {
    const std::scoped_lock lock(m_mutex);
    m_events[event.GetPid()].push_back({event.GetKind(), event.GetUniquePid().value_or(0), event.IsFake()});
  }
  // Each image of the process has begun once and then ended once; false: the last hasn't ended yet.
  bool HasEnded(pid_t pid) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_events.find(static_cast<std::uint32_t>(pid));
    if (found == m_events.end()) return false;
    std::map<std::uint64_t, int> lives;  // 1: begun, 2: ended
    for (const Event& event : found->second) {
      EXPECT_EQ(lives[event.uniquePid]++, event.kind == EventKind::kExit ? 1 : 0) << event.uniquePid;
      EXPECT_FALSE(event.isFake);
    }
    return std::ranges::all_of(lives, [](const auto& life) { return life.second == 2; });
  }
  std::size_t Count(pid_t pid, EventKind kind) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_events.find(static_cast<std::uint32_t>(pid));
    return found == m_events.end()
               ? 0
               : static_cast<std::size_t>(std::ranges::count(found->second, kind, &Event::kind));
  }

 private:
  struct Event {
    EventKind kind;
    std::uint64_t uniquePid;
    bool isFake;
  };

  mutable std::mutex m_mutex;  // guards m_events
  std::map<std::uint32_t, std::vector<Event>> m_events;
};

TEST_F(ProcessListenerTest, AProcessThatOutlivesItsFirstThreadEndsWithItsLast) {
  const Bootstrap host(m_module);
  Life life;
  const ProcessListener listener(host, [&life](const EventView& event) { life.Add(event); });
  test_support::Actor actor({"leave-thread", "say", "wait"});
  actor.HearPid();
  ASSERT_TRUE(test_support::Eventually([&] { return test_support::StateOf(actor.Pid()) == 'Z'; }));
  const pid_t later = test_support::RunTrue();
  ASSERT_TRUE(test_support::Eventually([&] { return life.HasEnded(later); }));
  EXPECT_FALSE(life.HasEnded(actor.Pid())) << "events keep the kernel's order";
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  EXPECT_TRUE(test_support::Eventually([&] { return life.HasEnded(actor.Pid()); }));
  EXPECT_EQ(life.Count(actor.Pid(), EventKind::kExit), 2U) << "one by the exec of the actor";
}

TEST_F(ProcessListenerTest, AnExecByAnotherThanTheFirstThreadIsReportedAsEveryOther) {
  constexpr std::size_t kExecs = 25;
  const Bootstrap host(m_module);
  Life life;
  const ProcessListener listener(host, [&life](const EventView& event) { life.Add(event); });
  std::vector<std::string> steps;
  for (std::size_t i = 0; i < kExecs; ++i)
    for (const std::string& step :
         {std::string("on-thread"), std::string("exec"), test_support::Actor::Path(), std::string("actor")})
      steps.push_back(step);
  steps.emplace_back("say");
  test_support::Actor actor(steps);
  ASSERT_EQ(actor.HearPid(), actor.Pid());
  ASSERT_EQ(actor.Wait(), 0);
  ASSERT_TRUE(test_support::Eventually([&] {
    return life.Count(actor.Pid(), EventKind::kExec) == kExecs + 1 && life.HasEnded(actor.Pid());
  })) << life.Count(actor.Pid(), EventKind::kExec);
}

TEST_F(ProcessListenerTest, AProcessThatEndsWithAllItsThreadsEndsOnce) {
  const Bootstrap host(m_module);
  Life life;
  const ProcessListener listener(host, [&life](const EventView& event) { life.Add(event); });
  std::vector<pid_t> pids;
  for (int i = 0; i < 20; ++i) {
    test_support::Actor actor({"threads", "8"});
    ASSERT_EQ(actor.Wait(), 0);
    pids.push_back(actor.Pid());
  }
  for (const pid_t pid : pids) {
    EXPECT_TRUE(test_support::Eventually([&] { return life.HasEnded(pid); })) << pid;
    EXPECT_EQ(life.Count(pid, EventKind::kExit), 2U) << "one by the exec of the actor";
  }
}

// The handler is held before it has seen the start of the process, until the guard has handed out its end.
TEST_F(ProcessListenerTest, AnEndThatIsFoundOutWaitsForItsStart) {
  const Bootstrap host(m_module);
  Life life;
  test_support::Gate gate;
  const ProcessListener listener(host, [&](const EventView& event) {
    gate.Wait();
    life.Add(event);
  });
  const auto isKnown = [&host](pid_t pid) {
    qor::process_manager::process_cache::ProcessInformation info;
    return host.GetCache()->Get(pid, info);
  };
  test_support::Actor actor({"leave-thread", "say", "wait"});
  actor.HearPid();
  ASSERT_TRUE(test_support::Eventually([&] { return test_support::StateOf(actor.Pid()) == 'Z'; }));
  ASSERT_TRUE(test_support::Eventually([&] { return isKnown(actor.Pid()); }));
  actor.GoOn();
  ASSERT_EQ(actor.Wait(), 0);
  ASSERT_TRUE(test_support::Eventually([&] { return !isKnown(actor.Pid()); }));
  gate.Open();
  EXPECT_TRUE(test_support::Eventually([&] { return life.HasEnded(actor.Pid()); }));
}

TEST_F(ProcessListenerTest, ThoseForWhomThereIsNoDescriptorEndToo) {
  constexpr std::size_t kProcesses = host_kit::LateEnds::kMostDescriptors + 10;
  const Bootstrap host(m_module);
  Life life;
  const ProcessListener listener(host, [&life](const EventView& event) { life.Add(event); });
  std::vector<std::unique_ptr<test_support::Actor>> actors;
  for (std::size_t i = 0; i < kProcesses; ++i)
    actors.push_back(
        std::make_unique<test_support::Actor>(std::vector<std::string>{"leave-thread", "say", "wait"}));
  for (const auto& actor : actors) {
    actor->HearPid();
    ASSERT_TRUE(test_support::Eventually([&] { return test_support::StateOf(actor->Pid()) == 'Z'; }));
  }
  // Behind the ends of the first threads: when it has ended, they were handled.
  const pid_t later = test_support::RunTrue();
  ASSERT_TRUE(test_support::Eventually([&] { return life.HasEnded(later); }));
  std::size_t processes = 0;
  for (const auto& [fd, target] : test_support::OpenDescriptors())
    processes += target.find("pidfd") != std::string::npos ? 1 : 0;
  EXPECT_LE(processes, host_kit::LateEnds::kMostDescriptors);
  EXPECT_GE(processes, host_kit::LateEnds::kMostDescriptors / 2) << "they are not watched";
  for (const auto& actor : actors) actor->GoOn();
  for (const auto& actor : actors) {
    ASSERT_EQ(actor->Wait(), 0);
    EXPECT_TRUE(test_support::Eventually([&] { return life.HasEnded(actor->Pid()); }));
  }
}

TEST_F(ProcessListenerTest, APidThatIsGivenAgainAtOnceIsAnotherProcess) {
  constexpr int kOwners = 100;
  const Bootstrap host(m_module);
  Life life;
  const ProcessListener listener(host, [&life](const EventView& event) { life.Add(event); });
  const pid_t pid = test_support::RunTrue();
  for (int i = 0; i < kOwners; ++i) {
    test_support::Actor actor({"fork-as", std::to_string(pid)});
    ASSERT_EQ(actor.Wait(), 0) << "somebody else has got the pid";
  }
  ASSERT_TRUE(test_support::Eventually([&] {
    return life.Count(pid, EventKind::kFork) == kOwners + 1 && life.HasEnded(pid);
  })) << life.Count(pid, EventKind::kFork);
}

// It ends between the enumeration of the Bootstrap and the start of the source.
TEST_F(ProcessListenerTest, WhoEndedBeforeTheSourceRanEndsAsAFake) {
  test_support::Actor earlier({"say", "wait"});
  earlier.HearPid();
  const Bootstrap host(m_module);
  earlier.GoOn();
  ASSERT_EQ(earlier.Wait(), 0);
  std::atomic<int> ends{0};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) != earlier.Pid() || event.GetKind() != EventKind::kExit) return;
    EXPECT_TRUE(event.IsFake());
    EXPECT_TRUE(event.GetImagePath().value_or("").ends_with("/actor"));
    EXPECT_TRUE(event.GetUniquePid());
    ++ends;
  });
  EXPECT_TRUE(test_support::Eventually([&ends] { return ends == 1; }));
}

TEST_F(ProcessListenerTest, WhoBeganBeforeTheSourceRanIsKnown) {
  const Bootstrap host(m_module);
  test_support::Actor between({"say", "wait"});
  between.HearPid();
  std::atomic<bool> ended{false};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) != between.Pid() || event.GetKind() != EventKind::kExit) return;
    EXPECT_TRUE(event.GetImagePath().value_or("").ends_with("/actor"));
    ended = true;
  });
  between.GoOn();
  ASSERT_EQ(between.Wait(), 0);
  EXPECT_TRUE(test_support::Eventually([&ended] { return ended.load(); }));
}

TEST_F(ProcessListenerTest, TheEndOfAProcessThatBeganEarlierIsReported) {
  test_support::Actor earlier({"wait"});
  const Bootstrap host(m_module);
  std::atomic<bool> ended{false};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) != earlier.Pid() || event.GetKind() != EventKind::kExit) return;
    EXPECT_TRUE(event.GetImagePath().value_or("").ends_with("/actor"));
    ended = true;
  });
  earlier.GoOn();
  ASSERT_EQ(earlier.Wait(), 0);
  EXPECT_TRUE(test_support::Eventually([&ended] { return ended.load(); }));
}

TEST_F(ProcessListenerTest, WithoutTheEnumerationTheCacheHasNotMetAnEarlierProcess) {
  test_support::Actor earlier({"say", "wait"});
  earlier.HearPid();  // its exec is behind it
  const Bootstrap host(m_module, host_kit::MakeDefaultServices(), {.enumerate = false});
  std::atomic<bool> reported{false};
  std::atomic<std::uint32_t> lastEnd{0};
  const ProcessListener listener(host, [&](const EventView& event) {
    if (static_cast<pid_t>(event.GetPid()) == earlier.Pid()) reported = true;
    if (event.GetKind() == EventKind::kExit && event.GetParentPid() == static_cast<std::uint32_t>(::getpid()))
      lastEnd = event.GetPid();
  });
  earlier.GoOn();
  ASSERT_EQ(earlier.Wait(), 0);
  const auto later = static_cast<std::uint32_t>(test_support::RunTrue());
  ASSERT_TRUE(test_support::Eventually([&] { return lastEnd == later; }));
  EXPECT_FALSE(reported) << "events keep the kernel's order";
}

TEST_F(ProcessListenerTest, AfterItsEndNoEventComesAndAnotherListenerCanBegin) {
  const Bootstrap host(m_module);
  std::atomic<std::uint64_t> first{0};
  {
    const ProcessListener listener(host, [&first](const EventView&) { ++first; });
    test_support::RunTrue();
    ASSERT_TRUE(test_support::Eventually([&first] { return first != 0; }));
  }
  const std::uint64_t before = first;
  std::atomic<std::uint64_t> second{0};
  const ProcessListener listener(host, [&second](const EventView&) { ++second; });
  test_support::RunTrue();
  EXPECT_TRUE(test_support::Eventually([&second] { return second != 0; }));
  EXPECT_EQ(first, before);
}

// This host has no exec listener to offer.
TEST_F(ProcessListenerTest, ASourceThatCannotBeUsedIsAFailureAndLeavesNothing) {
  {
    const Bootstrap host(m_module);
    try {
      const ProcessListener listener(
          host, [](const EventView&) {}, kKprobes);
      FAIL() << "it listens";
    } catch (const host_kit::Failure& failure) {
      EXPECT_TRUE(std::string(failure.what()).starts_with("cannot listen to the kernel's process events ("))
          << failure.what();
    }
  }
  EXPECT_TRUE(m_module.Unload());
}

}  // namespace
