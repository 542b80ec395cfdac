#include "host_kit/stat_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using host_kit::ParseStatText;
using qor::procfs::Stat;

constexpr const char* kFields =
    " S 7 8 9 34816 -1 4194304 1 2 3 4 5 6 7 8 20 -5 2 0 12345 4096 10 18446744073709551615 1 2 3\n";

TEST(StatText, AnyNameIsBetweenTheFirstAndTheLastParenthesis) {
  for (const std::string name : {"sleep", "", "a b", "a) R 1 2 3 4 5\n", "\n", ")", "(", ") (", "\xff"}) {
    Stat stat;
    ASSERT_TRUE(ParseStatText("42 (" + name + ")" + kFields, stat)) << name;
    EXPECT_EQ(stat.comm, name);
    EXPECT_EQ(stat.pid, 42U);
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 7U);
    EXPECT_EQ(stat.session, 9U);
    EXPECT_EQ(stat.tpgid, 0xffffffffU);
    EXPECT_EQ(stat.nice, -5);
    EXPECT_EQ(stat.starttime, 12345U);
    EXPECT_EQ(stat.rsslim, 18446744073709551615U);
  }
}

TEST(StatText, WhatIsNoStatLeavesTheRecordAlone) {
  const std::string good = std::string("42 (x)") + kFields;
  const std::string cases[] = {
      "",
      "42",
      "42 (x",
      "42 x)" + std::string(kFields),
      " (x)" + std::string(kFields),
      "-1 (x)" + std::string(kFields),
      "4294967296 (x)" + std::string(kFields),
      "42 (x) S 7 8 9\n",
      "42 (x) SS" + std::string(kFields).substr(2),
      "42 (x)  S" + std::string(kFields).substr(2),
      good.substr(0, good.find(" 34816")) + " 4294967296" + good.substr(good.find(" -1")),
      good.substr(0, good.find(" 34816")) + " 3x" + good.substr(good.find(" -1")),
  };
  for (const std::string& text : cases) {
    Stat stat;
    stat.pid = 7;
    stat.comm = "before";
    EXPECT_FALSE(ParseStatText(text, stat)) << text;
    EXPECT_EQ(stat.pid, 7U);
    EXPECT_EQ(stat.comm, "before");
  }
}

}  // namespace
