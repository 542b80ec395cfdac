#include "process_manager/process_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>

#include "process_manager/interception/filter.h"
#include "process_manager/proc_parser.h"
#include "support/process_records.h"
#include "tests/process_manager/process_cache/process_cache_fixture.h"

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
  system_interceptors::process_manager::ProcessInformation expected;
  expected.pid = 1;
  expected.creatorPid = 3;
  expected.parentPid = 2;
  expected.uniquePid = 4;
  expected.creatorUniquePid = 5;
  expected.parentUniquePid = 6;
  expected.sessionId = 7;
  expected.startTime = 5000;
  expected.exitTime = 8;
  expected.imagePath = u"/bin/x";
  expected.workingDirectory = u"/home";
  expected.commandLine = u"x -y";
  expected.userId = 1000;
  expected.flags = 17;
  expected.state = kTerminated;
  EXPECT_THAT(ToPublicRecord(info), test_support::IsRecord(expected));
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

// Host and module each have their own compiler's view of a record: its fields stand as they are declared.
template <class... Fields>
bool StandInThisOrder(const Fields&... fields) {
  const std::array<const void*, sizeof...(fields)> addresses = {&fields...};
  return std::ranges::is_sorted(addresses, std::less<>()) &&
         std::ranges::adjacent_find(addresses) == addresses.end();
}

TEST(ProcessRecord, TheFieldsOfBothRecordsStandInTheirOrder) {
  const Info i;
  EXPECT_TRUE(StandInThisOrder(
      i.pid, i.creatorPid, i.parentPid, i.uniquePid, i.creatorUniquePid, i.parentUniquePid, i.sessionId,
      i.startTime, i.exitTime, i.imagePath, i.workingDirectory, i.commandLine, i.flags, i.state, i.realUserId,
      i.effectiveUserId, i.realGroupId, i.effectiveGroupId, i.environment, i.mountNamespaceId));
  const system_interceptors::process_manager::ProcessInformation p;
  EXPECT_TRUE(StandInThisOrder(p.pid, p.creatorPid, p.parentPid, p.uniquePid, p.creatorUniquePid,
                               p.parentUniquePid, p.sessionId, p.startTime, p.exitTime, p.imagePath,
                               p.workingDirectory, p.commandLine, p.userId, p.flags, p.state));
}

// The groups are bases; a field lies where it would without them.
TEST(ProcessRecord, TheGroupsLieOneBehindTheOther) {
  const auto offset = [](const auto& record, const auto& field) {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&field) -
                                    reinterpret_cast<const char*>(&record));
  };
  const Info i;
  EXPECT_EQ(offset(i, i.pid), 0U);
  EXPECT_EQ(offset(i, i.sessionId), 40U);
  EXPECT_EQ(offset(i, i.imagePath), 64U);
  EXPECT_EQ(offset(i, i.flags), 64 + 2 * sizeof(i.imagePath) + sizeof(i.commandLine));
  EXPECT_EQ(offset(i, i.realUserId), offset(i, i.state) + 4);
  EXPECT_EQ(offset(i, i.environment), offset(i, i.realUserId) + 32);
  EXPECT_EQ(sizeof(i), offset(i, i.mountNamespaceId) + 8);
  const system_interceptors::process_manager::ProcessInformation p;
  EXPECT_EQ(offset(p, p.pid), 0U);
  EXPECT_EQ(offset(p, p.sessionId), 40U);
  EXPECT_EQ(offset(p, p.imagePath), 64U);
  EXPECT_EQ(offset(p, p.userId), 64 + 3 * sizeof(p.imagePath));
}

TEST(ProcessRecord, TheFieldsOfWhatIsReadFromProcStandInTheirOrder) {
  const procfs::Stat s;
  EXPECT_TRUE(StandInThisOrder(s.pid, s.comm, s.state, s.ppid, s.pgrp, s.session, s.tty_nr, s.tpgid, s.flags,
                               s.minflt, s.cminflt, s.majflt, s.cmajflt, s.utime, s.stime, s.cutime, s.cstime,
                               s.priority, s.nice, s.num_threads, s.itrealvalue, s.starttime, s.vsize, s.rss,
                               s.rsslim, s.directoryChangeTime, s.uid));
  const procfs::IOCounters c;
  EXPECT_TRUE(StandInThisOrder(c.rchar, c.wchar, c.syscr, c.syscw, c.read_bytes, c.write_bytes,
                               c.cancelled_write_bytes));
  const procfs::Creds r;
  EXPECT_TRUE(StandInThisOrder(r.uid, r.gid, r.groups));
  const procfs::MapsEntry m;
  EXPECT_TRUE(StandInThisOrder(m.begin, m.end, m.permissions, m.protection, m.offset, m.deviceMajor,
                               m.deviceMinor, m.inode, m.path));
  const procfs::IOMemRange g;
  EXPECT_TRUE(StandInThisOrder(g.first, g.last, g.name));
  const procfs::ModuleEntry e;
  EXPECT_TRUE(StandInThisOrder(e.name, e.size, e.referenceCount, e.state, e.offset));
  const procfs::ModuleSection t;
  EXPECT_TRUE(StandInThisOrder(t.size, t.address, t.name, t.module));
  const procfs::DescriptorInfo d;
  EXPECT_TRUE(StandInThisOrder(d.inode, d.fileType));
}

TEST(ProcessRecord, TheFieldsOfAFilterStandInTheirOrder) {
  const non_blocking::Filter n;
  EXPECT_TRUE(StandInThisOrder(n.enabled, n.handler, n.descriptor, n.id, n.flags, n.inUse));
  const blocking::Filter b;
  EXPECT_TRUE(StandInThisOrder(b.enabled, b.handler, b.descriptor, b.id, b.flags, b.timeout, b.inUse));
  EXPECT_EQ(sizeof(n.descriptor), 96U);
  EXPECT_EQ(static_cast<const void*>(&n.descriptor.type), &n.descriptor) << "the type stands first";
}

TEST(UniquePid, ThePidIsItsLow23Bits) {
  EXPECT_EQ(PidOf(0x12345678'ff800007), 7U);
  EXPECT_EQ(PidOf(0x007fffff), 0x7fffffU);
  EXPECT_EQ(PidOf(0x00800000), 0U);
  EXPECT_EQ(PidOf(kNoUniquePid), 0x7fffffU);
}

}  // namespace
}  // namespace qor::process_manager
