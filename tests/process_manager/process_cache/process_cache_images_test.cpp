// The images of one process that the cache keeps, and those that it drops.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "process_manager/process_cache/process_cache.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"

namespace qor::process_manager {
namespace {

using process_cache::Entry;

constexpr std::uint32_t kLowered = Entry::kFewestKept;
constexpr std::string_view kDropTrace = ", drops the oldest images, keeps: ";

class ProcessCacheImages : public ProcessCacheTest {
 protected:
  // Each image gets a unique pid that no other has, for each is asked for in a second of its own.
  void UseCache(std::uint32_t imagesKept) {
    ProcessCacheSurroundings surroundings = Surroundings();
    surroundings.imagesKept = imagesKept;
    surroundings.seconds = [this] { return ++m_second; };
    m_cache = MakeCache(std::move(surroundings));
  }
  void SetUp() override {
    UseCache(kLowered);
    m_host->tracer->SetCeiling(zym::trace::kWarning);
  }

  Exec ExecTo(const char16_t* path) { return ReportExec(ReadOf(kChild, kParent, path)); }
  Exec Announce() { return ReportExecPerm(ReadOf(kChild, kParent, u"/bin/announced")); }
  bool Finds(UniquePidType uniquePid) {
    Info info;
    return m_cache->GetByUniquePid(uniquePid, info);
  }
  bool Finds(const EventInfo& event) { return Finds(event.info.uniquePid); }
  std::size_t DropTraces() const {
    const auto records = m_host->tracer->Records();
    return static_cast<std::size_t>(std::ranges::count_if(records, [](const auto& record) {
      return record.level == zym::trace::kWarning && record.text.find(kDropTrace) != std::string::npos;
    }));
  }

 private:
  std::time_t m_second = 0;
};

// The current image is no part of it: it awaits its end.
TEST_F(ProcessCacheImages, OfTenThousandExecsTheFirstImageAndTheNewestAreKept) {
  constexpr std::size_t kExecs = 10'000;
  constexpr std::size_t kKept = 4096;
  UseCache(ProcessCacheSurroundings::Real().imagesKept);
  std::vector<UniquePidType> images = {Fork().info.uniquePid};
  for (std::size_t i = 0; i < kExecs; ++i) images.push_back(ExecTo(u"/bin/self").create.info.uniquePid);
  for (std::size_t i = 0; i < images.size(); ++i)
    ASSERT_EQ(Finds(images[i]), i == 0 || i > kExecs - kKept) << i;
  EXPECT_EQ(Ask(kChild).uniquePid, images.back());
  EXPECT_FALSE(Finish().skip);
  EXPECT_EQ(LiveSize(), 2);
}

TEST_F(ProcessCacheImages, TheBoundHoldsAfterEachReport) {
  std::vector<EventInfo> images = {Fork()};
  const auto reported = [&](std::size_t awaiting) {
    return static_cast<std::size_t>(
               std::ranges::count_if(images, [this](const EventInfo& image) { return Finds(image); })) -
           awaiting;
  };
  for (int i = 0; i < 50; ++i) {
    images.push_back(i % 2 == 0 ? ExecTo(u"/bin/self").create : Announce().create);
    if (i % 2 != 0) ExecTo(u"/bin/self");
    ASSERT_LE(reported(1), kLowered) << i;
  }
  Exit();
  EXPECT_EQ(reported(0), kLowered) << "the last one was reported, too";
}

TEST_F(ProcessCacheImages, ADroppedImageIsAnsweredAsOneThatNeverWas) {
  Fork();
  const EventInfo dropped = ExecTo(u"/bin/self").create;
  for (int i = 0; i < 50; ++i) ExecTo(u"/bin/self");
  m_host->tracer->SetCeiling(zym::trace::kDefaultCeiling);
  const std::uint64_t misses = Misses();
  EXPECT_FALSE(Finds(dropped));
  EXPECT_EQ(Misses(), misses + 1);
  EXPECT_TRUE(Traced(zym::trace::kCall,
                     "Cannot find process info by upid=" + std::to_string(dropped.info.uniquePid)));
  Info info = dropped.info;
  EXPECT_FALSE(m_cache->UpdateAdditionalInfo(info));
}

// A handler may hold the queue of events up for that long.
TEST_F(ProcessCacheImages, TheEventsOfADroppedImageAreHandledAllTheSame) {
  Fork();
  EventInfo create = ExecTo(u"/bin/self").create;
  EventInfo exit = ExecTo(u"/bin/self").exit;
  ASSERT_EQ(exit.info.uniquePid, create.info.uniquePid);
  for (int i = 0; i < 50; ++i) ExecTo(u"/bin/self");
  EXPECT_EQ(m_cache->OnCreateProcess(false, create), zym::ZYM_OK);
  EXPECT_EQ(m_cache->OnCreateProcess(true, create), zym::ZYM_E_NOT_FOUND) << "there is nothing to update";
  EXPECT_FALSE(create.skip);
  m_cache->OnExitProcess(exit);
  EXPECT_FALSE(exit.skip);
  EXPECT_TRUE(Knows(kChild));
}

TEST_F(ProcessCacheImages, AnImageThatAwaitsItsReportIsNeverDropped) {
  constexpr std::size_t kExecs = 6000;
  Fork();
  std::vector<Exec> early;
  for (std::size_t i = 0; i < kExecs; ++i) early.push_back(Announce());
  for (const Exec& exec : early) ASSERT_TRUE(Finds(exec.exit) && Finds(exec.create));
  EXPECT_EQ(DropTraces(), 0U);

  for (const Exec& exec : early) {
    const Exec late = ExecTo(u"/bin/announced");
    ASSERT_EQ(late.exit.sequence, exec.exit.sequence);
    ASSERT_EQ(late.exit.info.uniquePid, exec.exit.info.uniquePid);
    ASSERT_EQ(late.create.sequence, exec.create.sequence);
    ASSERT_EQ(late.create.info.uniquePid, exec.create.info.uniquePid);
  }
  EXPECT_EQ(DropTraces(), 1U);
  EXPECT_FALSE(Finds(early[kExecs - kLowered].exit));
  EXPECT_TRUE(Finds(early[kExecs - kLowered + 1].exit));
}

TEST_F(ProcessCacheImages, BothReportsOfAnExecAgreeAcrossADrop) {
  Fork();
  for (int i = 0; i < 100; ++i) {
    const Exec early = Announce();
    const Exec late = ExecTo(u"/bin/announced");
    ASSERT_EQ(late.exit.sequence, early.exit.sequence);
    ASSERT_EQ(late.create.sequence, early.create.sequence);
    ASSERT_EQ(late.exit.info.uniquePid, early.exit.info.uniquePid);
    ASSERT_EQ(late.create.info.uniquePid, early.create.info.uniquePid);
  }
  EXPECT_EQ(DropTraces(), 1U);
}

TEST_F(ProcessCacheImages, ADeniedExecFindsTheImageBeforeItAcrossADrop) {
  EventInfo current = Fork();
  for (int i = 0; i < 100; ++i) {
    const Exec early = Announce();
    const Denial denial = ReportExecDeny(ReadOf(kChild, kParent, u"/bin/goes-on"));
    ASSERT_EQ(denial.exit.info.uniquePid, current.info.uniquePid);
    ASSERT_EQ(denial.exit.sequence, early.exit.sequence);
    ASSERT_EQ(denial.forkExit.info.uniquePid, early.create.info.uniquePid);
    ASSERT_EQ(denial.create.info.creatorUniquePid, current.info.creatorUniquePid);
    current = denial.create;
  }
  EXPECT_EQ(DropTraces(), 1U);
  EXPECT_EQ(ExecTo(u"/bin/allowed").exit.info.uniquePid, current.info.uniquePid);
}

// Its first image awaits the report of a fork that was before the module's time.
TEST_F(ProcessCacheImages, TheBoundHoldsForAProcessWhoseForkWasNeverReported) {
  Learn(ReadOf(kChild, kParent, u"/bin/read"));
  const Exec early = Announce();
  ReportExecDeny(ReadOf(kChild, kParent, u"/bin/read"));
  for (int i = 0; i < 100; ++i) {
    Announce();
    ReportExecDeny(ReadOf(kChild, kParent, u"/bin/read"));
  }
  EXPECT_FALSE(Finds(early.create));
  EXPECT_TRUE(Finds(early.exit)) << "the first image stays";
}

TEST_F(ProcessCacheImages, AForkAfterADropIsReportedWithTheFirstImage) {
  for (int i = 0; i < 100; ++i) {
    Announce();
    ReportExecDeny(ReadOf(kChild, kParent, u"/bin/goes-on"));
  }
  EXPECT_EQ(DropTraces(), 1U);
  const EventInfo fork = Fork();
  EXPECT_EQ(fork.sequence, 1U);
  EXPECT_TRUE(Finds(fork));
}

TEST_F(ProcessCacheImages, TheFirstDropOfAProcessIsTracedOnceWithItsPid) {
  Fork();
  for (std::uint32_t i = 0; i < kLowered; ++i) ExecTo(u"/bin/self");
  EXPECT_EQ(DropTraces(), 0U);
  for (int i = 0; i < 50; ++i) ExecTo(u"/bin/self");
  EXPECT_EQ(DropTraces(), 1U);
  EXPECT_TRUE(Traced(zym::trace::kWarning, "ProcessCache::DropReported("));
  EXPECT_TRUE(Traced(zym::trace::kWarning, " pid: 200, drops the oldest images, keeps: 9"));

  constexpr pid_t kOther = 300;
  Fork(kOther);
  for (int i = 0; i < 50; ++i) ReportExec(ReadOf(kOther, kParent, u"/bin/self"));
  EXPECT_EQ(DropTraces(), 2U);
  EXPECT_TRUE(Traced(zym::trace::kWarning, " pid: 300, drops the oldest images, keeps: 9"));
}

TEST_F(ProcessCacheImages, OfEqualUniquePidsTheOldestIsAnswered) {
  m_cache = MakeCache();  // in one second, where the counter of nine bits repeats itself
  Learn(ReadOf(kParent, 1, u"/bin/parent"));
  const UniquePidType first = Fork().info.uniquePid;
  std::vector<UniquePidType> images = {first};
  for (int i = 1; i < 2000; ++i) {
    const std::string path = "/bin/" + std::to_string(i);
    images.push_back(ExecTo(std::u16string(path.begin(), path.end()).c_str()).create.info.uniquePid);
  }
  ASSERT_EQ(images[512], first);
  ASSERT_EQ(images[1034], images[10]);
  for (std::size_t i = 1; i < images.size(); ++i) {
    Info info;
    ASSERT_TRUE(m_cache->GetByUniquePid(images[i], info));
    const std::string path = i % 512 == 0 ? "/bin/parent" : "/bin/" + std::to_string(i % 512);
    ASSERT_EQ(info.imagePath, zym::types::string16_t(path.begin(), path.end())) << i;
  }
}

TEST_F(ProcessCacheImages, AnEarlierImageIsAnsweredWholeHoweverManyFollowed) {
  UseCache(1000);
  Fork();
  std::vector<EventInfo> images;
  for (int i = 0; i < 300; ++i) images.push_back(ExecTo(i % 2 == 0 ? u"/bin/even" : u"/bin/odd").create);
  for (const EventInfo& image : images) {
    Info info;
    ASSERT_TRUE(m_cache->GetByUniquePid(image.info.uniquePid, info));
    EXPECT_EQ(info.imagePath, image.info.imagePath);
    EXPECT_EQ(info.workingDirectory, u"/home");
    EXPECT_EQ(*info.commandLine, *image.info.commandLine);
    EXPECT_EQ(info.environment, image.info.environment);
    EXPECT_EQ(info.effectiveGroupId, 1003U);
    EXPECT_EQ(info.mountNamespaceId, 42U);
    EXPECT_EQ(info.creatorUniquePid, image.info.creatorUniquePid);
  }
}

TEST_F(ProcessCacheImages, AnEarlierImageIsBroughtUpToDateHoweverManyFollowed) {
  UseCache(1000);
  Fork();
  EventInfo completed = ExecTo(u"/bin/self").create;
  Info filled = ExecTo(u"/bin/self").create.info;
  for (int i = 0; i < 300; ++i) ExecTo(u"/bin/self");
  completed.info.imagePath = u"/bin/late";
  completed.info.commandLine = CommandLine(u"late");
  EXPECT_EQ(m_cache->OnCreateProcess(true, completed), zym::ZYM_OK);
  filled.effectiveUserId = 77;
  EXPECT_TRUE(m_cache->UpdateAdditionalInfo(filled));

  Info info;
  ASSERT_TRUE(m_cache->GetByUniquePid(completed.info.uniquePid, info));
  EXPECT_EQ(info.imagePath, u"/bin/late");
  EXPECT_EQ(*info.commandLine, u"late");
  EXPECT_EQ(info.workingDirectory, u"/home");
  EXPECT_EQ(info.effectiveUserId, 1001U);
  ASSERT_TRUE(m_cache->GetByUniquePid(filled.uniquePid, info));
  EXPECT_EQ(info.imagePath, u"/bin/self");
  EXPECT_EQ(info.effectiveUserId, 77U);
}

}  // namespace
}  // namespace qor::process_manager
