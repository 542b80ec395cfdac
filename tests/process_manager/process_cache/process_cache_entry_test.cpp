#include "process_manager/process_cache/process_cache_entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <utility>

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

TEST(IndexQueue, AnswersTheFirstIndexAfterZero) {
  IndexQueue queue;
  EXPECT_EQ(queue.FrontAfterZero(99), 99U);
  queue.PushBack(0);
  EXPECT_EQ(queue.FrontAfterZero(99), 99U);
  queue.PushBack(4);
  queue.PushBack(5);
  EXPECT_EQ(queue.FrontAfterZero(99), 4U);
  queue.PopFront();
  EXPECT_EQ(queue.FrontAfterZero(99), 4U);
}

// --- what is dropped ---

constexpr std::uint32_t kKept = Entry::kFewestKept;

// Each has 1000 and its index as its unique pid.
void AppendReported(Entry& entry, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    entry.AppendVersion(1000 + entry.VersionCount(), 0, 0);
    entry.creationQueue.PopFront();
    entry.terminationQueue.PopFront();
  }
}

TEST(ProcessCacheEntry, KeepsTheFirstVersionAndTheNewestOfThoseThatWereReported) {
  Entry entry(7, 1000);
  entry.creationQueue.PopFront();  // the last version is the only one that awaits its end
  AppendReported(entry, 100);
  EXPECT_TRUE(entry.DropReported(kKept));
  EXPECT_EQ(entry.VersionCount(), 101U) << "dropped ones count";
  for (std::size_t index = 0; index <= 100; ++index)
    EXPECT_EQ(entry.FindByUniquePid(1000 + index) != nullptr, index == 0 || index > 100 - kKept) << index;
}

TEST(ProcessCacheEntry, DropsNothingUpToTheBound) {
  Entry entry(7, 1000);
  entry.creationQueue.PopFront();
  AppendReported(entry, kKept);
  EXPECT_FALSE(entry.DropReported(kKept)) << "the last one still awaits its end";
  AppendReported(entry, 1);
  EXPECT_TRUE(entry.DropReported(kKept));
  EXPECT_EQ(entry.FindByUniquePid(1001), nullptr);
  EXPECT_NE(entry.FindByUniquePid(1002), nullptr);
}

TEST(ProcessCacheEntry, SaysOnceThatItDrops) {
  Entry entry(7, 1000);
  AppendReported(entry, 100);
  EXPECT_TRUE(entry.DropReported(kKept));
  AppendReported(entry, 100);
  EXPECT_FALSE(entry.DropReported(kKept));
}

TEST(ProcessCacheEntry, AFirstVersionThatAwaitsAReportHoldsNothingUp) {
  Entry entry(7, 1000);
  for (int i = 0; i < 100; ++i) {
    entry.AppendVersion(1000 + entry.VersionCount(), 0, 0);
    entry.creationQueue.PopBack();
    entry.terminationQueue.PopBack();
  }
  EXPECT_EQ(entry.creationQueue.Front(), 0U);
  EXPECT_EQ(entry.terminationQueue.Front(), 0U);
  EXPECT_TRUE(entry.DropReported(kKept));
  EXPECT_EQ(entry.FindByUniquePid(1001), nullptr);
}

TEST(ProcessCacheEntry, NeverDropsAVersionThatAwaitsOneOfItsReports) {
  for (const auto queue : {&Entry::creationQueue, &Entry::terminationQueue}) {
    Entry entry(7, 1000);
    for (int i = 0; i < 100; ++i) entry.AppendVersion(1000 + entry.VersionCount(), 0, 0);
    for (int i = 0; i < 40; ++i) (entry.*queue).PopFront();
    EXPECT_FALSE(entry.DropReported(kKept)) << "all await the other report";
    IndexQueue& other = queue == &Entry::creationQueue ? entry.terminationQueue : entry.creationQueue;
    for (int i = 0; i < 100; ++i) other.PopFront();
    EXPECT_TRUE(entry.DropReported(kKept));
    for (std::size_t index = 0; index <= 100; ++index)
      EXPECT_EQ(entry.FindByUniquePid(1000 + index) != nullptr, index == 0 || index > 40 - kKept) << index;
    EXPECT_EQ(entry.FrontOf(entry.*queue), entry.FindByUniquePid(1040));
  }
}

// The rules of an entry in one plain list.
class EntryModel {
 public:
  struct Image {
    std::uint32_t index;
    UniquePidType uniquePid;
    std::u16string text;
    bool operator==(const Image&) const = default;
  };

  explicit EntryModel(UniquePidType uniquePid) { Append(uniquePid, u""); }

  void Append(UniquePidType uniquePid, std::u16string text) {
    m_images.push_back({m_count, uniquePid, std::move(text)});
    creation.push_back(m_count);
    termination.push_back(m_count++);
  }
  Image* Find(UniquePidType uniquePid) {
    const auto found = std::ranges::find(m_images, uniquePid, &Image::uniquePid);
    return found != m_images.end() ? &*found : nullptr;
  }
  // The number of images that go.
  std::size_t Drop(std::size_t kept) {
    std::uint32_t awaited = m_count;
    for (const auto* const queue : {&creation, &termination})
      for (const std::uint32_t index : *queue)
        if (index != 0) awaited = std::min(awaited, index);
    std::size_t reported = 0;
    for (const Image& image : m_images) reported += image.index < awaited ? 1 : 0;
    std::size_t dropped = 0;
    for (; reported > kept; --reported, ++dropped) m_images.erase(std::next(m_images.begin()));
    return dropped;
  }
  Image& At(std::uint32_t index) { return *std::ranges::find(m_images, index, &Image::index); }
  std::uint32_t Count() const { return m_count; }

  std::deque<std::uint32_t> creation;
  std::deque<std::uint32_t> termination;

 private:
  std::uint32_t m_count = 0;
  std::list<Image> m_images;
};

EntryModel::Image Seen(const Version& version) {
  return {static_cast<std::uint32_t>(version.startSequence), version.info.uniquePid,
          std::u16string(version.info.imagePath)};
}

void SetText(Version& version, const std::u16string& text) {
  version.info.imagePath = text;
  version.info.workingDirectory = text;
  version.info.commandLine = CommandLine(text.c_str());
}

TEST(ProcessCacheEntry, DoesWhatOneListDoesInAnyHistory) {
  std::size_t dropped = 0;
  std::size_t found = 0;
  std::size_t repeated = 0;
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    std::mt19937 engine(seed);
    const std::uint32_t kept = kKept + engine() % 12;
    const UniquePidType uniquePids = 10 + engine() % 100;
    const auto anyText = [&] {
      return u"/bin/" + std::u16string(1, static_cast<char16_t>(u'a' + engine() % 4));
    };
    Entry entry(7, 0);
    EntryModel model(0);
    const auto popFront = [](IndexQueue& queue, std::deque<std::uint32_t>& plain) {
      queue.PopFront();
      if (!plain.empty()) plain.pop_front();
    };
    const auto popBack = [](IndexQueue& queue, std::deque<std::uint32_t>& plain) {
      queue.PopBack();
      if (!plain.empty()) plain.pop_back();
    };
    for (int step = 0; step < 3000; ++step) {
      // In turn more are announced than reported, and the reverse.
      const bool falls = step / 100 % 2 == 0;
      const std::uint32_t choice = engine() % 16;
      if (choice < (falls ? 3U : 6U)) {
        const UniquePidType uniquePid = engine() % uniquePids;
        const std::u16string text = anyText();
        repeated += model.Find(uniquePid) != nullptr ? 1 : 0;
        SetText(entry.AppendVersion(uniquePid, model.Count(), 0), text);
        model.Append(uniquePid, text);
      } else if (choice < 9) {
        popFront(entry.creationQueue, model.creation);
      } else if (choice < 12) {
        popFront(entry.terminationQueue, model.termination);
      } else if (choice == 12) {
        popBack(entry.creationQueue, model.creation);
        popBack(entry.terminationQueue, model.termination);
      } else {
        const UniquePidType uniquePid = engine() % uniquePids;
        Version* const version = entry.FindByUniquePid(uniquePid);
        EntryModel::Image* const image = model.Find(uniquePid);
        ASSERT_EQ(version != nullptr, image != nullptr);
        if (image == nullptr) continue;
        ++found;
        ASSERT_EQ(Seen(*version), *image);
        if (!image->text.empty()) {
          ASSERT_EQ(std::u16string(version->info.workingDirectory), image->text);
          ASSERT_EQ(std::u16string(*version->info.commandLine), image->text);
        }
        if (choice == 13) {  // a report completes it late
          image->text = anyText();
          SetText(*version, image->text);
        }
      }
      entry.DropReported(kept);
      dropped += model.Drop(kept);

      ASSERT_EQ(entry.VersionCount(), model.Count());
      ASSERT_EQ(Seen(entry.Last()), model.At(model.Count() - 1));
      if (model.Count() > 1) {
        ASSERT_EQ(Seen(entry.At(entry.VersionCount() - 2)), model.At(model.Count() - 2));
      }
      for (const auto& [queue, plain] : {std::pair(&entry.creationQueue, &model.creation),
                                         std::pair(&entry.terminationQueue, &model.termination)}) {
        const Version* const front = entry.FrontOf(*queue);
        ASSERT_EQ(front != nullptr, !plain->empty());
        if (front != nullptr) {
          ASSERT_EQ(Seen(*front), model.At(plain->front()));
        }
      }
    }
  }
  EXPECT_GT(dropped, 1000U) << "a draw that drops nothing proves nothing";
  EXPECT_GT(found, 1000U);
  EXPECT_GT(repeated, 1000U);
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
