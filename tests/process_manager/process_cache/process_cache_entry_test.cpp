#include "process_manager/process_cache/process_cache_entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>

#include "support/process_records.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"

namespace qor::process_manager::process_cache {
namespace {

using test_support::IsRecord;

TEST(IndexQueue, DoesWhatADequeDoes) {
  IndexQueue queue;
  std::deque<std::uint32_t> model;
  std::mt19937 engine(1);
  for (std::uint32_t step = 0; step < 20'000; ++step) {
    // Long stretches that fill and long ones that empty, so that it is short, long and empty many times.
    const bool fills = step / 16 % 2 == 0;
    if (engine() % 4 == 0 ? !fills : fills) {
      queue.PushBack(step);
      model.push_back(step);
    } else if (engine() % 2 == 0) {
      queue.PopFront();
      if (!model.empty()) model.pop_front();
    } else {
      queue.PopBack();
      if (!model.empty()) model.pop_back();
    }
    ASSERT_EQ(queue.Empty(), model.empty());
    ASSERT_EQ(queue.Size(), model.size());
    if (!model.empty()) {
      ASSERT_EQ(queue.Front(), model.front()) << step;
    }
  }
}

TEST(IndexQueue, AnEmptyOneStaysEmpty) {
  IndexQueue queue;
  queue.PopFront();
  queue.PopBack();
  EXPECT_TRUE(queue.Empty());
  queue.PushBack(5);
  EXPECT_EQ(queue.Front(), 5U);
}

TEST(ProcessCacheEntry, ANewOneHasOneVersionThatAwaitsBothReports) {
  Entry entry(7, 77);
  EXPECT_EQ(entry.VersionCount(), 1U);
  EXPECT_FALSE(entry.ready);
  EXPECT_FALSE(entry.exitPending);
  EXPECT_EQ(entry.First().info.pid, 7U);
  EXPECT_EQ(entry.First().info.uniquePid, 77U);
  EXPECT_EQ(entry.FrontOf(entry.creationQueue), &entry.First());
  EXPECT_EQ(entry.FrontOf(entry.terminationQueue), &entry.Last());
}

TEST(ProcessCacheEntry, AnAppendedVersionDescendsFromTheLastOne) {
  Entry entry(7, 77);
  entry.First().info.parentPid = 3;
  entry.First().info.parentUniquePid = 33;
  entry.First().info.imagePath = u"/bin/first";
  const Version& version = entry.AppendVersion(78, 5, 1234);
  EXPECT_EQ(&version, &entry.Last());
  EXPECT_EQ(version.startSequence, 5U);
  EXPECT_EQ(version.endSequence, 0U);
  EXPECT_EQ(version.info.pid, 7U);
  EXPECT_EQ(version.info.parentPid, 3U);
  EXPECT_EQ(version.info.parentUniquePid, 33U);
  EXPECT_EQ(version.info.creatorPid, 7U);
  EXPECT_EQ(version.info.creatorUniquePid, 77U);
  EXPECT_EQ(version.info.uniquePid, 78U);
  EXPECT_EQ(version.info.startTime, 1234);
  EXPECT_EQ(version.info.exitTime, 0);
  EXPECT_TRUE(version.info.imagePath.empty());
  EXPECT_EQ(entry.creationQueue.Size(), 2U);
  EXPECT_EQ(entry.terminationQueue.Size(), 2U);
}

TEST(ProcessCacheEntry, TheSearchByUniquePidBeginsWithTheOldest) {
  Entry entry(7, 77);
  entry.AppendVersion(78, 0, 0);
  entry.AppendVersion(77, 0, 0);
  EXPECT_EQ(entry.FindByUniquePid(77), &entry.First());
  EXPECT_EQ(entry.FindByUniquePid(78), &entry.At(1));
  EXPECT_EQ(entry.FindByUniquePid(79), nullptr);
}

TEST(ProcessCacheEntry, AQueueThatIsEmptyOrNamesNoVersionHasNoFront) {
  Entry entry(7, 77);
  IndexQueue queue;
  EXPECT_EQ(entry.FrontOf(queue), nullptr);
  queue.PushBack(1);
  EXPECT_EQ(entry.FrontOf(queue), nullptr);
}

Info Stored() {
  Info info = ReadOf(1, 2, u"/bin/stored");
  info.uniquePid = 11;
  info.creatorPid = 12;
  info.creatorUniquePid = 13;
  info.parentUniquePid = 14;
  info.flags = kSystemProcess;
  info.exitTime = 99;
  return info;
}

Info Incoming() {
  Info info = ReadOf(21, 22, u"/bin/read");
  info.uniquePid = info.parentUniquePid = info.creatorUniquePid = info.creatorPid = 23;
  info.sessionId = 70;
  info.startTime = 71;
  info.exitTime = 72;
  info.state = kStarting;
  info.workingDirectory = u"/read";
  info.mountNamespaceId = 73;
  info.flags = kNoBackingImage;
  info.realUserId = 74;
  info.effectiveUserId.reset();
  info.realGroupId.reset();
  info.effectiveGroupId = 75;
  info.environment = {"B=2", "C=3"};
  return info;
}

// The pids of a process and of its images, which no merge touches.
void TakeNumbers(const Info& from, Info& to) {
  for (const auto pid : {&Info::pid, &Info::parentPid, &Info::creatorPid}) to.*pid = from.*pid;
  for (const auto uniquePid : {&Info::uniquePid, &Info::parentUniquePid, &Info::creatorUniquePid})
    to.*uniquePid = from.*uniquePid;
}

TEST(ProcessCacheMerge, TakesEverythingThatAReadKnows) {
  Info in = Incoming();
  Info stored = Stored();
  Merge(in, stored, false);
  Info expected = Incoming();
  TakeNumbers(Stored(), expected);
  expected.effectiveUserId = 1001;  // an id that wasn't read is kept
  expected.realGroupId = 1002;
  EXPECT_THAT(stored, IsRecord(expected));
}

TEST(ProcessCacheMerge, KeepsTheImageThatIsKnownAndTakesTheRest) {
  Info in = Incoming();
  Info stored = Stored();
  Merge(in, stored, true);
  Info expected = Incoming();
  TakeNumbers(Stored(), expected);
  expected.imagePath = u"/bin/stored";
  expected.commandLine = CommandLine(u"/bin/stored");
  expected.flags = kSystemProcess;
  expected.effectiveUserId = 1001;
  expected.realGroupId = 1002;
  EXPECT_THAT(stored, IsRecord(expected));
}

TEST(ProcessCacheMerge, FillsAnImageThatIsNotKnownAlsoWhenItKeeps) {
  for (const auto merge : {&Merge, &MergeGone}) {
    for (const auto& empty : {std::shared_ptr<const zym::types::string16_t>(), CommandLine(u"")}) {
      Info in = Incoming();
      Info stored = Stored();
      stored.imagePath.clear();
      stored.commandLine = empty;
      merge(in, stored, true);
      EXPECT_EQ(stored.imagePath, u"/bin/read");
      EXPECT_EQ(*stored.commandLine, u"/bin/read");
    }
  }
}

TEST(ProcessCacheMerge, AnEmptyEnvironmentReplacesTheStoredOne) {
  for (const bool keep : {false, true}) {
    for (const auto merge : {&Merge, &MergeGone}) {
      Info in = Incoming();
      in.environment.clear();
      Info stored = Stored();
      merge(in, stored, keep);
      EXPECT_TRUE(stored.environment.empty());
    }
  }
}

TEST(ProcessCacheMerge, AProcessThatIsGoneTellsItsStateAndImageOnly) {
  for (const bool keep : {false, true}) {
    Info in = Incoming();
    Info stored = Stored();
    MergeGone(in, stored, keep);
    Info expected = Stored();
    expected.state = kStarting;
    expected.environment = Incoming().environment;
    if (!keep) {
      expected.imagePath = u"/bin/read";
      expected.commandLine = CommandLine(u"/bin/read");
      expected.flags = kNoBackingImage;
    }
    EXPECT_THAT(stored, IsRecord(expected)) << keep;
  }
}

}  // namespace
}  // namespace qor::process_manager::process_cache
