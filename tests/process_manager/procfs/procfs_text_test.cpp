// The texts of /proc as values: what is taken, what is skipped, and what a cut or a hostile text does.
#include "process_manager/procfs/procfs_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "process_manager/procfs/procfs_extractor.h"
#include "procfs_patterns.h"
#include "tests/process_manager/procfs/text_mutator.h"

namespace qor::procfs {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// --- extraction ---

template <class N>
class ExtractorTest : public ::testing::Test {};
using Integers = ::testing::Types<std::uint32_t, std::uint64_t, std::int64_t>;
TYPED_TEST_SUITE(ExtractorTest, Integers);

TYPED_TEST(ExtractorTest, TakesWhatAStreamTakes) {
  const std::string texts[] = {
      "",
      " ",
      "7",
      "  7 8",
      "\t\n\v\f\r9",
      "-1",
      "+1",
      "+-1",
      "-+1",
      "--1",
      "-",
      "+",
      "x",
      "0x10",
      "007",
      "1,000",
      "4294967295",
      "4294967296",
      "-4294967295",
      "-4294967296",
      "9223372036854775807",
      "9223372036854775808",
      "-9223372036854775808",
      "-9223372036854775809",
      "18446744073709551615",
      "18446744073709551616",
      "-18446744073709551615",
      "-18446744073709551616",
      "99999999999999999999999999",
      "-99999999999999999999999999",
      "1 2x",
      "1 x 2",
      std::string("1\0002", 3),
  };
  for (const std::string& text : texts) {
    TypeParam first = 77;
    TypeParam second = 77;
    TypeParam expectedFirst = 77;
    TypeParam expectedSecond = 77;
    std::istringstream stream(text);
    const bool expected = static_cast<bool>(stream >> expectedFirst >> expectedSecond);
    EXPECT_EQ(static_cast<bool>(Extractor(text) >> first >> second), expected) << '"' << text << '"';
    EXPECT_EQ(first, expectedFirst) << '"' << text << '"';
    EXPECT_EQ(second, expectedSecond) << '"' << text << '"';
  }
}

TEST(Extractor, TakesHexadecimalNumbersAsAStreamDoes) {
  for (const std::string text : {"ff", "0xff", "0XFF", "0x", "0xg", "g", "-1", "0x-1", "ffffffffffffffff",
                                 "10000000000000000", "0", " 0xffffffffc0000000\n"}) {
    std::uint64_t value = 77;
    std::uint64_t expectedValue = 77;
    std::istringstream stream(text);
    const bool expected = static_cast<bool>(stream >> std::hex >> expectedValue);
    EXPECT_EQ(static_cast<bool>(Extractor(text, 16) >> value), expected) << text;
    EXPECT_EQ(value, expectedValue) << text;
  }
}

TEST(TakeLong, TakesWhatStrtolTakes) {
  for (const std::string text :
       {"", " ", "1 2", "\t-5\t6", "+3x", "x", "- 1", "9223372036854775807", "9223372036854775808 1",
        "-9223372036854775809 1", "99999999999999999999999999 1"}) {
    std::string_view rest = text;
    char* end = nullptr;
    const long expected = std::strtol(text.c_str(), &end, 10);
    const std::optional<std::int64_t> value = TakeLong(rest);
    ASSERT_EQ(value.has_value(), end != text.c_str()) << text;
    if (!value) continue;
    EXPECT_EQ(*value, expected) << text;
    EXPECT_EQ(rest, end) << text;
  }
}

// --- stat ---

constexpr const char* kStatLine =
    "7474 (cat) R 7466 7467 23845 34816 -1 4194304 101 102 103 104 5 6 7 8 20 -19 1 0 724578 3133440 408 "
    "18446744073709551615 94025724014592 94025724034473 140731436950336 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0";

TEST(ParseStat, TakesEveryFieldInItsPlace) {
  Stat stat;
  ASSERT_EQ(ParseStat(kStatLine, stat), StatResult::kParsed);
  EXPECT_EQ(stat.pid, 7474U);
  EXPECT_EQ(stat.comm, "cat");
  EXPECT_EQ(stat.state, 'R');
  EXPECT_EQ(stat.ppid, 7466U);
  EXPECT_EQ(stat.pgrp, 7467U);
  EXPECT_EQ(stat.session, 23845U);
  EXPECT_EQ(stat.tty_nr, 34816U);
  EXPECT_EQ(stat.tpgid, 0xffffffffU) << "-1 wraps around in an unsigned field";
  EXPECT_EQ(stat.flags, 4194304U);
  EXPECT_EQ(stat.minflt, 101U);
  EXPECT_EQ(stat.cminflt, 102U);
  EXPECT_EQ(stat.majflt, 103U);
  EXPECT_EQ(stat.cmajflt, 104U);
  EXPECT_EQ(stat.utime, 5);
  EXPECT_EQ(stat.stime, 6);
  EXPECT_EQ(stat.cutime, 7);
  EXPECT_EQ(stat.cstime, 8);
  EXPECT_EQ(stat.priority, 20);
  EXPECT_EQ(stat.nice, -19);
  EXPECT_EQ(stat.num_threads, 1);
  EXPECT_EQ(stat.itrealvalue, 0);
  EXPECT_EQ(stat.starttime, 724578U);
  EXPECT_EQ(stat.vsize, 3133440U);
  EXPECT_EQ(stat.rss, 408);
  EXPECT_EQ(stat.rsslim, std::numeric_limits<std::uint64_t>::max());
}

TEST(ParseStat, ANameWithBlanksAndParenthesesIsWholeAndShiftsNothing) {
  for (const std::string name : {"a (b) c", ") (", "()()", ")R 1 2 3", "((", "))", " ", ""}) {
    Stat stat;
    std::string line = kStatLine;
    line.replace(line.find("cat"), 3, name);
    ASSERT_EQ(ParseStat(line, stat), StatResult::kParsed) << name;
    EXPECT_EQ(stat.comm, name);
    EXPECT_EQ(stat.state, 'R');
    EXPECT_EQ(stat.ppid, 7466U);
    EXPECT_EQ(stat.rss, 408);
  }
}

TEST(ParseStat, ParenthesesThatAreMissingOrOutOfOrderAreNoName) {
  for (const char* line : {"1 cat R 1", "1 (cat R 1", "1 cat) R 1", "1 )cat( R 1", "", "abc"}) {
    Stat stat;
    EXPECT_EQ(ParseStat(line, stat), StatResult::kNoComm) << line;
  }
}

TEST(ParseStat, AMissingPidFailsAfterTheNameIsFound) {
  Stat stat;
  EXPECT_EQ(ParseStat("x (cat) R 1 2 3", stat), StatResult::kBadField);
  EXPECT_EQ(stat.comm, "cat");
  EXPECT_EQ(stat.state, 0) << "nothing is taken behind a failure";
}

TEST(ParseStat, ANumberOutOfRangeFailsAndLeavesTheFieldsBeforeItSet) {
  std::string line = kStatLine;
  line.replace(line.find("7467"), 4, "4294967296");
  Stat stat;
  EXPECT_EQ(ParseStat(line, stat), StatResult::kBadField);
  EXPECT_EQ(stat.ppid, 7466U);
  EXPECT_EQ(stat.session, 0U);
}

TEST(ParseStat, WhatFollowsTheTwentyFifthFieldIsNotRead) {
  const std::string line = kStatLine;
  Stat stat;
  EXPECT_EQ(ParseStat(line.substr(0, line.find(" 94025724014592")) + " and then words", stat),
            StatResult::kParsed);
}

TEST(ParseStat, ALineCutAnywhereIsTakenAsAStreamTakesIt) {
  const std::string line = kStatLine;
  const std::size_t whole = line.find(" 94025724014592");
  for (std::size_t length = 0; length <= line.size(); ++length) {
    Stat stat;
    const StatResult result = ParseStat(line.substr(0, length), stat);
    const auto [expected, reference] = procfs_patterns::ParseStat(line.substr(0, length));
    EXPECT_EQ(result, expected) << length;
    EXPECT_EQ(procfs_patterns::Fields(stat), procfs_patterns::Fields(reference)) << length;
    if (length >= whole) {
      EXPECT_EQ(result, StatResult::kParsed) << length;
    }
  }
}

TEST(ParseStat, AMutatedLineIsTakenAsAStreamTakesIt) {
  Mutator mutate("0123456789 -+()x\t\r");
  for (int i = 0; i < kMutants; ++i) {
    const std::string line = mutate(kStatLine);
    Stat stat;
    const StatResult result = ParseStat(line, stat);
    const auto [expected, reference] = procfs_patterns::ParseStat(line);
    ASSERT_EQ(result, expected) << line;
    ASSERT_EQ(procfs_patterns::Fields(stat), procfs_patterns::Fields(reference)) << line;
  }
}

// --- io ---

constexpr const char* kIO =
    "rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 5\nwrite_bytes: 6\ncancelled_write_bytes: 7\n";

TEST(ParseIOCounters, TakesTheSevenCounters) {
  IOCounters counters;
  ASSERT_TRUE(ParseIOCounters(kIO, counters));
  EXPECT_EQ(procfs_patterns::Fields(counters), std::make_tuple(1U, 2U, 3U, 4U, 5U, 6U, 7U));
}

TEST(ParseIOCounters, SixOfTheSevenLinesAreAFailureThatLeavesTheRecordAlone) {
  const std::string text = kIO;
  for (std::size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1) {
    std::string six = text;
    six.erase(begin, text.find('\n', begin) + 1 - begin);
    IOCounters counters{.rchar = 77};
    EXPECT_FALSE(ParseIOCounters(six, counters)) << six;
    EXPECT_EQ(counters.rchar, 77U);
    EXPECT_EQ(counters.wchar, 0U);
  }
}

TEST(ParseIOCounters, ACounterThatIsThereTwiceIsAFailure) {
  IOCounters counters;
  EXPECT_FALSE(ParseIOCounters(std::string(kIO) + "rchar: 1\n", counters));
  std::string twice = kIO;
  twice.replace(0, 5, "wchar");
  EXPECT_FALSE(ParseIOCounters(twice, counters)) << "seven lines, but not the seven";
}

TEST(ParseIOCounters, OtherLinesAreSkippedAndTextBehindANumberIsNotRead) {
  IOCounters counters;
  EXPECT_TRUE(ParseIOCounters("other: 1\n" + std::string(kIO) + " rchar: 9\n", counters));
  std::string text = kIO;
  text.insert(text.find('\n'), "x");
  EXPECT_TRUE(ParseIOCounters(text, counters));
  EXPECT_EQ(counters.rchar, 1U);
}

TEST(ParseIOCounters, ANumberBeyond64BitsIsAFailure) {
  std::string text = kIO;
  text.replace(text.find('1'), 1, "18446744073709551616");
  IOCounters counters;
  EXPECT_FALSE(ParseIOCounters(text, counters));
}

TEST(ParseIOCounters, ATextCutAnywhereBeforeItsLastNumberIsAFailure) {
  const std::string text = kIO;
  for (std::size_t length = 0; length < text.size() - 2; ++length) {
    IOCounters counters{.rchar = 77};
    EXPECT_FALSE(ParseIOCounters(text.substr(0, length), counters)) << length;
    EXPECT_EQ(counters.rchar, 77U);
  }
}

TEST(ParseIOCounters, AMutatedTextIsTakenAsThePatternsTakeIt) {
  Mutator mutate("0123456789 :\n\t\r\frchasyw_");
  for (int i = 0; i < kMutants / 4; ++i) {
    const std::string text = mutate(kIO);
    IOCounters counters{.rchar = 77};
    const bool parsed = ParseIOCounters(text, counters);
    const std::optional<IOCounters> reference = procfs_patterns::ParseIOCounters(text);
    ASSERT_EQ(parsed, reference.has_value()) << text;
    ASSERT_EQ(procfs_patterns::Fields(counters),
              procfs_patterns::Fields(reference.value_or(IOCounters{.rchar = 77})))
        << text;
  }
}

// --- status ---

constexpr const char* kStatus =
    "Name:\tcat\nUid:\t1\t2\t3\t4\nGid:\t5\t6\t7\t8\nFDSize:\t64\nGroups:\t9 10 \nNStgid:\t1\n";

TEST(ParseCreds, TakesUsersGroupsAndSupplementaryGroups) {
  Creds creds;
  ASSERT_TRUE(ParseCreds(kStatus, creds));
  EXPECT_THAT(creds.uid, ElementsAre(1U, 2U, 3U, 4U));
  EXPECT_THAT(creds.gid, ElementsAre(5U, 6U, 7U, 8U));
  EXPECT_THAT(creds.groups, ElementsAre(9U, 10U));
}

TEST(ParseCreds, TheOrderOfTheLinesDoesNotMatter) {
  Creds creds;
  ASSERT_TRUE(ParseCreds("Groups:\t\nGid:\t5 6 7 8\nUid:\t1 2 3 4", creds));
  EXPECT_EQ(creds.uid[3], 4U);
  EXPECT_EQ(creds.gid[0], 5U);
  EXPECT_THAT(creds.groups, IsEmpty());
}

TEST(ParseCreds, AnOldListOfGroupsIsReplaced) {
  Creds creds{.groups = {77}};
  ASSERT_TRUE(ParseCreds(kStatus, creds));
  EXPECT_THAT(creds.groups, ElementsAre(9U, 10U));
}

TEST(ParseCreds, ThreeUsersAreAFailure) {
  Creds creds;
  EXPECT_FALSE(ParseCreds("Uid:\t1\t2\t3\nGid:\t5\t6\t7\t8\nGroups:\t\n", creds));
  EXPECT_FALSE(ParseCreds("Uid:\t1\t2\t3\t4\nGid:\t5\t6\t7\tx\nGroups:\t\n", creds));
}

TEST(ParseCreds, AFailedLineEndsTheParseEvenIfABetterOneFollows) {
  Creds creds;
  EXPECT_FALSE(ParseCreds("Uid:\tx\n" + std::string(kStatus), creds));
}

TEST(ParseCreds, NothingIsReadBehindTheLastOfTheThree) {
  Creds creds;
  ASSERT_TRUE(ParseCreds(std::string(kStatus) + "Uid:\tx\n", creds));
}

TEST(ParseCreds, OneOfTheThreeMissingIsAFailure) {
  Creds creds;
  EXPECT_FALSE(ParseCreds("Uid:\t1 2 3 4\nGid:\t5 6 7 8\n", creds));
  EXPECT_FALSE(ParseCreds("Uid:\t1 2 3 4\nGroups:\t\n", creds));
  EXPECT_FALSE(ParseCreds("Gid:\t1 2 3 4\nGroups:\t\n", creds));
  EXPECT_FALSE(ParseCreds("", creds));
}

// The kernel escapes line ends in the name of a status file; blanks and colons stay.
TEST(ParseCreds, ANameThatLooksLikeALineIsNone) {
  Creds creds;
  ASSERT_TRUE(ParseCreds("Name:\tUid:\t0\n" + std::string(kStatus), creds));
  EXPECT_EQ(creds.uid[0], 1U);
}

TEST(ParseCreds, ATextCutAnywhereBeforeTheLastLineIsAFailure) {
  const std::string text = kStatus;
  const std::size_t enough = text.find("Groups:") + 7;
  for (std::size_t length = 0; length < text.size(); ++length) {
    Creds creds;
    EXPECT_EQ(ParseCreds(text.substr(0, length), creds), length >= enough) << length;
  }
}

TEST(ParseCreds, ANumberOutOfRangeIsTheNearestOneAsStrtolHasIt) {
  Creds creds;
  ASSERT_TRUE(ParseCreds("Uid:\t99999999999999999999 4294967295 3 -1\nGid:\t0 0 0 0\nGroups:\t", creds));
  EXPECT_THAT(creds.uid, ElementsAre(0xffffffffU, 0xffffffffU, 3U, 0xffffffffU));
}

// --- cmdline, environ, names ---

TEST(ParseCmdline, JoinsArgumentsByBlanksAndCutsOneAtTheEnd) {
  EXPECT_EQ(ParseCmdline(std::string_view("a\0b\0", 4)), u"a b");
  EXPECT_EQ(ParseCmdline(std::string_view("a\0b", 3)), u"a b");
  EXPECT_EQ(ParseCmdline(std::string_view("a\0\0", 3)), u"a ") << "one only";
  EXPECT_EQ(ParseCmdline(std::string_view("\0", 1)), u"");
  EXPECT_EQ(ParseCmdline("root=/dev/vda quiet\n"), u"root=/dev/vda quiet\n") << "a line end stays";
  EXPECT_EQ(ParseCmdline("title "), u"title");
}

TEST(ParseCmdline, TakesUtf8AndNothingElse) {
  EXPECT_EQ(ParseCmdline("\u00e4\u20ac\U0001f600"), u"\u00e4\u20ac\U0001f600");
  for (const char* text : {"\xff", "a\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
    EXPECT_EQ(ParseCmdline(text), std::nullopt);
}

TEST(ParseCmdline, KeepsALongRunOfAsciiAroundOtherCharacters) {
  const std::string run(100'003, 'x');
  const std::u16string wide(100'003, u'x');
  const auto parsed = ParseCmdline(run + "\u20ac" + run);
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(std::u16string_view(*parsed) == wide + u"\u20ac" + wide);
}

std::vector<std::string> VariablesOf(std::string_view text) {
  std::vector<std::string> result;
  ForEachVariable(text, [&](std::string_view variable) {
    result.emplace_back(variable);
    return true;
  });
  return result;
}

TEST(ForEachVariable, SplitsAtEveryNul) {
  EXPECT_THAT(VariablesOf({}), IsEmpty());
  EXPECT_THAT(VariablesOf(std::string_view("A=1\0B=2\0", 8)), ElementsAre("A=1", "B=2"));
  EXPECT_THAT(VariablesOf(std::string_view("A=1\0B", 5)), ElementsAre("A=1", "B"));
  EXPECT_THAT(VariablesOf(std::string_view("\0\0A", 3)), ElementsAre("", "", "A"));
}

TEST(ForEachVariable, StopsWhenItIsTold) {
  int seen = 0;
  ForEachVariable(std::string_view("A\0B\0C", 5), [&](std::string_view variable) {
    ++seen;
    return variable != "B";
  });
  EXPECT_EQ(seen, 2);
}

TEST(ParseProcessName, TakesNumbersOnly) {
  EXPECT_EQ(ParseProcessName("1"), 1U);
  EXPECT_EQ(ParseProcessName("007"), 7U);
  EXPECT_EQ(ParseProcessName("4294967295"), 4294967295U);
  for (const char* name : {"", "self", "1a", "a1", "+1", "-1", " 1", "1 ", "4294967296", "."})
    EXPECT_EQ(ParseProcessName(name), std::nullopt) << name;
}

}  // namespace
}  // namespace qor::procfs
