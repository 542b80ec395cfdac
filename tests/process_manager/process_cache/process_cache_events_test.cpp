// What the event sources report, and what the cache answers.
#include <gtest/gtest.h>

#include "process_manager/process_cache/process_cache.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"
#include "zym/exception.h"

namespace qor::process_manager {
namespace {

using ProcessCacheEvents = ProcessCacheTest;

// --- fork ---

TEST_F(ProcessCacheEvents, AForkIsToldWithTheFirstNumber) {
  const EventInfo create = Fork();
  EXPECT_TRUE(create.isFork);
  EXPECT_FALSE(create.isExec);
  EXPECT_FALSE(create.skip);
  EXPECT_EQ(create.sequence, 1U) << "0 always means not yet";
  EXPECT_EQ(create.info.pid, static_cast<PidType>(kChild));
  EXPECT_EQ(create.info.parentPid, static_cast<PidType>(kParent));
  EXPECT_EQ(create.info.creatorPid, static_cast<PidType>(kParent));
}

TEST_F(ProcessCacheEvents, AChildLooksLikeItsParentUntilSomethingBetterComes) {
  const Info parent = Learn(ReadOf(kParent, 1, u"/bin/parent"));
  Info read = ReadOf(kChild, kParent, u"/bin/read");
  read.realUserId.reset();
  read.flags = kNoBackingImage;
  read.workingDirectory = u"/child";
  const EventInfo create = ReportFork(std::move(read));
  EXPECT_EQ(create.info.imagePath, u"/bin/parent");
  EXPECT_EQ(create.info.commandLine.get(), parent.commandLine.get()) << "shared, not copied";
  EXPECT_EQ(create.info.flags, parent.flags);
  EXPECT_EQ(create.info.realUserId, parent.realUserId);
  EXPECT_EQ(create.info.parentUniquePid, parent.uniquePid);
  EXPECT_EQ(create.info.creatorUniquePid, parent.uniquePid);
  EXPECT_EQ(create.info.workingDirectory, u"/child") << "what a parent can't lend is taken from the read";
}

TEST_F(ProcessCacheEvents, AForkTakesTheParentsLastImage) {
  Learn(ReadOf(kParent, 1, u"/bin/parent"));
  ReportExec(ReadOf(kParent, 1, u"/bin/executed"));
  const Info parent = Ask(kParent);
  const EventInfo create = Fork();
  EXPECT_EQ(create.info.imagePath, u"/bin/executed");
  EXPECT_EQ(create.info.parentUniquePid, parent.uniquePid);
}

TEST_F(ProcessCacheEvents, IdsThatTheParentLacksAreCleared) {
  Fork();  // has its own ids
  Info parent = ReadOf(kParent, 1, u"/bin/parent");
  parent.realUserId.reset();
  parent.effectiveUserId.reset();
  parent.realGroupId.reset();
  parent.effectiveGroupId.reset();
  Learn(std::move(parent));
  const EventInfo create = ReportFork(GoneOf(kChild, kParent));
  EXPECT_FALSE(create.info.realUserId || create.info.effectiveUserId || create.info.realGroupId ||
               create.info.effectiveGroupId);
}

TEST_F(ProcessCacheEvents, AChildOfAnUnseenParentTakesWhatWasRead) {
  const EventInfo create = Fork();
  EXPECT_EQ(create.info.imagePath, u"/bin/forked");
  EXPECT_EQ(*create.info.commandLine, u"/bin/forked");
  EXPECT_EQ(create.info.flags, 0U);
}

TEST_F(ProcessCacheEvents, AnUnseenParentGetsAnEntryThatIsNotReady) {
  Fork();
  EXPECT_EQ(LiveSize(), 3) << "the kernel, the child, the parent";
  EXPECT_FALSE(Knows(kParent));
}

TEST_F(ProcessCacheEvents, AForkOfAProcessThatIsGoneIsToldWithItsParentsImage) {
  Learn(ReadOf(kParent, 1, u"/bin/parent"));
  const EventInfo create = ReportFork(GoneOf(kChild, kParent));
  EXPECT_EQ(create.info.imagePath, u"/bin/parent");
  EXPECT_EQ(create.info.state, kTerminated);
  EXPECT_EQ(create.info.flags, 0U) << "the parent's: those of a read that failed say nothing";
  EXPECT_EQ(create.info.startTime, 0) << "not touched by a read that failed";
}

// --- exec ---

TEST_F(ProcessCacheEvents, AnExecEndsTheOldImageAndAppendsANewOne) {
  const EventInfo fork = Fork();
  const auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_TRUE(exit.isExec);
  EXPECT_FALSE(create.isExec);
  EXPECT_FALSE(create.isFork);
  EXPECT_EQ(exit.sequence, 2U);
  EXPECT_EQ(create.sequence, 3U);
  EXPECT_EQ(exit.info.uniquePid, fork.info.uniquePid);
  EXPECT_EQ(exit.info.state, kTerminated);
  EXPECT_EQ(exit.info.exitTime, 5000) << "the transition's time";
  EXPECT_EQ(create.info.startTime, 5000);
  EXPECT_EQ(create.info.exitTime, 0);
  EXPECT_EQ(create.info.imagePath, u"/bin/new");
  EXPECT_EQ(create.info.creatorPid, create.info.pid);
  EXPECT_EQ(create.info.creatorUniquePid, fork.info.uniquePid);
  EXPECT_EQ(create.info.parentUniquePid, fork.info.parentUniquePid);
  EXPECT_NE(create.info.uniquePid, fork.info.uniquePid);
}

TEST_F(ProcessCacheEvents, ExecReportedTwiceMakesOneVersion) {
  Fork();
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const Exec late = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(late.exit.sequence, early.exit.sequence);
  EXPECT_EQ(late.create.sequence, early.create.sequence);
  EXPECT_EQ(late.exit.info.uniquePid, early.exit.info.uniquePid);
  EXPECT_EQ(late.create.info.uniquePid, early.create.info.uniquePid);
  EXPECT_EQ(Ask(kChild).uniquePid, early.create.info.uniquePid);
  EXPECT_EQ(Exit().info.uniquePid, early.create.info.uniquePid);
  EXPECT_THROW(Exit(), zym::CheckFailedException) << "no second version waits for its end";
}

TEST_F(ProcessCacheEvents, ForkAfterAnExecPermReportsTheFirstImageAndTheExecFindsTheSecond) {
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const EventInfo fork = Fork();
  EXPECT_EQ(fork.info.uniquePid, early.exit.info.uniquePid);
  EXPECT_EQ(fork.sequence, 1U);
  EXPECT_EQ(early.exit.sequence, 2U);
  EXPECT_EQ(early.create.sequence, 3U);
  const Exec late = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(late.exit.sequence, early.exit.sequence);
  EXPECT_EQ(late.create.sequence, early.create.sequence);
  EXPECT_EQ(late.create.info.uniquePid, early.create.info.uniquePid);
}

TEST_F(ProcessCacheEvents, AnExecWhoseForkWasMissedSaysNothingOfTheOldImagesCreation) {
  const auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(exit.sequence, 1U);
  EXPECT_EQ(create.sequence, 2U);
  EventInfo end = Finish();
  EXPECT_FALSE(end.skip);
  EXPECT_EQ(LiveSize(), 2) << "nothing waits: the entry went";
}

TEST_F(ProcessCacheEvents, AnExecOfAnUnseenProcessShowsTheOldImageAsItsParent) {
  Learn(ReadOf(kParent, 1, u"/bin/parent"));
  const auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(exit.info.imagePath, u"/bin/parent");
  EXPECT_EQ(create.info.imagePath, u"/bin/new");
}

TEST_F(ProcessCacheEvents, AnExecKeepsTheRealIdsAnAbsentOneIncluded) {
  Info read = ReadOf(kChild, kParent, u"/bin/forked");
  read.realGroupId.reset();
  ReportFork(std::move(read));
  m_cache->OnUidChange(kChild, 5, 6);
  const auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(create.info.realUserId, 5U);
  EXPECT_FALSE(create.info.realGroupId);
  EXPECT_EQ(create.info.effectiveUserId, 1001U) << "a set-user-id image changes it";
  EXPECT_EQ(create.info.effectiveGroupId, 1003U);
}

// The read of a process that is gone has no parent: none is made for it.
TEST_F(ProcessCacheEvents, AnExecOfAProcessThatIsGoneChangesImageStateAndEnvironmentOnly) {
  const EventInfo fork = Fork();
  const auto [exit, create] = ReportExec(GoneOf(kChild));
  EXPECT_EQ(create.info.state, kTerminated);
  EXPECT_TRUE(create.info.imagePath.empty());
  EXPECT_FALSE(create.info.commandLine);
  EXPECT_TRUE(create.info.environment.empty());
  EXPECT_EQ(create.info.startTime, 6000) << "the new version's own";
  EXPECT_EQ(create.info.exitTime, 0);
  EXPECT_EQ(create.info.parentPid, static_cast<PidType>(kParent));
  EXPECT_EQ(create.info.parentUniquePid, fork.info.parentUniquePid);
  EXPECT_EQ(create.info.realUserId, 1000U);
  EXPECT_EQ(create.info.mountNamespaceId, kNoMountNamespace);
  EXPECT_EQ(create.info.sessionId, 0U);
  EXPECT_EQ(exit.info.imagePath, u"/bin/forked");
}

TEST_F(ProcessCacheEvents, AnExecOfAProcessThatIsGoneLeavesTheRestOfWhatThePermissionPathRead) {
  Fork();
  ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const auto [exit, create] = ReportExec(GoneOf(kChild));
  EXPECT_EQ(create.info.state, kTerminated);
  EXPECT_TRUE(create.info.imagePath.empty());
  EXPECT_TRUE(create.info.environment.empty());
  EXPECT_EQ(create.info.sessionId, 7U);
  EXPECT_EQ(create.info.startTime, 5000);
  EXPECT_EQ(create.info.workingDirectory, u"/home");
  EXPECT_EQ(create.info.effectiveUserId, 1001U);
  EXPECT_EQ(create.info.mountNamespaceId, 42U);
}

TEST_F(ProcessCacheEvents, AnExecOfAnUnseenProcessThatIsGoneTakesTheWholeReadAndStaysNotReady) {
  Info gone = GoneOf(kChild);
  gone.sessionId = 9;
  const auto [exit, create] = ReportExec(std::move(gone));
  EXPECT_EQ(exit.sequence, 1U);
  EXPECT_EQ(create.sequence, 2U);
  EXPECT_EQ(create.info.sessionId, 9U);
  EXPECT_EQ(create.info.flags, kNoBackingImage);
  EXPECT_FALSE(Knows(kChild));
  EXPECT_EQ(LiveSize(), 2) << "no entry for a parent that nobody named";
}

TEST_F(ProcessCacheEvents, AnExecPermGivesTheOldImageANumberWhenNobodyToldItsCreation) {
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  EXPECT_EQ(early.exit.sequence, 2U) << "1 is kept for the fork";
  EXPECT_EQ(early.create.sequence, 3U);
  EXPECT_TRUE(early.exit.isExec);
  EXPECT_EQ(early.exit.info.state, kTerminated);
}

TEST_F(ProcessCacheEvents, AnExecWithNothingToEndThrows) {
  Fork();
  Exit();
  EXPECT_THROW(ReportExec(ReadOf(kChild, kParent, u"/bin/new")), zym::CheckFailedException);
}

// --- exit ---

TEST_F(ProcessCacheEvents, AnExitIsToldWithTheTimeOfTheCall) {
  Fork();
  const EventInfo exit = Exit();
  EXPECT_EQ(exit.sequence, 2U);
  EXPECT_EQ(exit.info.state, kTerminated);
  EXPECT_EQ(exit.info.exitTime, m_now);
  EXPECT_FALSE(exit.isExec);
  EXPECT_TRUE(Knows(kChild)) << "until its event is handled";
}

TEST_F(ProcessCacheEvents, AnExitOfAnUnknownProcessIsSkippedAndNothingElseHappens) {
  EventInfo exit;
  exit.timestamp = 9;
  m_cache->OnExit(kChild, exit);
  EXPECT_TRUE(exit.skip);
  EXPECT_EQ(exit.sequence, 0U);
  EXPECT_EQ(exit.info.pid, 0U);
  EXPECT_EQ(exit.timestamp, 9U);
  EXPECT_EQ(LiveSize(), 1);
}

TEST_F(ProcessCacheEvents, ASecondExitOfOneImageThrows) {
  Fork();
  Exit();
  EXPECT_THROW(Exit(), zym::CheckFailedException);
}

TEST_F(ProcessCacheEvents, AnExitBeforeAnAwaitedExecEndsTheFirstImageWithANewNumber) {
  Fork();
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const EventInfo exit = Exit();
  EXPECT_EQ(exit.info.uniquePid, early.exit.info.uniquePid);
  EXPECT_EQ(exit.sequence, 4U) << "an exit always takes a new number";
}

TEST_F(ProcessCacheEvents, AHandledExitLeavesADeadRecord) {
  Fork();
  EXPECT_FALSE(Finish().skip);
  EXPECT_EQ(LiveSize(), 2);
  EXPECT_EQ(Ask(kChild).state, kTerminated);
}

TEST_F(ProcessCacheEvents, AHandledExitOfAnUnknownProcessIsSkipped) {
  EventInfo exit;
  exit.info.pid = kChild;
  m_cache->OnExitProcess(exit);
  EXPECT_TRUE(exit.skip);
}

TEST_F(ProcessCacheEvents, AHandledExitOfAnExecKeepsTheEntry) {
  Fork();
  auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  m_cache->OnExitProcess(exit);
  EXPECT_FALSE(exit.skip);
  EXPECT_EQ(Ask(kChild).state, kCreated);
}

TEST_F(ProcessCacheEvents, AHandledExitWithAnExecAwaitedIsTracedAndKeepsTheEntry) {
  Fork();
  ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const EventInfo exit = Finish();
  EXPECT_FALSE(exit.skip);
  EXPECT_TRUE(Traced(zym::trace::kWarning, "ProcessCache::OnExitProcess("));
  EXPECT_TRUE(Traced(zym::trace::kWarning, " pid: 200, not erased: 1"));
  EXPECT_EQ(LiveSize(), 3);
}

// Only later images are waited for: the report of the first one may have been lost.
TEST_F(ProcessCacheEvents, AHandledExitDoesNotWaitForTheFirstImage) {
  Learn(ReadOf(kChild, kParent, u"/bin/read"));
  Finish();
  EXPECT_EQ(LiveSize(), 2);
  EXPECT_EQ(Ask(kChild).state, kTerminated);
}

// --- denial ---

TEST_F(ProcessCacheEvents, ADeniedProcessGoesOnAsWhatItWasUnderANewUniquePid) {
  const EventInfo fork = Fork();
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  const Denial denial = ReportExecDeny(ReadOf(kChild, kParent, u"/bin/forked"));
  EXPECT_TRUE(denial.forkExit.isExec);
  EXPECT_EQ(denial.forkExit.info.uniquePid, early.create.info.uniquePid);
  EXPECT_EQ(denial.forkExit.info.state, kTerminated);
  EXPECT_EQ(denial.forkExit.info.exitTime, 5000);
  EXPECT_EQ(denial.forkExit.sequence, 4U);
  EXPECT_TRUE(denial.exit.isExec);
  EXPECT_EQ(denial.exit.sequence, early.exit.sequence);
  EXPECT_EQ(denial.exit.info.uniquePid, fork.info.uniquePid);
  EXPECT_EQ(denial.create.sequence, 5U);
  EXPECT_EQ(denial.forkCreate.sequence, 5U);
  EXPECT_EQ(denial.create.info.uniquePid, denial.forkCreate.info.uniquePid);
  EXPECT_EQ(denial.create.info.creatorPid, static_cast<PidType>(kParent)) << "the previous image's creator";
  EXPECT_EQ(denial.create.info.creatorUniquePid, fork.info.creatorUniquePid);
  EXPECT_NE(denial.create.info.uniquePid, fork.info.uniquePid);
  EXPECT_NE(denial.create.info.uniquePid, early.create.info.uniquePid);
  EXPECT_EQ(denial.create.info.imagePath, u"/bin/forked");
  for (const EventInfo* const event : {&denial.exit, &denial.create, &denial.forkExit, &denial.forkCreate})
    EXPECT_FALSE(event->skip || event->isFork);
}

TEST_F(ProcessCacheEvents, AfterADenialTheNextExecAndExitFindTheImageThatGoesOn) {
  Fork();
  ReportExecPerm(ReadOf(kChild, kParent, u"/bin/denied"));
  const Denial denial = ReportExecDeny(ReadOf(kChild, kParent, u"/bin/forked"));
  const auto [exit, create] = ReportExec(ReadOf(kChild, kParent, u"/bin/allowed"));
  EXPECT_EQ(exit.info.uniquePid, denial.create.info.uniquePid);
  EXPECT_EQ(create.info.creatorUniquePid, denial.create.info.uniquePid);
  EXPECT_EQ(Finish().info.uniquePid, create.info.uniquePid);
  EXPECT_EQ(LiveSize(), 2);
}

TEST_F(ProcessCacheEvents, ADenialBeforeTheForkLeavesTheForkItsFirstImage) {
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/denied"));
  ReportExecDeny(ReadOf(kChild, kParent, u"/bin/forked"));
  const EventInfo fork = Fork();
  EXPECT_EQ(fork.info.uniquePid, early.exit.info.uniquePid);
  EXPECT_EQ(fork.sequence, 1U);
}

TEST_F(ProcessCacheEvents, ADenialWithTheExitPendingErasesTheEntryAndSkipsThreeRecords) {
  Fork();
  const Exec early = ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  Finish();
  m_now = zym::datetime::kUnixEpoch;
  const Denial denial = ReportExecDeny(ReadOf(kChild, kParent, u"/bin/forked"));
  EXPECT_TRUE(denial.exit.skip);
  EXPECT_TRUE(denial.create.skip);
  EXPECT_TRUE(denial.forkCreate.skip);
  EXPECT_FALSE(denial.forkExit.skip);
  EXPECT_FALSE(denial.forkExit.isExec) << "the process ended indeed";
  EXPECT_EQ(denial.forkExit.info.uniquePid, early.create.info.uniquePid);
  EXPECT_EQ(LiveSize(), 2);
}

TEST_F(ProcessCacheEvents, ADenialWithTheExitPendingLeavesADeadRecord) {
  Fork();
  ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  Finish();
  Info info = ReadOf(kChild, kParent, u"/bin/forked");
  info.startTime = m_now;
  ReportExecDeny(std::move(info));
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/new");
}

TEST_F(ProcessCacheEvents, ADenialOfAnUnknownProcessThrows) {
  EXPECT_THROW(ReportExecDeny(ReadOf(kChild, kParent, u"/bin/x")), zym::CheckFailedException);
  EXPECT_EQ(LiveSize(), 1) << "and makes no entry";
}

TEST_F(ProcessCacheEvents, ADenialThatNobodyAnnouncedThrowsBeforeItChangesAnything) {
  const EventInfo fork = Fork();
  EXPECT_THROW(ReportExecDeny(ReadOf(kChild, kParent, u"/bin/x")), zym::CheckFailedException);
  EXPECT_EQ(Ask(kChild).state, kCreated);
  const EventInfo exit = Finish();
  EXPECT_EQ(exit.info.uniquePid, fork.info.uniquePid);
  EXPECT_EQ(exit.sequence, 2U);
}

// --- completion of a create event ---

TEST_F(ProcessCacheEvents, ACompletedCreationOfAnUnknownProcessIsSkippedAndNotFound) {
  for (const bool update : {false, true}) {
    EventInfo create;
    create.info.pid = kChild;
    EXPECT_EQ(m_cache->OnCreateProcess(update, create), zym::ZYM_E_NOT_FOUND);
    EXPECT_TRUE(create.skip);
  }
}

TEST_F(ProcessCacheEvents, ACompletedCreationWithoutNewFactsChangesNothing) {
  EventInfo create = Fork();
  create.info.imagePath = u"/bin/other";
  create.info.uniquePid = 1;  // isn't looked at
  EXPECT_EQ(m_cache->OnCreateProcess(false, create), zym::ZYM_OK);
  EXPECT_FALSE(create.skip);
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/forked");
}

TEST_F(ProcessCacheEvents, ACompletedCreationBringsItsImageUpToDate) {
  EventInfo create = Fork();
  ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  create.info.imagePath = u"/bin/told-later";
  create.info.commandLine = CommandLine(u"told later");
  create.info.environment = {"TOLD=later"};
  create.info.flags = kNoBackingImage;
  create.info.workingDirectory = u"/not/taken";
  create.info.state = kTerminated;
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_OK);
  Info first;
  ASSERT_TRUE(m_cache->GetByUniquePid(create.info.uniquePid, first));
  EXPECT_EQ(first.imagePath, u"/bin/told-later");
  EXPECT_EQ(first.commandLine.get(), create.info.commandLine.get());
  EXPECT_EQ(first.environment, create.info.environment);
  EXPECT_EQ(first.flags, kNoBackingImage);
  EXPECT_EQ(first.workingDirectory, u"/home");
  EXPECT_EQ(Ask(kChild).imagePath, u"/bin/new") << "the later image is another";
}

TEST_F(ProcessCacheEvents, ACommandLineIsComparedByPointer) {
  EventInfo create = Fork();
  create.info.commandLine = CommandLine(u"/bin/forked");  // an equal text
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_OK);
  EXPECT_EQ(Ask(kChild).commandLine.get(), create.info.commandLine.get());
}

TEST_F(ProcessCacheEvents, ACompletedCreationOfAnUnknownImageIsNotFoundAndTraced) {
  EventInfo create = Fork();
  create.info.uniquePid += 1ULL << 32;
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_E_NOT_FOUND);
  EXPECT_FALSE(create.skip) << "the process is known";
  EXPECT_TRUE(Traced(zym::trace::kFailure, "process_manager/process_cache/process_cache_events.cpp:"));
  EXPECT_TRUE(Traced(zym::trace::kFailure, "(procInfo),(bool) failed: result = false"));
}

// --- credentials ---

TEST_F(ProcessCacheEvents, ChangesOfCredentialsReachTheLastImage) {
  const EventInfo fork = Fork();
  ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  m_cache->OnUidChange(kChild, 1, 2);
  m_cache->OnGidChange(kChild, 3, 4);
  const Info last = Ask(kChild);
  EXPECT_EQ(last.realUserId, 1U);
  EXPECT_EQ(last.effectiveUserId, 2U);
  EXPECT_EQ(last.realGroupId, 3U);
  EXPECT_EQ(last.effectiveGroupId, 4U);
  Info first;
  ASSERT_TRUE(m_cache->GetByUniquePid(fork.info.uniquePid, first));
  EXPECT_EQ(first.realUserId, 1000U);
}

TEST_F(ProcessCacheEvents, ChangesOfCredentialsOfAnUnknownProcessOnlyCountAMiss) {
  const std::uint64_t misses = Misses();
  const std::uint64_t hits = Hits();
  m_cache->OnUidChange(kChild, 1, 2);
  m_cache->OnGidChange(kChild, 3, 4);
  EXPECT_EQ(Misses(), misses + 2);
  EXPECT_EQ(Hits(), hits);
  EXPECT_EQ(LiveSize(), 1);
}

// --- of all ---

TEST_F(ProcessCacheEvents, TheTimestampIsTheCallersAndIsKept) {
  EventInfo create;
  create.timestamp = 77;
  m_cache->OnFork(ReadOf(kChild, kParent, u"/bin/x"), create);
  EXPECT_EQ(create.timestamp, 77U);
  EXPECT_FALSE(create.isFake);
}

TEST_F(ProcessCacheEvents, EachOperationTracesItsEntry) {
  Fork();
  ReportExecPerm(ReadOf(kChild, kParent, u"/bin/new"));
  ReportExecDeny(ReadOf(kChild, kParent, u"/bin/forked"));
  ReportExec(ReadOf(kChild, kParent, u"/bin/new"));
  m_cache->OnUidChange(kChild, 1, 2);
  m_cache->OnGidChange(kChild, 3, 4);
  EventInfo exit = Finish();
  m_cache->OnCreateProcess(false, exit);
  for (const char* const text :
       {"ProcessCache::OnFork() pid: 200, ppid: 100", "ProcessCache::OnExecPerm() pid: 200",
        "ProcessCache::OnExecDeny() pid: 200", "ProcessCache::OnExec() pid: 200",
        "ProcessCache::OnUidChange() pid: 200, ruid: 1, euid: 2",
        "ProcessCache::OnGidChange() pid: 200, rgid: 3, egid: 4", "ProcessCache::OnExit() pid: 200",
        "ProcessCache::OnExitProcess() pid: 200", "ProcessCache::OnCreateProcess() pid: 200"})
    EXPECT_TRUE(Traced(zym::trace::kCall, text)) << text;
}

}  // namespace
}  // namespace qor::process_manager
