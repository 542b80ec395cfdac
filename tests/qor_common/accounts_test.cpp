#include "qor_common/accounts.h"

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/temp_directory.h"

namespace qor::tools {
namespace {

using test_support::TempDirectory;
using test_support::WriteTextFile;

TEST(Accounts, AreThoseOfThePasswdFileInItsOrder) {
  const auto users = ParsePasswd(
      "root:x:0:0:root:/root:/bin/bash\n"
      "daemon:x:1:2::/usr/sbin:\n"
      "ann:*:4294967294:1000:Ann,,,:/home/ann:/bin/sh");
  ASSERT_EQ(users.size(), 3U);
  EXPECT_EQ(users[0].name, kSuperUserName);
  EXPECT_EQ(users[0].userId, 0U);
  EXPECT_EQ(users[1].groupId, 2U);
  EXPECT_EQ(users[1].home, "/usr/sbin");
  EXPECT_EQ(users[1].shell, "");
  EXPECT_EQ(users[2].userId, 4294967294U);
  EXPECT_EQ(users[2].home, "/home/ann");
  EXPECT_EQ(users[2].shell, "/bin/sh");
}

TEST(Accounts, ALineThatIsNoUserIsPassedOver) {
  for (const char* const line :
       {"", "\n\n", "# a comment", "+", "+::::::", "a:x:0:0:a:/a", "a:x:0:0:a:/a:/b:c", "a:x:-1:0:a:/a:/b",
        "a:x:0x1:0:a:/a:/b", "a:x:4294967296:0:a:/a:/b", "a:x::0:a:/a:/b", "a:x:0: 1:a:/a:/b",
        ":x:0:0:a:/a:/b"})
    EXPECT_TRUE(ParsePasswd(line).empty()) << line;
  EXPECT_EQ(ParsePasswd("nonsense\nann:x:1:1:::\nmore").size(), 1U);
}

TEST(Accounts, AreReadFromTheMachine) {
  const auto users = GetUsers();
  ASSERT_FALSE(users.empty());
  EXPECT_EQ(users.front().name, "root");
  EXPECT_EQ(users.front().userId, 0U);
}

TEST(Accounts, AFileThatCantBeReadHasNone) {
  EXPECT_TRUE(GetUsers("/none").empty());
  EXPECT_TRUE(GetUsers("/tmp").empty());
}

TEST(MinUid, IsTheNumberBehindTheWord) {
  EXPECT_EQ(ParseMinUid("UID_MIN 500\n"), 500U);
  EXPECT_EQ(ParseMinUid("# UID_MIN 1\n\n  UID_MIN\t\t 501 # comment\nUID_MAX 60000"), 501U);
  EXPECT_EQ(ParseMinUid("UID_MIN 501\r\nUID_MAX 2\r\n"), 501U);
  EXPECT_EQ(ParseMinUid("UID_MIN 0"), 0U);
  EXPECT_EQ(ParseMinUid("UID_MIN 500\nUID_MIN 600\n"), 600U);
}

TEST(MinUid, ALineWithNoNumberKeepsTheDefault) {
  for (const char* const text : {"UID_MIN", "UID_MIN\n500\n", "UID_MIN x", "UID_MIN 500x", "UID_MIN -5",
                                 "UID_MIN 99999999999", "UID_MIN=500", ""})
    EXPECT_EQ(ParseMinUid(text), 1000U) << text;
}

TEST(MinUid, OnlyTheFirstWordOfALineCounts) {
  for (const char* const text :
       {"#UID_MIN 500", "SYS_UID_MIN 100", "UID_MINIMUM 5", "uid_min 5", "X UID_MIN 5"})
    EXPECT_EQ(ParseMinUid(text), 1000U) << text;
}

TEST(MinUid, AMissingFileKeepsTheDefault) {
  EXPECT_EQ(GetMinUid("/none/login.defs"), 1000U);
}

TEST(MinUid, IsReadFromTheFile) {
  const TempDirectory directory;
  WriteTextFile(directory / "login.defs", "UID_MAX 9\nUID_MIN 321\n");
  EXPECT_EQ(GetMinUid((directory / "login.defs").c_str()), 321U);
}

TEST(Accounts, SessionsAreRecordedInUtmp) {
  EXPECT_STREQ(GetUtmpPath(), "/var/run/utmp");
  EXPECT_STREQ(kSuperUserName, "root");
}

}  // namespace
}  // namespace qor::tools
