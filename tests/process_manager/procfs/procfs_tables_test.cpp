// The tables of /proc as values: mappings, ranges of memory and modules.
#include "process_manager/procfs/procfs_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "procfs_patterns.h"
#include "support/files.h"
#include "tests/process_manager/procfs/text_mutator.h"

namespace qor::procfs {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;

// --- maps ---

Maps MapsOf(std::string_view text) {
  Maps maps;
  ParseMaps(text, maps);
  return maps;
}

constexpr const char* kMapping =
    "7f1234567000-7f1234569000 r-xp 0001f000 fe:0a 247498                     /usr/lib/libc.so.6";

TEST(ParseMaps, TakesEveryColumn) {
  const Maps maps = MapsOf(kMapping);
  ASSERT_EQ(maps.size(), 1U);
  const MapsEntry& entry = *maps.begin()->second;
  EXPECT_EQ(maps.begin()->first, 0x7f1234567000U);
  EXPECT_EQ(entry.begin, 0x7f1234567000U);
  EXPECT_EQ(entry.end, 0x7f1234569000U);
  EXPECT_EQ(entry.permissions, 5U);
  EXPECT_EQ(entry.protection, 0x20U);
  EXPECT_EQ(entry.offset, 0x1f000U);
  EXPECT_EQ(entry.deviceMajor, 0xfeU);
  EXPECT_EQ(entry.deviceMinor, 0xaU);
  EXPECT_EQ(entry.inode, 247498U);
  EXPECT_EQ(entry.path, "/usr/lib/libc.so.6");
}

TEST(ParseMaps, AnAnonymousMappingHasAnEmptyPath) {
  for (const char* line : {"1000-2000 rw-p 00000000 00:00 0", "1000-2000 rw-p 00000000 00:00 0 ",
                           "1000-2000 rw-p 00000000 00:00 0                    "}) {
    const Maps maps = MapsOf(line);
    ASSERT_EQ(maps.size(), 1U) << line;
    EXPECT_EQ(maps.begin()->second->path, "");
  }
}

TEST(ParseMaps, APathWithBlanksStaysWhole) {
  const Maps maps = MapsOf("1000-2000 rw-p 00000000 00:00 1   /a file  with\tblanks (deleted) \n");
  ASSERT_EQ(maps.size(), 1U);
  EXPECT_EQ(maps.begin()->second->path, "/a file  with\tblanks (deleted) ");
}

TEST(ParseMaps, ALineThatIsNoMappingIsSkipped) {
  const Maps maps = MapsOf(
      "\nwords\n1000-2000 rwzp 0 0:0 0\n1000 2000 rw-p 0 0:0 0\n1000-2000 rw-p 0 00 0\n 1-2 r 0 0:0 0\n" +
      std::string(kMapping));
  EXPECT_EQ(maps.size(), 1U);
}

TEST(ParseMaps, AnInodeBeyond32BitsIsNotTaken) {
  const Maps maps = MapsOf("1000-2000 rw-p 10 01:02 4294967296 /a\n2000-3000 rw-p 10 01:02 4294967295 /a\n");
  ASSERT_EQ(maps.size(), 2U);
  EXPECT_EQ(maps.begin()->second->inode, 0U);
  EXPECT_EQ(maps.begin()->second->deviceMinor, 2U) << "the other columns are";
  EXPECT_EQ(maps.rbegin()->second->inode, 4294967295U);
}

TEST(ParseMaps, IteratesByAscendingStartAndKeepsEqualOnes) {
  const Maps maps = MapsOf("3000-4000 r--p 0 0:0 0 a\n1000-2000 r--p 0 0:0 0 b\n3000-5000 r--p 0 0:0 0 c\n");
  std::vector<std::string> paths;
  for (const auto& [begin, entry] : maps) paths.push_back(entry->path);
  EXPECT_THAT(paths, ElementsAre("b", "a", "c"));
}

TEST(ParseMaps, AddsToWhatIsThere) {
  Maps maps = MapsOf(kMapping);
  ParseMaps(kMapping, maps);
  EXPECT_EQ(maps.size(), 2U);
}

// 6 and 14 are writable and executable and have the value of "no access"; 7 is a copy where 15 is not. That
// is meant.
TEST(ParseMaps, ProtectionFollowsTheTable) {
  const std::pair<const char*, std::uint32_t> table[] = {
      {"---p", 0x01}, {"r--p", 0x02}, {"-w-p", 0x08}, {"rw-p", 0x04}, {"--xp", 0x10}, {"r-xp", 0x20},
      {"-wxp", 0x01}, {"rwxp", 0x80}, {"---s", 0x01}, {"r--s", 0x02}, {"-w-s", 0x08}, {"rw-s", 0x04},
      {"--xs", 0x10}, {"r-xs", 0x20}, {"-wxs", 0x01}, {"rwxs", 0x40},
  };
  std::uint32_t permissions = 0;
  for (const auto& [text, protection] : table) {
    EXPECT_EQ(PermissionsOf(text), permissions++) << text;
    EXPECT_EQ(ProtectionOf(PermissionsOf(text)), protection) << text;
  }
  EXPECT_EQ(ProtectionOf(16), 0U);
  EXPECT_EQ(ProtectionOf(0xffffffff), 0U);
}

TEST(ParseMaps, PermissionsCountInTheirOwnColumnsOnly) {
  EXPECT_EQ(PermissionsOf("rwx"), 0U) << "shorter than four";
  EXPECT_EQ(PermissionsOf(""), 0U);
  EXPECT_EQ(PermissionsOf("xrws"), 8U);
  EXPECT_EQ(PermissionsOf("r--pwx"), 1U);
}

TEST(ParseMaps, ALineCutAnywhereIsTakenAsThePatternTakesIt) {
  const std::string line = kMapping;
  for (std::size_t length = 0; length <= line.size(); ++length)
    EXPECT_TRUE(procfs_patterns::Equal(MapsOf(line.substr(0, length)),
                                       procfs_patterns::ParseMaps(line.substr(0, length))))
        << length;
}

TEST(ParseMaps, AMutatedLineIsTakenAsThePatternTakesIt) {
  Mutator mutate("0123456789abcdefABCDEF-:rwxps \t\r\v\f\n/()x\x80g\0"s);
  for (int i = 0; i < kMutants; ++i) {
    const std::string line = mutate(kMapping);
    ASSERT_TRUE(procfs_patterns::Equal(MapsOf(line), procfs_patterns::ParseMaps(line))) << line;
  }
}

TEST(ParseMaps, TheMappingsOfThisProcessAreTakenAsThePatternTakesThem) {
  const std::string text = test_support::ReadTextFile("/proc/self/maps");
  const Maps maps = MapsOf(text);
  EXPECT_TRUE(procfs_patterns::Equal(maps, procfs_patterns::ParseMaps(text)));
  EXPECT_EQ(maps.size(), static_cast<std::size_t>(std::ranges::count(text, '\n')));
}

// --- iomem ---

IOMemMap IOMemMapOf(std::string_view text) {
  IOMemMap map;
  ParseIOMemMap(text, map);
  return map;
}

TEST(ParseIOMemMap, TakesRangesInOrderWithoutTheirNesting) {
  const IOMemMap map = IOMemMapOf(
      "00001000-0009fbff : System RAM\n  01000000-01e02396 : Kernel code\nwords\nfee00000-fee00fff : \n");
  ASSERT_EQ(map.size(), 3U);
  EXPECT_EQ(procfs_patterns::Fields(map[0]), std::make_tuple(0x1000U, 0x9fbffU, "System RAM"));
  EXPECT_EQ(procfs_patterns::Fields(map[1]), std::make_tuple(0x1000000U, 0x1e02396U, "Kernel code"));
  EXPECT_EQ(map[2].name, "");
}

TEST(ParseIOMemMap, ARangeIsFoundBehindOtherText) {
  const IOMemMap map = IOMemMapOf("x1-2-3 : a\n1-zz 10-20 : b : c\n");
  ASSERT_EQ(map.size(), 2U);
  EXPECT_EQ(procfs_patterns::Fields(map[0]), std::make_tuple(2U, 3U, "a"));
  EXPECT_EQ(procfs_patterns::Fields(map[1]), std::make_tuple(0x10U, 0x20U, "b : c"));
}

TEST(ParseIOMemMap, ALineCutAnywhereIsTakenAsThePatternTakesIt) {
  const std::string line = "  00100000-bffdffff : System RAM";
  for (std::size_t length = 0; length <= line.size(); ++length)
    EXPECT_TRUE(procfs_patterns::Equal(IOMemMapOf(line.substr(0, length)),
                                       procfs_patterns::ParseIOMemMap(line.substr(0, length))))
        << length;
}

TEST(ParseIOMemMap, AMutatedLineIsTakenAsThePatternTakesIt) {
  Mutator mutate("0123456789abcdef- :\t\r\n\fg-:");
  for (int i = 0; i < kMutants; ++i) {
    const std::string line = mutate("  001000-bffd1 : System-RAM 1-2 : 3");
    ASSERT_TRUE(procfs_patterns::Equal(IOMemMapOf(line), procfs_patterns::ParseIOMemMap(line))) << line;
  }
}

// --- modules ---

TEST(ParseModule, TakesTheColumnsAndIgnoresTheDependencies) {
  ModuleEntry entry;
  ASSERT_EQ(ParseModule("zram 40960 2 lzo,zstd, Live 0xffffffffc0a3b000 (OE)", false, entry),
            ModuleResult::kParsed);
  EXPECT_EQ(entry.name, "zram");
  EXPECT_EQ(entry.size, 40960U);
  EXPECT_EQ(entry.referenceCount, 2U);
  EXPECT_EQ(entry.state, 0U);
  EXPECT_EQ(entry.offset, 0xffffffffc0a3b000U);
}

TEST(ParseModule, FiveColumnsAreSkipped) {
  ModuleEntry entry{.name = "old"};
  EXPECT_EQ(ParseModule("zram 40960 0 - Live", true, entry), ModuleResult::kSkipped);
  EXPECT_EQ(ParseModule("", true, entry), ModuleResult::kSkipped);
  EXPECT_EQ(ParseModule(" \t ", true, entry), ModuleResult::kSkipped);
  EXPECT_EQ(entry.name, "old");
}

TEST(ParseModule, BlanksAndTabsDivideColumns) {
  ModuleEntry entry;
  EXPECT_EQ(ParseModule("\ta\t 1  2\t-\tLoading \t 10 ", false, entry), ModuleResult::kParsed);
  EXPECT_EQ(entry.state, 1U);
  EXPECT_EQ(entry.offset, 0x10U);
}

TEST(ParseModule, StatesAreNumbered) {
  ModuleEntry entry;
  for (const auto& [state, number] :
       {std::pair{"Live", 0U}, {"Loading", 1U}, {"Unloading", 2U}, {"Dead", 3U}, {"live", 3U}}) {
    ASSERT_EQ(ParseModule("a 1 2 - " + std::string(state) + " 0x10", false, entry), ModuleResult::kParsed);
    EXPECT_EQ(entry.state, number) << state;
  }
}

TEST(ParseModule, AnOffsetOf0IsHiddenUnlessItIsAllowed) {
  ModuleEntry entry;
  EXPECT_EQ(ParseModule("a 1 2 - Live 0x0000000000000000", false, entry), ModuleResult::kHidden);
  EXPECT_EQ(ParseModule("a 1 2 - Live 0x0000000000000000", true, entry), ModuleResult::kParsed);
  EXPECT_EQ(entry.offset, 0U);
}

TEST(ParseModule, AHiddenOffsetCountsBeforeTheOtherColumnsDo) {
  ModuleEntry entry;
  EXPECT_EQ(ParseModule("a x y - Live 0", false, entry), ModuleResult::kHidden);
  EXPECT_EQ(ParseModule("a x y - Live 0", true, entry), ModuleResult::kSkipped);
}

TEST(ParseModule, ANumberThatIsNoneIsSkipped) {
  ModuleEntry entry;
  for (const char* line : {"a x 2 - Live 0x10", "a 1 x - Live 0x10", "a 1 2 - Live x", "a 1 2 - Live 0x",
                           "a 1 4294967296 - Live 0x10", "a 18446744073709551616 2 - Live 0x10",
                           "a 1 2 - Live 0x10000000000000000", "a -1 2 - Live 0x10"})
    EXPECT_EQ(ParseModule(line, true, entry), ModuleResult::kSkipped) << line;
}

TEST(ParseModule, ALineCutAnywhereIsSkippedOrTaken) {
  const std::string line = "zram 40960 0 - Live 0xffffffffc0a3b000";
  const std::size_t enough = line.find("0xf") + 3;
  for (std::size_t length = 0; length <= line.size(); ++length) {
    ModuleEntry entry;
    const ModuleResult result = ParseModule(line.substr(0, length), true, entry);
    EXPECT_EQ(result == ModuleResult::kParsed, length >= enough || length == enough - 2) << length;
  }
}

TEST(ParseSectionAddress, TakesTheFirstHexadecimalValue) {
  EXPECT_EQ(ParseSectionAddress("0xffffffffc0000000\n"), 0xffffffffc0000000U);
  EXPECT_EQ(ParseSectionAddress(" ff more"), 0xffU);
  EXPECT_EQ(ParseSectionAddress("0x0000000000000000\n"), 0U);
  EXPECT_EQ(ParseSectionAddress(""), std::nullopt);
  EXPECT_EQ(ParseSectionAddress("\n"), std::nullopt);
  EXPECT_EQ(ParseSectionAddress("words"), std::nullopt);
  EXPECT_EQ(ParseSectionAddress("0x10000000000000000"), std::nullopt);
}

}  // namespace
}  // namespace qor::procfs
