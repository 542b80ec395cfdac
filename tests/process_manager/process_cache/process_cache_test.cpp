// The cache's life, its tables, and the questions that it answers.
#include "process_manager/process_cache/process_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/process/process_description.h"
#include "support/process_records.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

// --- unique pids ---

std::uint64_t CounterOf(UniquePidType uniquePid) {
  return uniquePid >> 23 & 0x1ff;
}

TEST_F(ProcessCacheTest, AUniquePidHoldsTheSecondsTheCounterAndThePid) {
  const EventInfo fork = Fork();
  EXPECT_EQ(fork.info.uniquePid, 0x12345678'00000000 | (kCounterStart + 1ULL) << 23 | kChild);
  EXPECT_EQ(fork.info.parentUniquePid, 0x12345678'00000000 | (kCounterStart + 2ULL) << 23 | kParent);
}

TEST_F(ProcessCacheTest, OnlyTheLowNineBitsOfTheCounterReachTheUniquePid) {
  const std::uint64_t first = CounterOf(Fork().info.uniquePid);
  std::uint64_t last = 0;
  constexpr int kExecs = 600;
  for (int i = 0; i < kExecs; ++i) {
    const UniquePidType uniquePid = ReportExec(ReadOf(kChild, kParent, u"/bin/x")).create.info.uniquePid;
    EXPECT_EQ(uniquePid >> 32, static_cast<std::uint64_t>(kSeconds));
    EXPECT_EQ(PidOf(uniquePid), static_cast<PidType>(kChild));
    last = CounterOf(uniquePid);
  }
  EXPECT_EQ(last, (first + 1 + kExecs) % 512) << "1: the parent's entry";
}

TEST_F(ProcessCacheTest, TheSecondsOfAUniquePidAreCutTo32BitsAndTheCounterWraps) {
  ProcessCacheSurroundings surroundings = Surroundings();
  surroundings.seconds = [] { return std::time_t{0x1'00000002}; };
  surroundings.counterStart = [] { return std::uint16_t{0xffff}; };
  m_cache = MakeCache(std::move(surroundings));
  EXPECT_EQ(Fork().info.uniquePid, 2ULL << 32 | static_cast<UniquePidType>(kChild));
}

TEST_F(ProcessCacheTest, TheKernelsParentGetsAnEntryWithAUniquePidOfAllOnes) {
  const Info kernel = Learn(ReadOf(0, -1, u"vmlinuz"));
  EXPECT_EQ(kernel.uniquePid, 0U);
  EXPECT_EQ(kernel.parentUniquePid, kNoUniquePid);
  EXPECT_EQ(kernel.creatorPid, kNoPid);
  EXPECT_EQ(LiveSize(), 2);
  EXPECT_EQ(CounterOf(Fork().info.uniquePid), kCounterStart + 2) << "the counter moved all the same";
}

TEST_F(ProcessCacheTest, ThePidIsCombinedWithoutAMask) {
  const auto pid = static_cast<pid_t>(0x00800000 | 5);
  const Info info = Learn(ReadOf(pid, 0, u"/bin/x"));
  EXPECT_EQ(info.uniquePid, 0x12345678'00000000 | (kCounterStart + 1ULL) << 23 | static_cast<PidType>(pid));
}

TEST_F(ProcessCacheTest, TwoRealCachesStartTheirCountersAtRandom) {
  std::set<std::uint16_t> starts;
  for (int i = 0; i < 16; ++i) starts.insert(ProcessCacheSurroundings::Real().counterStart());
  EXPECT_GT(starts.size(), 8U) << "16 draws of 65536 values agree twice once in 500 runs, never eight times";
}

TEST_F(ProcessCacheTest, TheRealSurroundingsTellTheTime) {
  const ProcessCacheSurroundings real = ProcessCacheSurroundings::Real();
  const std::time_t before = std::time(nullptr);
  const std::time_t seconds = real.seconds();
  const zym::datetime_t now = real.now();
  EXPECT_GE(seconds, before);
  EXPECT_GE(now, zym::datetime::FromUnixSeconds(before));
  EXPECT_LE(now, zym::datetime::FromUnixSeconds(std::time(nullptr) + 1));
}

// --- the tables ---

TEST_F(ProcessCacheTest, BeginsWithAnEntryForTheKernelThatIsNotReady) {
  EXPECT_EQ(LiveSize(), 1);
  EXPECT_FALSE(Knows(0));
  EXPECT_EQ(Learn(ReadOf(0, -1, u"vmlinuz")).uniquePid, 0U);
  EXPECT_TRUE(Knows(0));
}

class ProcessCacheCapacityTest : public ProcessCacheTest, public testing::WithParamInterface<bool> {};

TEST_P(ProcessCacheCapacityTest, OnePidMoreEvictsWhatWasTouchedLongestAgo) {
  const bool workstation = GetParam();
  const pid_t capacity = workstation ? 2500 : 5000;
  ProcessCacheSurroundings surroundings = Surroundings();
  surroundings.isWorkstation = [workstation](zym::ITracer*) { return workstation; };
  m_cache = MakeCache(std::move(surroundings));
  // The kernel is the parent of all, so that its entry is never the coldest.
  constexpr pid_t kFirst = 1000;
  for (pid_t i = 0; i < capacity - 1; ++i) Learn(ReadOf(kFirst + i, 0, u"/bin/x"));
  EXPECT_EQ(LiveSize(), capacity);
  EXPECT_TRUE(Knows(kFirst)) << "all of them fit; and it is touched now";

  Learn(ReadOf(kFirst + capacity, 0, u"/bin/x"));
  EXPECT_EQ(LiveSize(), capacity);
  EXPECT_TRUE(Knows(kFirst));
  EXPECT_FALSE(Knows(kFirst + 1)) << "the coldest; and it leaves no dead record";
  EXPECT_TRUE(Knows(kFirst + 2));
  EXPECT_TRUE(Knows(kFirst + capacity));
}

INSTANTIATE_TEST_SUITE_P(Machines, ProcessCacheCapacityTest, testing::Values(true, false),
                         [](const auto& machine) { return machine.param ? "Workstation" : "Server"; });

TEST_F(ProcessCacheTest, TheMachineIsAskedWithTheCachesTracer) {
  zym::ITracer* asked = nullptr;
  ProcessCacheSurroundings surroundings = Surroundings();
  surroundings.isWorkstation = [&asked](zym::ITracer* tracer) {
    asked = tracer;
    return true;
  };
  m_cache = MakeCache(std::move(surroundings));
  EXPECT_EQ(asked, m_cache->GetTracer());
}

TEST_F(ProcessCacheTest, FiveHundredAndTwelveDeadRecordsAreKept) {
  constexpr pid_t kFirst = 1000;
  for (pid_t pid = kFirst; pid <= kFirst + 512; ++pid) {
    Fork(pid, 0);
    Finish(pid);
  }
  EXPECT_FALSE(Knows(kFirst));
  for (pid_t pid = kFirst + 1; pid <= kFirst + 512; ++pid) EXPECT_TRUE(Knows(pid)) << pid;
}

TEST_F(ProcessCacheTest, ANewDeadRecordOfAPidTakesThePlaceOfTheOldOne) {
  for (const char16_t* const path : {u"/bin/first", u"/bin/second"}) {
    ReportFork(ReadOf(kChild, 0, path));
    Finish();
  }
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/second");
}

TEST_F(ProcessCacheTest, ALivingProcessIsAnsweredBeforeADeadOneOfItsPid) {
  Fork();
  Finish();
  ReportFork(ReadOf(kChild, 0, u"/bin/again"));
  EXPECT_EQ(Ask(kChild).state, kCreated);
}

TEST_F(ProcessCacheTest, AnEntryThatIsNotReadyHidesADeadRecord) {
  Fork();
  Finish();
  Fork(kChild + 1, kChild);  // the pid is in use again, by a process that nobody saw start
  EXPECT_FALSE(Knows(kChild));
}

// --- Get ---

TEST_F(ProcessCacheTest, GetAnswersWithTheLastImage) {
  Fork();
  ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/new");
}

TEST_F(ProcessCacheTest, AnAnswerIsACopyThatSharesTheCommandLine) {
  Fork();
  Info answer = Ask(kChild);
  answer.imagePath = u"/changed";
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/forked");
  EXPECT_EQ(Ask(kChild).commandLine.get(), answer.commandLine.get());
}

TEST_F(ProcessCacheTest, AQuestionThatFailsLeavesTheRecordAlone) {
  Info info = ReadOf(1, 2, u"/mine");
  EXPECT_FALSE(m_cache->Get(kChild, info));
  EXPECT_FALSE(m_cache->GetByUniquePid(kChild, info));
  EXPECT_EQ(info.imagePath, u"/mine");
}

TEST_F(ProcessCacheTest, AFinishedProcessIsAnsweredForASecondAndThenForgotten) {
  Fork();
  Finish();
  m_now += kRetention;
  EXPECT_TRUE(Knows(kChild)) << "a second is not too long";
  m_now += 1;
  EXPECT_FALSE(Knows(kChild));
  m_now -= 1;
  EXPECT_FALSE(Knows(kChild)) << "the record is gone, not only too old";
}

TEST_F(ProcessCacheTest, AFinishedProcessOfTheFutureIsAnswered) {
  Fork();
  Finish();
  m_now -= 1000 * kRetention;  // somebody set the clock back
  EXPECT_TRUE(Knows(kChild));
}

TEST_F(ProcessCacheTest, AnExitTimeThatThePlatformCantHoldRaises) {
  Fork();
  m_now = -zym::datetime::kUnixEpoch - 1;
  Finish();
  Info info;
  try {
    m_cache->Get(kChild, info);
    FAIL() << "no exception";
  } catch (const zym::datetime::TimeSystemError& error) {
    EXPECT_NE(std::string(error.what()).find("Invalid utc timestamp for posix platform "), std::string::npos);
  }
  EXPECT_FALSE(Knows(kParent)) << "the mutex was given back";
}

TEST_F(ProcessCacheTest, HitsOfTheLivingAndTheDeadAreTracedWithTheirDescription) {
  Fork();
  const Info living = Ask(kChild);
  EXPECT_TRUE(Traced(zym::trace::kCall,
                     "ProcessCache::Cache hit: " + DescribeProcess(living, m_host->categoryFilter.get())));
  Finish();
  const Info dead = Ask(kChild);
  EXPECT_TRUE(Traced(zym::trace::kCall, "ProcessCache::Cache hit (dead): " +
                                            DescribeProcess(dead, m_host->categoryFilter.get())));
}

TEST_F(ProcessCacheTest, TracesHoldSensitiveTextBackUnlessTheFilterAllowsIt) {
  Info info = ReadOf(kChild, kParent, u"/bin/x");
  info.commandLine = CommandLine(u"x --password=secret");
  info.environment = {"TOKEN=secret"};
  m_host->categoryFilter->Allow(false);
  Learn(info);
  Ask(kChild);
  info.uniquePid = Ask(kChild).uniquePid;
  EXPECT_TRUE(m_cache->UpdateAdditionalInfo(info));
  Finish();
  Ask(kChild);
  EXPECT_FALSE(m_host->tracer->Has("secret"));
  EXPECT_TRUE(m_host->tracer->Has("cmd: skipped by privacy policy, env: skipped by privacy policy"));
  m_host->categoryFilter->Allow(true);
  Ask(kChild);
  EXPECT_TRUE(m_host->tracer->Has("cmd: x --password=secret, env: TOKEN=secret"));
}

// --- GetByUniquePid ---

TEST_F(ProcessCacheTest, AnEarlierImageIsFoundByUniquePidUntilTheEntryGoes) {
  const EventInfo fork = Fork();
  const Exec exec = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  Info info;
  EXPECT_TRUE(m_cache->GetByUniquePid(fork.info.uniquePid, info));
  EXPECT_EQ(info.imagePath, u"/bin/forked");
  EXPECT_TRUE(m_cache->GetByUniquePid(exec.create.info.uniquePid, info));
  EXPECT_EQ(info.imagePath, u"/bin/new");
  Finish();
  EXPECT_FALSE(m_cache->GetByUniquePid(fork.info.uniquePid, info));
}

TEST_F(ProcessCacheTest, AFinishedProcessIsNotFoundByUniquePid) {
  const EventInfo fork = Fork();
  Finish();
  Info info;
  EXPECT_TRUE(Knows(kChild));
  EXPECT_FALSE(m_cache->GetByUniquePid(fork.info.uniquePid, info));
}

TEST_F(ProcessCacheTest, WhyAUniquePidIsNotFoundIsTraced) {
  const EventInfo fork = Fork();  // makes an entry for the parent that isn't ready
  const UniquePidType parent = fork.info.parentUniquePid;
  const UniquePidType otherImage = fork.info.uniquePid + (1ULL << 32);
  const std::vector<std::pair<UniquePidType, std::string>> cases = {
      {300, "ProcessCache::Cannot find process info by upid=300, pid=300"},
      {parent, "ProcessCache::Process info is not ready yet upid=" + std::to_string(parent)},
      {otherImage, "ProcessCache::Cannot find process info by upid=" + std::to_string(otherImage)},
  };
  for (const auto& [uniquePid, text] : cases) {
    for (const bool update : {false, true}) {
      m_host->tracer->Clear();
      Info info;
      info.uniquePid = uniquePid;
      const std::uint64_t misses = Misses();
      EXPECT_FALSE(update ? m_cache->UpdateAdditionalInfo(info) : m_cache->GetByUniquePid(uniquePid, info));
      EXPECT_EQ(Misses(), misses + 1);
      EXPECT_TRUE(std::ranges::any_of(m_host->tracer->Records(), [&](const auto& record) {
        return record.level == zym::trace::kCall && record.text == text;
      })) << text;
      EXPECT_TRUE(
          Traced(zym::trace::kFailure, "ProcessCache::process_manager/process_cache/process_cache.cpp:"));
      EXPECT_TRUE(Traced(zym::trace::kFailure, "(procInfo),(bool) failed: result = false"));
    }
  }
}

// --- Update ---

TEST_F(ProcessCacheTest, AnUpdateTeachesEveryFieldAndGivesTheUniquePids) {
  Info read = ReadOf(kChild, kParent, u"/bin/x");
  read.exitTime = 8;
  read.flags = kNoBackingImage;
  const Info told = Learn(read);
  EXPECT_EQ(PidOf(told.uniquePid), static_cast<PidType>(kChild));
  EXPECT_EQ(PidOf(told.parentUniquePid), static_cast<PidType>(kParent));
  Info expected = read;  // what was read is not moved out of the caller's record
  expected.uniquePid = told.uniquePid;
  expected.parentUniquePid = expected.creatorUniquePid = told.parentUniquePid;
  expected.creatorPid = kParent;
  EXPECT_THAT(told, test_support::IsRecord(expected));
  const Info info = Ask(kChild);
  EXPECT_THAT(info, test_support::IsRecord(expected));
  EXPECT_EQ(info.commandLine.get(), read.commandLine.get()) << "shared, not copied";
}

TEST_F(ProcessCacheTest, AnUpdateOfAReadyEntryChangesNothingButTheParent) {
  Fork();
  const Info told = Learn(ReadOf(kChild, 101, u"/bin/second"));
  const Info info = Ask(kChild);
  EXPECT_EQ(info.imagePath, u"/bin/forked");
  EXPECT_EQ(info.parentPid, 101U) << "an orphan has a new parent";
  EXPECT_EQ(info.parentUniquePid, told.parentUniquePid);
  EXPECT_EQ(info.creatorPid, static_cast<PidType>(kParent));
  EXPECT_EQ(told.creatorPid, static_cast<PidType>(kParent));
}

TEST_F(ProcessCacheTest, AnUpdateTakesOnlyTheIdsThatWereRead) {
  m_cache->OnUidChange(kChild, 1, 2);  // unknown yet
  Fork(kChild + 1, kChild);            // now there is an entry that isn't ready
  m_cache->OnUidChange(kChild, 5, 6);
  Info read = ReadOf(kChild, kParent, u"/bin/x");
  read.realUserId.reset();
  Learn(std::move(read));
  EXPECT_EQ(Ask(kChild).realUserId, 5U);
  EXPECT_EQ(Ask(kChild).effectiveUserId, 1001U);
}

TEST_F(ProcessCacheTest, AProcessThatIsItsOwnParentIsOneEntry) {
  const Info info = Learn(ReadOf(kChild, kChild, u"/bin/x"));
  EXPECT_EQ(info.parentUniquePid, info.uniquePid);
  EXPECT_EQ(LiveSize(), 2);
}

TEST_F(ProcessCacheTest, AnUpdateIsTracedWithItsSignatureAndTheRecord) {
  const Info told = Learn(ReadOf(kChild, kParent, u"/bin/x"));
  EXPECT_TRUE(Traced(zym::trace::kCall, "ProcessCache::Update("));
  EXPECT_TRUE(Traced(zym::trace::kCall, ") " + DescribeProcess(told, m_host->categoryFilter.get())));
}

// --- UpdateAdditionalInfo ---

TEST_F(ProcessCacheTest, AdditionalInfoReplacesThreeIdsAndTheEnvironment) {
  Info info = Fork().info;
  info.realUserId = 1;
  info.effectiveUserId = 2;
  info.realGroupId.reset();
  info.effectiveGroupId = 4;
  info.environment = {"B=2"};
  info.imagePath = u"/not/taken";
  EXPECT_TRUE(m_cache->UpdateAdditionalInfo(info));
  const Info stored = Ask(kChild);
  EXPECT_EQ(stored.realUserId, 1000U) << "stays";
  EXPECT_EQ(stored.effectiveUserId, 2U);
  EXPECT_FALSE(stored.realGroupId) << "an absence is taken too";
  EXPECT_EQ(stored.effectiveGroupId, 4U);
  EXPECT_EQ(stored.environment, info.environment);
  EXPECT_EQ(stored.imagePath, u"/bin/forked");
  EXPECT_TRUE(Traced(zym::trace::kCall, "ProcessCache::UpdateAdditionalInfo Updated info: " +
                                            DescribeProcess(stored, m_host->categoryFilter.get())));
}

TEST_F(ProcessCacheTest, AdditionalInfoReachesTheImageThatItNames) {
  Info info = Fork().info;
  ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  info.environment = {"OF=first"};
  EXPECT_TRUE(m_cache->UpdateAdditionalInfo(info));
  EXPECT_NE(Ask(kChild).environment, info.environment);
  Info first;
  ASSERT_TRUE(m_cache->GetByUniquePid(info.uniquePid, first));
  EXPECT_EQ(first.environment, info.environment);
}

TEST_F(ProcessCacheTest, TheDestructorTracesItsSignature) {
  m_cache.Reset();
  EXPECT_TRUE(Traced(zym::trace::kCall, "ProcessCache::~ProcessCache()"));
}

TEST_F(ProcessCacheTest, AnswersBothOfItsFaces) {
  zym::intrusive_ptr<IProcessInfoProvider> info;
  EXPECT_EQ(zym::QueryInterface(m_cache, info.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IEventInfoProvider> event;
  EXPECT_EQ(zym::QueryInterface(m_cache, event.Ref()), zym::ZYM_OK);
}

// --- threads ---

// One thread reports, as the poll thread does; a second handles the exits, as the dispatcher's does; two ask
// and teach; one reads the metrics.
TEST_F(ProcessCacheTest, ReportsAndQuestionsOfSeveralThreadsAreEachAnsweredWhole) {
  constexpr int kRounds = 300;
  constexpr pid_t kFirst = 1000;
  constexpr pid_t kPids = 20;
  m_host->tracer->SetCeiling(zym::trace::kWarning);
  std::latch start(5);
  std::atomic<bool> ended = false;
  std::mutex exitsMutex;         // guards exits
  std::vector<EventInfo> exits;  // that wait to be handled
  std::uint64_t handled = 0;

  std::thread reports([&] {
    start.arrive_and_wait();
    std::uint64_t last = 0;
    const auto checkOrder = [&last](const EventInfo& event) {
      if (event.isFork) return;  // an early update gave the entry no number, a late fork may reuse the pid
      EXPECT_GT(event.sequence, last);
      last = event.sequence;
    };
    for (int round = 0; round < kRounds; ++round) {
      for (pid_t pid = kFirst; pid < kFirst + kPids; ++pid) {
        const EventInfo fork = Fork(pid, kFirst + (pid + 1) % kPids);
        EXPECT_EQ(fork.info.pid, static_cast<PidType>(pid));
        try {
          const auto [exit, create] = ReportExec(ReadOf(pid, kParent, u"/bin/new"));
          checkOrder(exit);
          checkOrder(create);
          const EventInfo end = Exit(pid);
          checkOrder(end);
          const std::scoped_lock lock(exitsMutex);
          exits.push_back(end);
        } catch (const zym::CheckFailedException&) {
          // The pid's last exit isn't handled yet, so its entry has nothing left to end.
        }
      }
    }
    ended = true;
  });
  std::thread handler([&] {
    start.arrive_and_wait();
    for (;;) {
      const bool last = ended;
      std::vector<EventInfo> taken;
      {
        const std::scoped_lock lock(exitsMutex);
        taken.swap(exits);
      }
      for (EventInfo& exit : taken) m_cache->OnExitProcess(exit);
      handled += taken.size();
      if (last) return;
      std::this_thread::yield();
    }
  });
  const auto ask = [&](pid_t offset) {
    start.arrive_and_wait();
    for (int i = 0; !ended; ++i) {
      const pid_t pid = kFirst + (i + offset) % kPids;
      Info info;
      if (m_cache->Get(pid, info)) {
        EXPECT_EQ(info.pid, static_cast<PidType>(pid));
        EXPECT_EQ(PidOf(info.uniquePid), static_cast<PidType>(pid));
        Info image;
        if (m_cache->GetByUniquePid(info.uniquePid, image)) {
          EXPECT_EQ(image.uniquePid, info.uniquePid);
          m_cache->UpdateAdditionalInfo(image);
        }
      } else {
        info = ReadOf(pid, kParent, u"/bin/read");
        m_cache->Update(info);
        EXPECT_EQ(PidOf(info.uniquePid), static_cast<PidType>(pid));
      }
    }
  };
  std::thread firstClient(ask, 0);
  std::thread secondClient(ask, kPids / 2);
  start.arrive_and_wait();
  while (!ended) m_host->metricsRegistry->Collect();
  reports.join();
  handler.join();
  firstClient.join();
  secondClient.join();
  EXPECT_GT(handled, 0U);
  EXPECT_LE(LiveSize(), 2 + kPids) << "only the pids that were named have entries";
}

}  // namespace
}  // namespace qor::process_manager
