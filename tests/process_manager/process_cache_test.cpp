#include "process_manager/process_cache.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "process_manager/process_description.h"
#include "support/fake_services.h"
#include "zym/exception.h"
#include "zym/module_counter.h"

namespace qor::process_manager {
namespace {

using EventInfo = process_cache::EventInfo;
using Info = process_cache::ProcessInformation;

constexpr std::int64_t kRetention = 10'000'000;
constexpr pid_t kParent = 100;
constexpr pid_t kChild = 200;

zym::datetime_t g_now = zym::datetime::kUnixEpoch;
zym::datetime_t TestClock() noexcept {
  return g_now;
}

std::shared_ptr<const zym::types::string16_t> Text(const char16_t* text) {
  return std::make_shared<const zym::types::string16_t>(text);
}

// What a read of a live process gives.
Info Read(pid_t pid, pid_t parent, const char16_t* path) {
  Info info;
  info.pid = static_cast<PidType>(pid);
  info.parentPid = static_cast<PidType>(parent);
  info.imagePath = path;
  info.commandLine = Text(path);
  info.workingDirectory = u"/";
  info.sessionId = 7;
  info.startTime = 5000;
  info.state = kCreated;
  info.realUserId = 1000;
  info.mountNamespaceId = 42;
  return info;
}

// What is left of a process that was gone before it could be read.
Info Gone(pid_t pid, pid_t parent = 0) {
  Info info;
  info.pid = static_cast<PidType>(pid);
  info.parentPid = static_cast<PidType>(parent);
  info.flags = kNoBackingImage;
  info.state = kTerminated;
  return info;
}

class ProcessCacheTest : public testing::Test {
 protected:
  ProcessCacheTest() { g_now = zym::datetime::kUnixEpoch; }
  ~ProcessCacheTest() override {
    m_cache.Reset();
    EXPECT_EQ(m_host.metricsRegistry->Collectors(), 0U) << "the collector is gone with the cache";
  }

  EventInfo Fork(pid_t pid, pid_t parent, const char16_t* path = u"/bin/child") {
    EventInfo create;
    m_cache->OnFork(Read(pid, parent, path), create);
    return create;
  }
  std::pair<EventInfo, EventInfo> Exec(Info info) {
    std::pair<EventInfo, EventInfo> result;
    m_cache->OnExec(std::move(info), result.first, result.second);
    return result;
  }
  std::pair<EventInfo, EventInfo> ExecPerm(Info info) {
    std::pair<EventInfo, EventInfo> result;
    m_cache->OnExecPerm(std::move(info), result.first, result.second);
    return result;
  }
  EventInfo Exit(pid_t pid) {
    EventInfo exit;
    m_cache->OnExit(pid, exit);
    return exit;
  }
  Info Learn(pid_t pid, pid_t parent, const char16_t* path) {
    Info info = Read(pid, parent, path);
    m_cache->Update(info);
    return info;
  }

  test_support::FakeHost m_host;
  zym::intrusive_ptr<ProcessCache> m_cache =
      zym::CreateObject<ProcessCache>(m_host.locator.get(), kRetention, &TestClock);
};

TEST_F(ProcessCacheTest, ExecReportedTwiceMakesOneVersion) {
  Fork(kChild, kParent);
  const auto [earlyExit, earlyCreate] = ExecPerm(Read(kChild, kParent, u"/bin/new"));
  const auto [exit, create] = Exec(Read(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(exit.sequence, earlyExit.sequence);
  EXPECT_EQ(create.sequence, earlyCreate.sequence);
  EXPECT_EQ(create.info.uniquePid, earlyCreate.info.uniquePid);
  EXPECT_EQ(exit.info.uniquePid, earlyExit.info.uniquePid);
}

TEST_F(ProcessCacheTest, ExecWithoutPermissionEndsTheOldImageAndAppendsANewOne) {
  const EventInfo fork = Fork(kChild, kParent);
  const auto [exit, create] = Exec(Read(kChild, kParent, u"/bin/new"));
  EXPECT_TRUE(exit.isExec);
  EXPECT_EQ(exit.info.state, kTerminated);
  EXPECT_EQ(exit.info.exitTime, 5000) << "the transition's time";
  EXPECT_EQ(exit.info.uniquePid, fork.info.uniquePid);
  EXPECT_LT(exit.sequence, create.sequence);
  EXPECT_EQ(create.info.creatorPid, static_cast<PidType>(kChild));
  EXPECT_EQ(create.info.creatorUniquePid, fork.info.uniquePid);
  EXPECT_NE(create.info.uniquePid, fork.info.uniquePid);
  EXPECT_EQ(create.info.imagePath, u"/bin/new");
  EXPECT_EQ(create.info.parentPid, static_cast<PidType>(kParent));
}

TEST_F(ProcessCacheTest, ForkAfterAnEarlyExecReportsTheFirstImageAndTheLaterExecFindsTheSecond) {
  const auto [earlyExit, earlyCreate] = ExecPerm(Read(kChild, kParent, u"/bin/new"));
  const EventInfo fork = Fork(kChild, kParent);
  EXPECT_EQ(fork.info.uniquePid, earlyExit.info.uniquePid);
  EXPECT_LT(fork.sequence, earlyExit.sequence);
  const auto [exit, create] = Exec(Read(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(exit.sequence, earlyExit.sequence);
  EXPECT_EQ(create.sequence, earlyCreate.sequence);
}

TEST_F(ProcessCacheTest, ExecOfAProcessThatIsGoneChangesOnlyWhatNobodyKnowsAnyMore) {
  Learn(kParent, 1, u"/bin/parent");
  Fork(kChild, kParent);
  const auto [exit, create] = Exec(Gone(kChild));
  EXPECT_EQ(create.info.state, kTerminated);
  EXPECT_TRUE(create.info.imagePath.empty());
  EXPECT_FALSE(create.info.commandLine);
  EXPECT_EQ(create.info.parentPid, static_cast<PidType>(kParent)) << "what the exec does not change stays";
  EXPECT_EQ(create.info.realUserId, 1000U);
  EXPECT_EQ(exit.info.imagePath, u"/bin/parent");
}

TEST_F(ProcessCacheTest, ExecOfAnUnknownProcessThatIsGoneStillMakesBothEvents) {
  const auto [exit, create] = Exec(Gone(kChild));
  EXPECT_FALSE(exit.skip);
  EXPECT_FALSE(create.skip);
  EXPECT_EQ(exit.info.pid, static_cast<PidType>(kChild));
  EXPECT_EQ(create.info.pid, static_cast<PidType>(kChild));
}

TEST_F(ProcessCacheTest, ExecKeepsTheRealIdsOfTheOldImageAnAbsentOneIncluded) {
  Fork(kChild, kParent);
  m_cache->OnUidChange(kChild, 5, 6);
  Info info = Read(kChild, kParent, u"/bin/new");
  info.realUserId = 77;
  info.realGroupId = 78;
  const auto [exit, create] = Exec(std::move(info));
  EXPECT_EQ(create.info.realUserId, 5U);
  EXPECT_FALSE(create.info.realGroupId);
}

TEST_F(ProcessCacheTest, AChildLooksLikeItsParentUntilSomethingBetterComes) {
  Learn(kParent, 1, u"/bin/parent");
  const EventInfo create = Fork(kChild, kParent, u"/bin/already-executed");
  EXPECT_TRUE(create.isFork);
  EXPECT_EQ(create.info.imagePath, u"/bin/parent");
  EXPECT_EQ(*create.info.commandLine, u"/bin/parent");
  EXPECT_EQ(create.info.creatorPid, static_cast<PidType>(kParent));
  EXPECT_EQ(create.info.workingDirectory, u"/") << "what was read and can't be the parent's is taken";
}

TEST_F(ProcessCacheTest, AChildOfAnUnknownParentTakesWhatWasRead) {
  EXPECT_EQ(Fork(kChild, kParent, u"/bin/read").info.imagePath, u"/bin/read");
}

TEST_F(ProcessCacheTest, AForkOfAProcessThatIsGoneIsToldWithItsParentsImage) {
  Learn(kParent, 1, u"/bin/parent");
  EventInfo create;
  m_cache->OnFork(Gone(kChild, kParent), create);
  EXPECT_EQ(create.info.imagePath, u"/bin/parent");
  EXPECT_EQ(create.info.state, kTerminated);
  EXPECT_EQ(create.info.flags, 0U) << "the flags of one that is gone say nothing of its image";
}

TEST_F(ProcessCacheTest, ExitOfAnUnknownProcessIsSkipped) {
  EXPECT_TRUE(Exit(kChild).skip);
  EventInfo exit;
  exit.info.pid = kChild;
  m_cache->OnExitProcess(exit);
  EXPECT_TRUE(exit.skip);
}

TEST_F(ProcessCacheTest, ASecondExitOfOneImageThrows) {
  Fork(kChild, kParent);
  Exit(kChild);
  EXPECT_THROW(Exit(kChild), zym::CheckFailedException);
}

TEST_F(ProcessCacheTest, AnExecAwaitedAtTheEndIsTracedAndKeepsTheEntry) {
  Fork(kChild, kParent);
  ExecPerm(Read(kChild, kParent, u"/bin/new"));
  EventInfo exit = Exit(kChild);
  m_cache->OnExitProcess(exit);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kWarning, " pid: 200, not erased: 1"));
  Info info;
  EXPECT_TRUE(m_cache->GetByUniquePid(exit.info.uniquePid, info));
}

TEST_F(ProcessCacheTest, DenialOfAnExecWhoseProcessEndedErasesTheEntryAndSkipsThreeRecords) {
  Fork(kChild, kParent);
  ExecPerm(Read(kChild, kParent, u"/bin/new"));
  EventInfo end = Exit(kChild);
  m_cache->OnExitProcess(end);
  EventInfo exit, create, forkExit, forkCreate;
  m_cache->OnExecDeny(Read(kChild, kParent, u"/bin/child"), exit, create, forkExit, forkCreate);
  EXPECT_TRUE(exit.skip);
  EXPECT_TRUE(create.skip);
  EXPECT_TRUE(forkCreate.skip);
  EXPECT_FALSE(forkExit.skip);
  EXPECT_FALSE(forkExit.isExec);
  Info info;
  EXPECT_FALSE(m_cache->GetByUniquePid(end.info.uniquePid, info));
}

TEST_F(ProcessCacheTest, DenialOfAnExecGoesOnAsWhatItWasUnderANewUniquePid) {
  const EventInfo fork = Fork(kChild, kParent);
  const auto [earlyExit, earlyCreate] = ExecPerm(Read(kChild, kParent, u"/bin/new"));
  EventInfo exit, create, forkExit, forkCreate;
  m_cache->OnExecDeny(Read(kChild, kParent, u"/bin/child"), exit, create, forkExit, forkCreate);
  EXPECT_EQ(exit.sequence, earlyExit.sequence);
  EXPECT_EQ(forkExit.info.uniquePid, earlyCreate.info.uniquePid);
  EXPECT_TRUE(forkExit.isExec);
  EXPECT_EQ(create.sequence, forkCreate.sequence);
  EXPECT_EQ(create.info.creatorPid, static_cast<PidType>(kParent));
  EXPECT_NE(create.info.uniquePid, fork.info.uniquePid);
  EXPECT_EQ(create.info.imagePath, u"/bin/child");
}

TEST_F(ProcessCacheTest, DenialOfAnUnknownProcessThrows) {
  EventInfo exit, create, forkExit, forkCreate;
  EXPECT_THROW(m_cache->OnExecDeny(Read(kChild, kParent, u"/x"), exit, create, forkExit, forkCreate),
               zym::CheckFailedException);
}

TEST_F(ProcessCacheTest, AFinishedProcessIsAnsweredForASecondAndThenForgotten) {
  Fork(kChild, kParent);
  g_now = zym::datetime::FromUnixSeconds(1000);
  EventInfo exit = Exit(kChild);
  m_cache->OnExitProcess(exit);
  Info info;
  g_now += kRetention;
  EXPECT_TRUE(m_cache->Get(kChild, info));
  EXPECT_EQ(info.state, kTerminated);
  EXPECT_FALSE(m_cache->GetByUniquePid(exit.info.uniquePid, info))
      << "a finished process isn't found by unique pid";
  g_now += 1;
  EXPECT_FALSE(m_cache->Get(kChild, info));
  g_now -= 1;
  EXPECT_FALSE(m_cache->Get(kChild, info)) << "the record is gone, not only too old";
}

TEST_F(ProcessCacheTest, AnExitTimeThatThePlatformCantHoldRaises) {
  Fork(kChild, kParent);
  g_now = -zym::datetime::kUnixEpoch - 1;
  EventInfo exit = Exit(kChild);
  m_cache->OnExitProcess(exit);
  Info info;
  EXPECT_THROW(m_cache->Get(kChild, info), zym::datetime::TimeSystemError);
}

TEST_F(ProcessCacheTest, AnEarlierImageIsFoundByUniquePidUntilTheEntryGoes) {
  const EventInfo fork = Fork(kChild, kParent);
  Exec(Read(kChild, kParent, u"/bin/new"));
  Info info;
  EXPECT_TRUE(m_cache->GetByUniquePid(fork.info.uniquePid, info));
  EXPECT_EQ(info.uniquePid, fork.info.uniquePid);
  EventInfo exit = Exit(kChild);
  m_cache->OnExitProcess(exit);
  EXPECT_FALSE(m_cache->GetByUniquePid(fork.info.uniquePid, info));
}

TEST_F(ProcessCacheTest, AFailedLookupByUniquePidIsTraced) {
  Info info;
  EXPECT_FALSE(m_cache->GetByUniquePid(kChild, info));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kCall, "Cannot find process info by upid=200, pid=200"));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "(procInfo),(bool) failed: result = false"));
  Fork(kChild, kParent);  // its parent's entry isn't ready
  m_host.tracer->Clear();
  EXPECT_FALSE(m_cache->GetByUniquePid(kParent, info));
  EXPECT_TRUE(m_host.tracer->Has("Process info is not ready yet upid=100"));
}

TEST_F(ProcessCacheTest, TheFullTableForgetsWhatWasTouchedLongestAgo) {
  constexpr pid_t kFirst = 1000;
  // Pid 0 and the parent are in the table from the start: 4998 more fill it.
  constexpr pid_t kCount = static_cast<pid_t>(ProcessCache::kServerCapacity) - 2;
  for (pid_t pid = kFirst; pid < kFirst + kCount; ++pid) Learn(pid, kParent, u"/bin/x");
  Info info;
  EXPECT_TRUE(m_cache->Get(kFirst, info)) << "and touched now";
  Learn(kFirst + kCount, kParent, u"/bin/x");  // evicts pid 0, the coldest
  Learn(kFirst + kCount + 1, kParent, u"/bin/x");
  EXPECT_TRUE(m_cache->Get(kFirst, info));
  EXPECT_FALSE(m_cache->Get(kFirst + 1, info));
  m_host.metricsRegistry->Collect();
  EXPECT_EQ(m_host.metricSource->size->Value(), static_cast<std::int64_t>(ProcessCache::kServerCapacity));
}

TEST_F(ProcessCacheTest, TheKernelsParentHasAnEntryWithAllOnes) {
  Info info = Read(0, -1, u"kernel memory");
  m_cache->Update(info);
  EXPECT_EQ(info.uniquePid, 0U);
  EXPECT_EQ(info.parentUniquePid, kNoUniquePid);
}

TEST_F(ProcessCacheTest, AProcessThatWasOnlySeenAsAParentIsNotAnsweredUntilItIsRead) {
  Fork(kChild, kParent);
  Info info;
  EXPECT_FALSE(m_cache->Get(kParent, info));
  const Info learnt = Learn(kParent, 1, u"/bin/parent");
  EXPECT_TRUE(m_cache->Get(kParent, info));
  EXPECT_EQ(info.imagePath, u"/bin/parent");
  EXPECT_EQ(info.uniquePid, learnt.uniquePid);
}

TEST_F(ProcessCacheTest, AnUpdateOfAReadyEntryChangesNothingButTheParent) {
  Learn(kChild, kParent, u"/bin/first");
  Learn(kChild, kParent, u"/bin/second");
  Info info;
  ASSERT_TRUE(m_cache->Get(kChild, info));
  EXPECT_EQ(info.imagePath, u"/bin/first");
}

TEST_F(ProcessCacheTest, AdditionalInfoReplacesTheIdsAndTheEnvironmentButNotTheRealUser) {
  Info info = Learn(kChild, kParent, u"/bin/x");
  info.realUserId = 1;
  info.effectiveUserId = 2;
  info.realGroupId.reset();
  info.environment = {"A=1"};
  ASSERT_TRUE(m_cache->UpdateAdditionalInfo(info));
  Info read;
  ASSERT_TRUE(m_cache->Get(kChild, read));
  EXPECT_EQ(read.realUserId, 1000U);
  EXPECT_EQ(read.effectiveUserId, 2U);
  EXPECT_FALSE(read.realGroupId);
  EXPECT_EQ(read.environment.size(), 1U);
  info.uniquePid += 1ULL << 32;
  EXPECT_FALSE(m_cache->UpdateAdditionalInfo(info));
}

TEST_F(ProcessCacheTest, ACompletedCreationBringsTheImageUpToDate) {
  Fork(kChild, kParent);
  auto [exit, create] = Exec(Gone(kChild));
  create.info.imagePath = u"/bin/told-later";
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_OK);
  Info info;
  ASSERT_TRUE(m_cache->Get(kChild, info));
  EXPECT_EQ(info.imagePath, u"/bin/told-later");
  create.info.uniquePid = 1;
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_E_NOT_FOUND);
  create.info.pid = 9999;
  EXPECT_EQ(m_cache->OnCreateProcess(false, create), zym::ZYM_E_NOT_FOUND);
  EXPECT_TRUE(create.skip);
}

TEST_F(ProcessCacheTest, AUniquePidHoldsTheTimeACounterAndThePid) {
  const auto before = static_cast<std::uint64_t>(::time(nullptr));
  const UniquePidType a = Fork(kChild, kParent).info.uniquePid;
  const UniquePidType b = Exec(Read(kChild, kParent, u"/x")).second.info.uniquePid;
  EXPECT_EQ(PidOf(a), static_cast<PidType>(kChild));
  EXPECT_GE(a >> 32, before);
  const auto counter = [](UniquePidType id) { return (id >> 23) & 0x1ff; };
  EXPECT_EQ(counter(b), (counter(a) + 2) & 0x1ff) << "the parent's entry took the one between";
}

TEST_F(ProcessCacheTest, CountsHitsAndMisses) {
  Info info;
  const std::uint64_t misses = m_host.metricSource->misses->Value();
  m_cache->Get(kChild, info);
  EXPECT_EQ(m_host.metricSource->misses->Value(), misses + 1);
  Learn(kChild, kParent, u"/bin/x");
  const std::uint64_t hits = m_host.metricSource->hits->Value();
  m_cache->Get(kChild, info);
  EXPECT_EQ(m_host.metricSource->hits->Value(), hits + 1);
}

TEST_F(ProcessCacheTest, ReportsAndQuestionsOfSeveralThreadsDoNotDisturbEachOther) {
  std::thread reports([this] {
    for (int round = 0; round < 200; ++round) {
      for (pid_t pid = 1000; pid < 1010; ++pid) {
        Fork(pid, kParent);
        Exec(Read(pid, kParent, u"/bin/x"));
        EventInfo exit = Exit(pid);
        m_cache->OnExitProcess(exit);
      }
    }
  });
  std::thread questions([this] {
    Info info;
    for (int round = 0; round < 2000; ++round) {
      const pid_t pid = 1000 + round % 10;
      if (m_cache->Get(pid, info)) {
        EXPECT_EQ(info.pid, static_cast<PidType>(pid));
      }
      m_cache->GetByUniquePid(info.uniquePid, info);
      m_host.metricsRegistry->Collect();
    }
  });
  reports.join();
  questions.join();
}

TEST(ProcessRecord, CopiesShareTheCommandLineUntilOneIsReplaced) {
  Info a = Read(1, 0, u"/bin/x");
  const Info b = a;
  EXPECT_EQ(a.commandLine.get(), b.commandLine.get());
  a.commandLine = Text(u"other");
  EXPECT_EQ(*b.commandLine, u"/bin/x");
}

TEST(ProcessRecord, APublicRecordWithoutARealUserHasTheUserZero) {
  Info info = Read(1, 0, u"/bin/x");
  EXPECT_EQ(system_interceptors::process_manager::ToPublicRecord(info).userId, 1000U);
  info.realUserId.reset();
  EXPECT_EQ(system_interceptors::process_manager::ToPublicRecord(info).userId, 0U);
}

TEST(ProcessDescription, TellsEveryFact) {
  const auto filter = zym::CreateObject<test_support::FakeCategoryFilter>();
  Info info = Read(1, 2, u"/bin/caf\u00e9");
  info.uniquePid = 3;
  info.flags = kSystemProcess | kNoBackingImage;
  info.environment = {"A=1", "B=2"};
  EXPECT_EQ(DescribeProcess(info, filter.get()),
            "pid: 1, upid: 3, ppid: 2, uppid: 0, cpid: 0, ucpid: 0, ruid: 1000, euid: 4294967295, rgid: "
            "4294967295, "
            "egid: 4294967295, state: Created, flags: NoBackingImage|System, exe: /bin/caf\u00e9, "
            "cmd: /bin/caf\u00e9, env: A=1;B=2, nsmnt: 42");
}

TEST(ProcessDescription, HoldsBackSensitiveTextUnlessTheFilterAllowsIt) {
  const auto filter = zym::CreateObject<test_support::FakeCategoryFilter>();
  filter->Allow(false);
  for (zym::ITracerCategoryFilter* const held : {static_cast<zym::ITracerCategoryFilter*>(nullptr),
                                                 static_cast<zym::ITracerCategoryFilter*>(filter.get())}) {
    const std::string text = DescribeProcess(Read(1, 2, u"/bin/x"), held);
    EXPECT_NE(text.find(", cmd: skipped by privacy policy, env: skipped by privacy policy"),
              std::string::npos);
  }
}

TEST(ProcessDescription, TellsAStateThatDoesNotExist) {
  Info info;
  info.state = 2;
  EXPECT_NE(DescribeProcess(info, nullptr).find("state: Unsupported (2), flags: 0"), std::string::npos);
}

}  // namespace
}  // namespace qor::process_manager
