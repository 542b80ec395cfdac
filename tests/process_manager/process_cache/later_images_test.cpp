#include "process_manager/process_cache/later_images.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace qor::process_manager::process_cache {
namespace {

using Serial = LaterImages::Serial;
using String = zym::types::string16_t;

constexpr Serial kRecent = LaterImages::kRecent;

// Each image remembers its serial as the number of its start.
Version ImageOf(Serial serial, UniquePidType uniquePid, const String& path = u"/bin/program") {
  Version version;
  version.startSequence = serial;
  version.info.uniquePid = uniquePid;
  version.info.imagePath = path;
  version.info.workingDirectory = u"/work";
  version.info.commandLine = std::make_shared<const String>(path + u" --option");
  return version;
}

// Images whose unique pid is 1000 and their serial.
void AppendDistinct(LaterImages& images, Serial count) {
  for (Serial i = 0; i < count; ++i) {
    const Serial serial = images.Newest() + 1;
    images.Append(ImageOf(serial, 1000 + serial));
  }
}

// 0: there is none.
Serial SerialOf(LaterImages& images, UniquePidType uniquePid) {
  const Version* const version = images.FindByUniquePid(uniquePid);
  return version != nullptr ? static_cast<Serial>(version->startSequence) : 0;
}

void ExpectWhole(const Version* version, const String& path) {
  ASSERT_NE(version, nullptr);
  EXPECT_EQ(version->info.imagePath, path);
  EXPECT_EQ(version->info.workingDirectory, u"/work");
  ASSERT_NE(version->info.commandLine, nullptr);
  EXPECT_EQ(*version->info.commandLine, path + u" --option");
}

TEST(LaterImages, BeginEmpty) {
  LaterImages images;
  EXPECT_EQ(images.Newest(), 0U);
  EXPECT_EQ(images.FindByUniquePid(0), nullptr);
}

TEST(LaterImages, AreFoundByUniquePidWhetherTheyAreFewOrMany) {
  LaterImages images;
  for (Serial count = 1; count <= 100; ++count) {
    AppendDistinct(images, 1);
    for (Serial serial = 1; serial <= count; ++serial) ASSERT_EQ(SerialOf(images, 1000 + serial), serial);
    ASSERT_EQ(SerialOf(images, 1000), 0U);
  }
}

// A walk along the images would make each exec dearer than the one before.
TEST(LaterImages, AreIndexedByUniquePidOnceThereAreMoreThanAFew) {
  LaterImages images;
  AppendDistinct(images, kRecent);
  EXPECT_EQ(images.IndexedCount(), 0U);
  AppendDistinct(images, 1);
  EXPECT_EQ(images.IndexedCount(), kRecent + 1);
  AppendDistinct(images, 40'000);
  EXPECT_EQ(images.IndexedCount(), kRecent + 1 + 40'000);
  images.ShareTextsBefore(images.Newest());
  while (images.Dropped() < 30'000) images.DropOldest();
  EXPECT_EQ(images.IndexedCount(), kRecent + 1 + 10'000) << "a dropped image leaves the index";
}

TEST(LaterImages, OfEqualUniquePidsTheOldestIsFoundAndThenTheNextOne) {
  LaterImages images;
  for (Serial serial = 1; serial <= 60; ++serial) images.Append(ImageOf(serial, serial % 5));
  images.ShareTextsBefore(images.Newest());
  for (Serial dropped = 0; dropped < 40; ++dropped) {
    for (Serial next = 1; next <= 5; ++next)
      ASSERT_EQ(SerialOf(images, (dropped + next) % 5), dropped + next) << dropped;
    images.DropOldest();
  }
}

TEST(LaterImages, KeepTheirSerialsWhenOlderOnesAreDropped) {
  LaterImages images;
  for (int round = 0; round < 200; ++round) {
    AppendDistinct(images, 3);
    images.ShareTextsBefore(images.Newest());
    while (images.Newest() - images.Dropped() > 20) images.DropOldest();
    for (Serial serial = 1; serial <= images.Newest(); ++serial)
      ASSERT_EQ(SerialOf(images, 1000 + serial), serial > images.Dropped() ? serial : 0);
    for (Serial back = 0; back < 3; ++back)
      ASSERT_EQ(images.At(images.Newest() - back).startSequence, images.Newest() - back);
  }
  EXPECT_EQ(images.Newest(), 600U);
  EXPECT_EQ(images.Dropped(), 580U);
}

TEST(LaterImages, StayInTheirPlaceWhileOthersComeAndGo) {
  LaterImages images;
  AppendDistinct(images, 50);
  const Version* const version = &images.At(50);
  AppendDistinct(images, 500);
  images.ShareTextsBefore(50);
  for (int i = 0; i < 45; ++i) images.DropOldest();
  EXPECT_EQ(version, &images.At(50));
}

TEST(LaterImages, EqualTextsOfOlderOnesAreKeptOnce) {
  LaterImages images;
  for (Serial serial = 1; serial <= 1000; ++serial)
    images.Append(ImageOf(serial, serial, serial % 2 == 0 ? u"/bin/even" : u"/bin/odd"));
  images.ShareTextsBefore(images.Newest() + 1);
  EXPECT_EQ(images.SharedTextCount(), 5U) << "two paths, two command lines and a directory";
}

TEST(LaterImages, TextsGoWithTheLastImageThatHasThem) {
  LaterImages images;
  for (Serial serial = 1; serial <= 100; ++serial)
    images.Append(ImageOf(serial, serial, serial <= 10 ? u"/bin/old" : u"/bin/new"));
  images.ShareTextsBefore(images.Newest() + 1);
  EXPECT_EQ(images.SharedTextCount(), 5U);
  for (int i = 0; i < 10; ++i) images.DropOldest();
  EXPECT_EQ(images.SharedTextCount(), 3U);
}

TEST(LaterImages, TheRecentAndThoseThatAwaitAReportDoNotShareTexts) {
  LaterImages images;
  for (Serial serial = 1; serial <= 100; ++serial)
    images.Append(ImageOf(serial, serial, u"/bin/" + String(serial, u'x')));
  const auto textsOf = [](std::size_t count) { return 2 * count + 1; };  // and one directory
  images.ShareTextsBefore(20);
  EXPECT_EQ(images.SharedTextCount(), textsOf(19));
  images.ShareTextsBefore(images.Newest() + 1);
  EXPECT_EQ(images.SharedTextCount(), textsOf(100 - kRecent));
  for (Serial serial = 100 - kRecent + 1; serial <= 100; ++serial)
    ExpectWhole(&images.At(serial), u"/bin/" + String(serial, u'x'));
}

TEST(LaterImages, OneThatSharesItsTextsIsFoundWholeAndOnlyOneAtATime) {
  LaterImages images;
  for (Serial serial = 1; serial <= 100; ++serial)
    images.Append(ImageOf(serial, serial, u"/bin/" + String(serial, u'x')));
  images.ShareTextsBefore(images.Newest() + 1);
  const std::size_t texts = images.SharedTextCount();
  for (Serial serial = 1; serial <= 100; ++serial)
    ExpectWhole(images.FindByUniquePid(serial), u"/bin/" + String(serial, u'x'));
  EXPECT_EQ(images.SharedTextCount(), texts) << "the last one found is recent, and the others share again";
}

TEST(LaterImages, AChangeOfOneThatSharesItsTextsIsItsOwn) {
  LaterImages images;
  AppendDistinct(images, 100);
  images.ShareTextsBefore(images.Newest() + 1);
  ProcessInformation& info = images.FindByUniquePid(1005)->info;
  info.imagePath = u"/bin/other";
  info.commandLine = nullptr;
  info.environment = {"A=1"};
  ExpectWhole(images.FindByUniquePid(1004), u"/bin/program");
  ExpectWhole(images.FindByUniquePid(1006), u"/bin/program");
  const Version* const changed = images.FindByUniquePid(1005);
  EXPECT_EQ(changed->info.imagePath, u"/bin/other");
  EXPECT_EQ(changed->info.workingDirectory, u"/work");
  EXPECT_EQ(changed->info.commandLine, nullptr);
  EXPECT_EQ(changed->info.environment.size(), 1U);
}

TEST(LaterImages, OneThatWasFoundMayBeDropped) {
  LaterImages images;
  AppendDistinct(images, 100);
  images.ShareTextsBefore(images.Newest() + 1);
  ASSERT_EQ(SerialOf(images, 1001), 1U);
  images.DropOldest();
  EXPECT_EQ(SerialOf(images, 1001), 0U);
  ExpectWhole(images.FindByUniquePid(1002), u"/bin/program");
}

}  // namespace
}  // namespace qor::process_manager::process_cache
