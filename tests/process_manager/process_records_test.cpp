// The two records of a process, field by field. What copies share is tested with the cache, which makes them.
#include "process_manager/process_records.h"

#include <gtest/gtest.h>

namespace qor::process_manager::process_cache {
namespace {

TEST(ProcessRecords, ThePublicRecordHasEveryField) {
  ProcessInformation info;
  info.pid = 1;
  info.creatorPid = 2;
  info.parentPid = 3;
  info.uniquePid = 4;
  info.creatorUniquePid = 5;
  info.parentUniquePid = 6;
  info.sessionId = 7;
  info.startTime = 8;
  info.exitTime = 9;
  info.imagePath = u"/image";
  info.workingDirectory = u"/directory";
  info.flags = kSystemProcess | kNoBackingImage;
  info.state = kTerminated;
  const auto record = system_interceptors::process_manager::ToPublicRecord(info);
  EXPECT_EQ(record.pid, 1U);
  EXPECT_EQ(record.creatorPid, 2U);
  EXPECT_EQ(record.parentPid, 3U);
  EXPECT_EQ(record.uniquePid, 4U);
  EXPECT_EQ(record.creatorUniquePid, 5U);
  EXPECT_EQ(record.parentUniquePid, 6U);
  EXPECT_EQ(record.sessionId, 7U);
  EXPECT_EQ(record.startTime, 8);
  EXPECT_EQ(record.exitTime, 9);
  EXPECT_EQ(record.imagePath, u"/image");
  EXPECT_EQ(record.workingDirectory, u"/directory");
  EXPECT_EQ(record.commandLine, u"") << "none was read";
  EXPECT_EQ(record.flags, 17U);
  EXPECT_EQ(record.state, 3U);
}

TEST(ProcessRecords, WhatWasNotReadIsAbsent) {
  const ProcessInformation info;
  EXPECT_FALSE(info.realUserId || info.effectiveUserId || info.realGroupId || info.effectiveGroupId);
  EXPECT_EQ(info.mountNamespaceId, 0xffffffffffffffffU);
  EXPECT_EQ(info.state, 0U);
  EXPECT_EQ(info.commandLine, nullptr);
}

TEST(ProcessRecords, StatesAndFlagsHaveTheirNumbers) {
  EXPECT_EQ(kStarting, 0);
  EXPECT_EQ(kCreated, 1);
  EXPECT_EQ(kTerminated, 3) << "there is no 2";
  EXPECT_EQ(kSystemProcess, 1);
  EXPECT_EQ(kNoBackingImage, 16);
}

}  // namespace
}  // namespace qor::process_manager::process_cache
