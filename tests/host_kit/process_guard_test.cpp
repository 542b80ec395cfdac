// The guard in front of the module's real cache: by cases, and by properties over random histories.
#include "host_kit/process_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host_kit/default_services.h"
#include "host_kit/loaded_module.h"
#include "process_manager/entry.h"
#include "process_manager/system_event.h"
#include "zym/service_provider.h"

namespace host_kit {
namespace {

using qor::PidType;
using qor::UniquePidType;
using qor::process_manager::IEventInfoProvider;
using qor::process_manager::IProcessInfoProvider;
using EventInfo = ProcessGuard::EventInfo;
using Record = ProcessGuard::ProcessInformation;

// An event as the module's queue holds it.
struct Queued {
  bool isCreate;
  EventInfo info;
};

// The guard over a cache of the module, driven as the module's source and its worker drive them.
class ProcessGuardTest : public ::testing::Test {
 protected:
  ProcessGuardTest()
      : m_cache(m_module.Create<IProcessInfoProvider>(qor::class_ids::kProcessCache,
                                                      {.locator = m_locator.get()}, "the process cache")) {
    zym::intrusive_ptr<IEventInfoProvider> events;
    EXPECT_EQ(zym::QueryInterface(m_cache, events.Ref()), zym::ZYM_OK);
    m_guard = zym::CreateObject<ProcessGuard>(
        m_cache, events,
        GuardSurroundings{
            .hasRunningThread = [this](PidType pid) { return m_running.contains(pid); },
            .now = [this] { return m_now; },
            .wallTime =
                [](std::uint64_t stamp) { return kWallTimeOfStart + static_cast<zym::datetime_t>(stamp); }});
    m_guard->SetWatcher(
        {.onGoesOn = [this](PidType pid) { m_goingOn.insert(pid); }, .onLostEnd = [this] { ++m_lostEnds; }});
  }
  ~ProcessGuardTest() override {
    m_guard.Reset();
    m_cache.Reset();
    m_locator->Clear();
    m_locator.Reset();
    EXPECT_TRUE(m_module.Unload());
  }

  // --- the source ---

  static Record Read(PidType pid, PidType parent, const std::string& path) {
    Record record;
    record.pid = pid;
    record.parentPid = parent;
    record.imagePath.assign(path.begin(), path.end());
    record.state = qor::kCreated;
    record.realUserId = 1000;
    return record;
  }
  // What the source passes on of a process that was gone before it could be read.
  static Record Gone(PidType pid, PidType parent = 0) {
    Record record;
    record.pid = pid;
    record.parentPid = parent;
    record.flags = qor::kNoBackingImage;
    record.state = qor::kTerminated;
    return record;
  }

  // What is queued, by its number in the queue.
  void Fork(Record record) {
    m_running.insert(record.pid);
    EventInfo create{.timestamp = ++m_now};
    m_guard->OnFork(std::move(record), create);
    Dispatch(true, std::move(create));
  }
  void Exec(Record record) {
    EventInfo exit{.timestamp = ++m_now};
    EventInfo create{.timestamp = m_now};
    m_guard->OnExec(std::move(record), exit, create);
    Dispatch(false, std::move(exit));
    Dispatch(true, std::move(create));
  }
  void Exit(PidType pid) {
    m_running.erase(pid);
    ReportExit(pid, ++m_now);
  }
  void LeaderExit(PidType pid) { ReportExit(pid, ++m_now); }
  void ReportExit(PidType pid, std::uint64_t timestamp) {
    EventInfo exit{.timestamp = timestamp};
    m_guard->OnExit(static_cast<pid_t>(pid), exit);
    Dispatch(false, std::move(exit));
  }
  void Dispatch(bool isCreate, EventInfo info) {
    if (info.skip) return;
    m_dispatched.push_back({isCreate, info});
    m_queue.push_back({isCreate, std::move(info)});
  }

  // --- the worker ---

  // Completes the oldest event; false: the handlers don't see it.
  bool Complete() {
    Queued event = std::move(m_queue.front());
    m_queue.pop_front();
    if (event.isCreate)
      static_cast<void>(m_guard->OnCreateProcess(false, event.info));
    else
      m_guard->OnExitProcess(event.info);
    return !event.info.skip;
  }
  void CompleteAll() {
    while (!m_queue.empty()) ASSERT_TRUE(Complete());
  }

  // What was dispatched since the last call, as "+path" for a create and "-path" for an exit.
  std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (const Queued& event : std::exchange(m_dispatched, {}))
      texts.push_back((event.isCreate ? "+" : "-") +
                      std::string(event.info.info.imagePath.begin(), event.info.info.imagePath.end()));
    return texts;
  }
  UniquePidType IdOf(PidType pid) {
    Record record;
    return m_guard->Get(static_cast<pid_t>(pid), record) ? record.uniquePid : 0;
  }

  std::vector<LateEnd> LostEnds() { return m_guard->TakeLostEnds(++m_now); }

  static constexpr zym::datetime_t kWallTimeOfStart = 133'000'000'000'000'000;

  LoadedModule m_module{PROCESS_MANAGER_MODULE};
  zym::intrusive_ptr<ServiceLocator> m_locator = MakeDefaultServices();
  zym::intrusive_ptr<IProcessInfoProvider> m_cache;
  zym::intrusive_ptr<ProcessGuard> m_guard;
  std::set<PidType> m_running;
  std::set<PidType> m_goingOn;
  int m_lostEnds = 0;  // how often the guard said that there are some
  std::uint64_t m_now = 1000;
  std::deque<Queued> m_queue;
  std::vector<Queued> m_dispatched;
};

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(ProcessGuardTest, AnOrdinaryLifeIsReportedAsTheCacheReportsIt) {
  Fork(Read(10, 1, "/shell"));
  const UniquePidType shell = m_dispatched.back().info.info.uniquePid;
  Exec(Read(10, 1, "/tool"));
  const EventInfo exit = m_dispatched[1].info;
  const EventInfo create = m_dispatched[2].info;
  EXPECT_EQ(exit.info.uniquePid, shell);
  EXPECT_TRUE(exit.isExec);
  EXPECT_EQ(create.info.creatorUniquePid, shell);
  EXPECT_NE(create.info.uniquePid, shell);
  Exit(10);
  EXPECT_FALSE(m_dispatched.back().info.isExec);
  EXPECT_EQ(m_dispatched.back().info.info.uniquePid, create.info.uniquePid);
  EXPECT_THAT(Texts(), ElementsAre("+/shell", "-/shell", "+/tool", "-/tool"));
  CompleteAll();
}

TEST_F(ProcessGuardTest, TheTimesOfAnExecAreThoseOfTheExec) {
  Fork(Read(10, 1, "/shell"));
  Record tool = Read(10, 1, "/tool");
  tool.startTime = 5;  // the age of the process, as /proc gives it
  Exec(std::move(tool));
  const zym::datetime_t time = kWallTimeOfStart + static_cast<zym::datetime_t>(m_now);
  EXPECT_EQ(m_dispatched[1].info.info.exitTime, time);
  EXPECT_EQ(m_dispatched[2].info.info.startTime, time);
}

TEST_F(ProcessGuardTest, AProcessThatTheCacheForgotKeepsItsEvents) {
  constexpr PidType kMany = 6000;  // the cache holds 5,000 at most
  for (PidType pid = 10; pid < 10 + kMany; ++pid) Fork(Read(pid, 1, "/sleeper"));
  std::map<PidType, UniquePidType> ids;
  for (const Queued& event : m_dispatched) ids[event.info.info.pid] = event.info.info.uniquePid;
  CompleteAll();
  for (PidType pid = 10; pid < 10 + kMany; ++pid) Exit(pid);
  ASSERT_EQ(m_dispatched.size(), 2 * kMany);
  for (const Queued& event : m_dispatched) {
    EXPECT_EQ(event.info.info.uniquePid, ids.at(event.info.info.pid));
    EXPECT_EQ(event.info.info.imagePath, u"/sleeper");
  }
  CompleteAll();
  EXPECT_EQ(m_guard->Size(), 0U);
}

TEST_F(ProcessGuardTest, AnImageThatTheCacheForgotEndsUnderItsIdWhenItsProcessExecutes) {
  Fork(Read(10, 1, "/shell"));
  const UniquePidType shell = m_dispatched.back().info.info.uniquePid;
  for (PidType pid = 100; pid < 6100; ++pid) Fork(Read(pid, 1, "/sleeper"));
  m_dispatched.clear();
  Exec(Read(10, 1, "/tool"));
  ASSERT_EQ(m_dispatched.size(), 2U);
  EXPECT_EQ(m_dispatched[0].info.info.uniquePid, shell);
  EXPECT_EQ(m_dispatched[1].info.info.creatorUniquePid, shell);
  EXPECT_THAT(Texts(), ElementsAre("-/shell", "+/tool"));
}

TEST_F(ProcessGuardTest, APidThatIsGivenAgainWhileItsOldEndWaitsIsAnotherProcess) {
  Fork(Read(10, 1, "/first"));
  Exit(10);
  Fork(Read(10, 1, "/second"));
  EXPECT_NE(m_dispatched[0].info.info.uniquePid, m_dispatched[2].info.info.uniquePid);
  EXPECT_EQ(m_dispatched[1].info.info.uniquePid, m_dispatched[0].info.info.uniquePid);
  Exit(10);
  EXPECT_THAT(Texts(), ElementsAre("+/first", "-/first", "+/second", "-/second"));
  CompleteAll();
}

TEST_F(ProcessGuardTest, AnExitThatArrivesBehindTheForkOfThePidsNextOwnerIsTheFormerOnes) {
  Fork(Read(10, 1, "/first"));
  const std::uint64_t endOfFirst = ++m_now;
  Fork(Read(10, 1, "/second"));
  ReportExit(10, endOfFirst);
  EXPECT_THAT(Texts(), ElementsAre("+/first", "+/second", "-/first"));
  EXPECT_THAT(LostEnds(), IsEmpty());
  Exit(10);
  EXPECT_THAT(Texts(), ElementsAre("-/second"));
}

TEST_F(ProcessGuardTest, AnEndThatWasLostIsAFakeOnceThePidIsGivenAgain) {
  Fork(Read(10, 1, "/first"));
  Fork(Read(10, 1, "/second"));
  const std::vector<LateEnd> lost = LostEnds();
  ASSERT_EQ(lost.size(), 1U);
  EXPECT_TRUE(lost[0].isFake);
  EXPECT_EQ(lost[0].info.imagePath, u"/first");
  EXPECT_THAT(LostEnds(), IsEmpty());
}

TEST_F(ProcessGuardTest, AnExecByAnotherThanTheFirstThreadEndsTheOldImageOnce) {
  Fork(Read(10, 1, "/threads"));
  LeaderExit(10);
  EXPECT_THAT(m_goingOn, ElementsAre(10U));
  Exec(Read(10, 1, "/tool"));
  EXPECT_EQ(m_guard->EndLate(10, ++m_now), std::nullopt);
  Exit(10);
  EXPECT_THAT(Texts(), ElementsAre("+/threads", "-/threads", "+/tool", "-/tool"));
}

TEST_F(ProcessGuardTest, AProcessThatOutlivesItsFirstThreadEndsOnceWhenItsLastThreadDoes) {
  Fork(Read(10, 1, "/threads"));
  LeaderExit(10);
  EXPECT_THAT(Texts(), ElementsAre("+/threads"));
  EXPECT_NE(IdOf(10), 0U);
  EXPECT_EQ(m_guard->EndLate(10, ++m_now), std::nullopt) << "it still runs";
  m_running.erase(10);
  const std::optional<LateEnd> exit = m_guard->EndLate(10, ++m_now);
  ASSERT_TRUE(exit);
  EXPECT_EQ(exit->info.imagePath, u"/threads");
  EXPECT_FALSE(exit->isFake);
  EXPECT_EQ(m_guard->EndLate(10, ++m_now), std::nullopt);
  EXPECT_EQ(m_guard->Size(), 0U);
}

TEST_F(ProcessGuardTest, WhatWasReadBeforeItsForkWasReportedHasOneId) {
  m_running.insert(10);
  m_now += 10;
  Record read = Read(10, 1, "/early");
  m_guard->Update(read);
  EventInfo create{.timestamp = m_now - 5};
  m_guard->OnFork(Read(10, 1, "/early"), create);
  EXPECT_EQ(create.info.uniquePid, read.uniquePid);
  EXPECT_THAT(LostEnds(), IsEmpty());
}

TEST_F(ProcessGuardTest, WhatEndedBeforeItsReadWasKeptLeavesNothingBehind) {
  Record read = Read(10, 1, "/gone");
  m_guard->Update(read);
  EXPECT_EQ(m_guard->Size(), 0U);
}

TEST_F(ProcessGuardTest, AnExitOfWhomNobodyHeardIsNoEvent) {
  Exit(10);
  EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(ProcessGuardTest, ProcessesThatAreMissingEndAsFakes) {
  Fork(Read(10, 1, "/stays"));
  Fork(Read(11, 1, "/went"));
  m_running.erase(11);
  m_guard->LoseMissing();
  EXPECT_EQ(m_lostEnds, 1);
  const std::vector<LateEnd> ends = LostEnds();
  ASSERT_EQ(ends.size(), 1U);
  EXPECT_TRUE(ends[0].isFake);
  EXPECT_EQ(ends[0].info.imagePath, u"/went");
  EXPECT_EQ(m_guard->Size(), 1U);
}

TEST_F(ProcessGuardTest, ALostEndWaitsForItsReport) {
  Fork(Read(10, 1, "/went"));
  m_running.erase(10);
  m_guard->LoseMissing();
  EXPECT_THAT(m_guard->TakeLostEnds(m_now), IsEmpty()) << "found just now";
  EXPECT_TRUE(m_guard->HasLostEnds());
  ReportExit(10, ++m_now);
  EXPECT_FALSE(m_dispatched.back().info.isFake);
  EXPECT_THAT(Texts(), ElementsAre("+/went", "-/went"));
  EXPECT_THAT(LostEnds(), IsEmpty());
}

TEST_F(ProcessGuardTest, AHostThatHearsOfNoEndDoesNotKeepAllWhomItEverAskedFor) {
  m_guard->SetWatcher({});
  for (PidType pid = 10; pid < 30'010; ++pid) {
    m_running.insert(pid);
    Record read = Read(pid, 1, "/short");
    m_guard->Update(read);
    m_running.erase(pid);
  }
  EXPECT_LT(m_guard->Size(), 10'000U);
  EXPECT_LE(m_guard->TakeLostEnds(~std::uint64_t{0}).size(), 1024U);
}

// The end is handled when the pid's next owner runs, and looks like that of a first thread alone.
TEST_F(ProcessGuardTest, AnEndThatWasReportedBeforeThePidWasGivenAgainIsNoFake) {
  Fork(Read(10, 1, "/first"));
  const std::uint64_t create = m_dispatched.back().info.sequence;
  LeaderExit(10);
  const std::uint64_t end = m_now;
  Fork(Read(10, 1, "/second"));
  EXPECT_EQ(m_lostEnds, 1);
  const std::vector<LateEnd> ends = m_guard->TakeLostEnds(1);
  ASSERT_EQ(ends.size(), 1U);
  EXPECT_FALSE(ends[0].isFake);
  EXPECT_EQ(ends[0].timestamp, end);
  EXPECT_EQ(ends[0].createSequence, create);
  EXPECT_EQ(ends[0].info.imagePath, u"/first");
  EXPECT_EQ(m_guard->EndLate(10, ++m_now), std::nullopt) << "the next owner runs";
  Exit(10);
  EXPECT_THAT(Texts(), ElementsAre("+/first", "+/second", "-/second"));
}

TEST_F(ProcessGuardTest, AProcessThatWasReadAfterItsFirstThreadEndedIsWatched) {
  m_running.insert(10);
  const std::uint64_t leaderEnd = ++m_now;
  ++m_now;
  Record read = Read(10, 1, "/threads");
  m_guard->Update(read);
  ReportExit(10, leaderEnd);
  EXPECT_THAT(m_goingOn, ElementsAre(10U));
  m_running.erase(10);
  const std::optional<LateEnd> exit = m_guard->EndLate(10, ++m_now);
  ASSERT_TRUE(exit);
  EXPECT_EQ(exit->createSequence, 0U) << "nobody was told of its start";
}

TEST_F(ProcessGuardTest, WithoutAWatcherTheEndOfAFirstThreadIsTheEnd) {
  m_guard->SetWatcher({});
  Fork(Read(10, 1, "/threads"));
  LeaderExit(10);
  EXPECT_THAT(Texts(), ElementsAre("+/threads", "-/threads"));
}

TEST_F(ProcessGuardTest, ANewWatcherHearsWhoGoesOn) {
  Fork(Read(10, 1, "/threads"));
  Fork(Read(11, 1, "/plain"));
  LeaderExit(10);
  std::vector<PidType> goingOn;
  m_guard->SetWatcher({.onGoesOn = [&goingOn](PidType pid) { goingOn.push_back(pid); }, .onLostEnd = {}});
  EXPECT_THAT(goingOn, ElementsAre(10U));
  m_guard->SetWatcher({});
}

TEST_F(ProcessGuardTest, AnEndedImageIsAnsweredUntilItsExitIsComplete) {
  Fork(Read(10, 1, "/tool"));
  const UniquePidType id = IdOf(10);
  Exit(10);
  Record record;
  ASSERT_TRUE(m_guard->GetByUniquePid(id, record));
  EXPECT_EQ(record.imagePath, u"/tool");
  EXPECT_EQ(record.state, static_cast<std::uint32_t>(qor::kTerminated));
  CompleteAll();
  EXPECT_FALSE(m_guard->GetByUniquePid(id, record));
}

TEST_F(ProcessGuardTest, AGoneChildLooksLikeAParentThatTheCacheForgot) {
  Fork(Read(10, 1, "/shell"));
  const UniquePidType shell = IdOf(10);
  for (PidType pid = 100; pid < 6100; ++pid) Fork(Read(pid, 1, "/sleeper"));
  Fork(Gone(11, 10));
  const Record& child = m_dispatched.back().info.info;
  EXPECT_EQ(child.imagePath, u"/shell");
  EXPECT_EQ(child.parentUniquePid, shell);
  EXPECT_EQ(child.creatorUniquePid, shell);
}

// --- random histories ---

// A machine whose processes begin, execute and end at random, with everything that goes wrong: more processes
// than the cache holds, handlers that lag, pids given again at once, first threads that end, reports out of
// order.
class RandomHistories : public ProcessGuardTest, public ::testing::WithParamInterface<unsigned> {
 protected:
  // What is known of a living process.
  struct Living {
    UniquePidType id = 0;
    bool leaderEnded = false;
  };

  std::size_t Random(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(m_engine);
  }

  PidType RandomPid() {
    return std::next(m_living.begin(), static_cast<std::ptrdiff_t>(Random(m_living.size())))->first;
  }

  void Step() {
    switch (Random(m_living.size() < kProcesses ? 8 : 6)) {
      case 0:
      case 1:
        if (!m_living.empty()) ExecRandom();
        break;
      case 2:
      case 3:
        if (!m_living.empty()) EndRandom();
        break;
      case 4:
        if (!m_living.empty()) ReadRandom();
        break;
      case 5:
        for (std::size_t n = Random(20); n > 0 && !m_queue.empty(); --n) ASSERT_TRUE(Complete());
        break;
      default:
        ForkRandom();
    }
  }

  void ForkRandom() {
    const auto pid = static_cast<PidType>(10 + Random(2 * kProcesses));
    if (m_living.contains(pid)) return;
    const PidType parent = m_living.empty() ? 1 : RandomPid();
    Fork(Random(4) == 0 ? Gone(pid, parent) : Read(pid, parent, "/fork"));
    const Record& image = m_dispatched.back().info.info;
    if (m_living.contains(parent)) {
      EXPECT_EQ(image.parentUniquePid, m_living.at(parent).id);
    }
    m_living[pid].id = image.uniquePid;
    ++m_creates;
  }
  void ExecRandom() {
    const PidType pid = RandomPid();
    Living& living = m_living.at(pid);
    if (!living.leaderEnded && Random(4) == 0) LeaderExit(pid);
    const std::size_t before = m_dispatched.size();
    Exec(Random(4) == 0 ? Gone(pid) : Read(pid, 1, "/exec"));
    ASSERT_EQ(m_dispatched.size(), before + 2);
    EXPECT_EQ(m_dispatched[before].info.info.uniquePid, living.id);
    EXPECT_EQ(m_dispatched[before + 1].info.info.creatorUniquePid, living.id);
    living = {.id = m_dispatched[before + 1].info.info.uniquePid};
    ++m_creates;
    ++m_exits;
  }
  void EndRandom() {
    const PidType pid = RandomPid();
    Living& living = m_living.at(pid);
    if (living.leaderEnded || Random(8) == 0) {
      if (!std::exchange(living.leaderEnded, true)) {
        LeaderExit(pid);
        return;
      }
      m_running.erase(pid);
      std::optional<LateEnd> exit = m_guard->EndLate(pid, ++m_now);
      ASSERT_TRUE(exit);
      EXPECT_EQ(exit->info.uniquePid, living.id);
      Dispatch(false, std::move(*exit));
    } else {
      Exit(pid);
      EXPECT_EQ(m_dispatched.back().info.info.uniquePid, living.id);
    }
    m_living.erase(pid);
    ++m_exits;
  }
  void ReadRandom() {
    const PidType pid = RandomPid();
    Record record;
    if (Random(2) == 0) {
      record = Read(pid, 1, "/read");
      m_guard->Update(record);
    } else {
      ASSERT_TRUE(m_guard->Get(static_cast<pid_t>(pid), record));
    }
    EXPECT_EQ(record.uniquePid, m_living.at(pid).id);
  }

  static constexpr std::size_t kProcesses = 5600;

  std::mt19937 m_engine{GetParam()};
  std::map<PidType, Living> m_living;
  std::size_t m_creates = 0;
  std::size_t m_exits = 0;
};

TEST_P(RandomHistories, EachImageBeginsOnceAndEndsOnceUnderOneId) {
  for (PidType pid = 10; m_living.size() < kProcesses; ++pid) {
    Fork(Read(pid, 1, "/first"));
    m_living[pid].id = m_dispatched.back().info.info.uniquePid;
    ++m_creates;
  }
  for (int step = 0; step < 20'000 && !HasFailure(); ++step) Step();
  while (!m_living.empty() && !HasFailure()) EndRandom();

  std::map<UniquePidType, int> lives;  // 1: begun, 2: ended
  std::size_t creates = 0;
  std::uint64_t sequence = 0;
  for (const Queued& event : m_dispatched) {
    int& life = lives[event.info.info.uniquePid];
    ASSERT_EQ(life, event.isCreate ? 0 : 1);
    ++life;
    creates += event.isCreate ? 1 : 0;
    ASSERT_GT(event.info.sequence, sequence);
    sequence = event.info.sequence;
  }
  EXPECT_EQ(creates, m_creates);
  EXPECT_EQ(m_dispatched.size() - creates, m_exits);
  EXPECT_EQ(m_creates, m_exits);
  EXPECT_THAT(LostEnds(), IsEmpty());
  EXPECT_EQ(m_guard->Size(), 0U);
  CompleteAll();
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomHistories, ::testing::Range(0U, 6U));

}  // namespace
}  // namespace host_kit
