#include "process_manager/process_records.h"

#include <gtest/gtest.h>

#include "tests/process_manager/process_cache_fixture.h"

namespace qor::process_manager {
namespace {

using system_interceptors::process_manager::ToPublicRecord;

TEST(ProcessRecord, ACopySharesTheCommandLineAndReplacingItInOneLeavesTheOther) {
  Info original = ReadOf(1, 2, u"/bin/x");
  const Info copy = original;
  EXPECT_EQ(original.commandLine.get(), copy.commandLine.get());
  original.commandLine = CommandLine(u"other");
  EXPECT_EQ(*copy.commandLine, u"/bin/x");
  EXPECT_EQ(*original.commandLine, u"other");
}

TEST(ProcessRecord, ThePublicRecordWithoutARealUserIdHasTheUserZero) {
  Info info = ReadOf(1, 2, u"/bin/x");
  EXPECT_EQ(ToPublicRecord(info).userId, 1000U);
  info.realUserId.reset();
  EXPECT_EQ(ToPublicRecord(info).userId, 0U);
}

TEST(ProcessRecord, ThePublicRecordWithoutACommandLineHasAnEmptyOne) {
  Info info = ReadOf(1, 2, u"/bin/x");
  info.commandLine.reset();
  EXPECT_TRUE(ToPublicRecord(info).commandLine.empty());
}

TEST(ProcessRecord, ThePublicRecordTellsEveryField) {
  Info info = ReadOf(1, 2, u"/bin/x");
  info.creatorPid = 3;
  info.uniquePid = 4;
  info.creatorUniquePid = 5;
  info.parentUniquePid = 6;
  info.exitTime = 8;
  info.flags = 17;
  info.state = kTerminated;
  info.commandLine = CommandLine(u"x -y");
  const system_interceptors::process_manager::ProcessInformation record = ToPublicRecord(info);
  EXPECT_EQ(record.pid, 1U);
  EXPECT_EQ(record.creatorPid, 3U);
  EXPECT_EQ(record.parentPid, 2U);
  EXPECT_EQ(record.uniquePid, 4U);
  EXPECT_EQ(record.creatorUniquePid, 5U);
  EXPECT_EQ(record.parentUniquePid, 6U);
  EXPECT_EQ(record.sessionId, 7U);
  EXPECT_EQ(record.startTime, 5000);
  EXPECT_EQ(record.exitTime, 8);
  EXPECT_EQ(record.imagePath, u"/bin/x");
  EXPECT_EQ(record.workingDirectory, u"/home");
  EXPECT_EQ(record.commandLine, u"x -y");
  EXPECT_EQ(record.userId, 1000U);
  EXPECT_EQ(record.flags, 17U);
  EXPECT_EQ(record.state, kTerminated);
}

TEST(ProcessRecord, BeginsWithNothingKnown) {
  const Info info;
  EXPECT_FALSE(info.commandLine);
  EXPECT_FALSE(info.realUserId || info.effectiveUserId || info.realGroupId || info.effectiveGroupId);
  EXPECT_EQ(info.mountNamespaceId, kNoMountNamespace);
  EXPECT_EQ(info.state, kStarting);
}

TEST(ProcessRecord, StatesAndFlagsHaveTheirNumbers) {
  EXPECT_EQ(kStarting, 0);
  EXPECT_EQ(kCreated, 1);
  EXPECT_EQ(kTerminated, 3) << "there is no 2";
  EXPECT_EQ(kSystemProcess, 1);
  EXPECT_EQ(kNoBackingImage, 16);
}

TEST(UniquePid, ThePidIsItsLow23Bits) {
  EXPECT_EQ(PidOf(0x12345678'ff800007), 7U);
  EXPECT_EQ(PidOf(0x007fffff), 0x7fffffU);
  EXPECT_EQ(PidOf(0x00800000), 0U);
  EXPECT_EQ(PidOf(kNoUniquePid), 0x7fffffU);
}

}  // namespace
}  // namespace qor::process_manager
