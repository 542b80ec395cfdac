// The reader of /proc: command lines, environments and names.
#include "process_manager/procfs/proc_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <string>

#include "support/child.h"
#include "support/fresh_process.h"
#include "support/temp_directory.h"
#include "tests/process_manager/procfs/proc_parser_fixture.h"

namespace qor::procfs {
namespace {

using test_support::Child;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// --- cmdline ---

TEST_F(ProcParserTest, JoinsArgumentsByOneBlankWithNoneBehind) {
  const Child child = Child::Shell("/bin/sh", {"two words", "last"});
  zym::types::string16_t cmdline;
  ASSERT_EQ(parser->GetCmdline(child.Pid(), cmdline), zym::ZYM_OK);
  EXPECT_EQ(cmdline, u"/bin/sh -c echo; read line shell two words last");
}

TEST_F(ProcParserTest, AKernelThreadHasNoCommandLine) {
  std::string comm;
  if (!ZYM_SUCCEEDED(parser->GetComm(2, comm)) || comm != "kthreadd")
    GTEST_SKIP() << "no kernel thread is to be seen: run in the machine's first pid namespace";
  zym::types::string16_t cmdline = u"old";
  EXPECT_EQ(parser->GetCmdline(2, cmdline), zym::ZYM_FALSE);
  EXPECT_EQ(cmdline, u"");
}

TEST_F(ProcParserTest, AZombieHasNoCommandLine) {
  const Child child = Child::Forked();
  child.Kill();
  zym::types::string16_t cmdline;
  EXPECT_EQ(parser->GetCmdline(child.Pid(), cmdline), zym::ZYM_FALSE);
}

TEST_F(ProcParserTest, TheCommandLineOfAProcessThatIsGoneIsNotFound) {
  zym::types::string16_t cmdline = u"old";
  EXPECT_EQ(parser->GetCmdline(kNobody, cmdline), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(cmdline, u"old");
}

TEST_F(ProcParserTest, ReadsACommandLineBeyond128KiBWhole) {
  const std::string argument(60'000, 'x');
  const Child child = Child::Shell("/bin/sh", {argument, argument, argument});
  zym::types::string16_t cmdline;
  ASSERT_EQ(parser->GetCmdline(child.Pid(), cmdline), zym::ZYM_OK);
  zym::types::string16_t expected = u"/bin/sh -c echo; read line shell";
  for (int i = 0; i < 3; ++i) expected.append(u" ").append(argument.size(), u'x');
  EXPECT_TRUE(cmdline == expected) << cmdline.size();
}

// Lengths around the sizes of pages and buffers, where a short read may be taken for the end.
TEST_F(ProcParserTest, ReadsACommandLineOfEveryLengthAroundAPageWhole) {
  const std::size_t own = std::string("/bin/sh -c echo; read line shell ").size();
  for (const std::size_t length :
       {4094UL, 4095UL, 4096UL, 4097UL, 8191UL, 8192UL, 65535UL, 65536UL, 65537UL}) {
    const Child child = Child::Shell("/bin/sh", {std::string(length - own, 'x')});
    zym::types::string16_t cmdline;
    ASSERT_EQ(parser->GetCmdline(child.Pid(), cmdline), zym::ZYM_OK);
    EXPECT_EQ(cmdline.size(), length);
  }
}

TEST_F(ProcParserTest, ACommandLineThatIsNotUtf8IsAFailedRead) {
  const Child child = Child::Shell("/bin/sh", {"\xff"});
  zym::types::string16_t cmdline = u"old";
  EXPECT_EQ(parser->GetCmdline(child.Pid(), cmdline), zym::ZYM_E_EXCEPTION_WITHOUT_RESULT);
  EXPECT_EQ(cmdline, u"old");
  EXPECT_TRUE(Trace().Has(300, "GetCmdline: "));
  EXPECT_FALSE(Trace().Has("read line")) << "the text itself is not for the trace";
}

TEST(ProcParser, ACommandLineThatIsThereAndCannotBeReadIsAnError) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Place("77/cmdline/directory");
    zym::types::string16_t cmdline;
    EXPECT_EQ(root.parser->GetCmdline(77, cmdline), zym::ZYM_E_UNSPECIFIED);
  });
}

// --- environ ---

using Environment = zym::types::vector_t<zym::types::string_t>;

TEST(ProcParser, GivesOneVariableByItsExactName) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/environ", std::string("LANGUAGE=x\0novalue\0LANG=a=b\0LANG=second\0LAST=", 46));
    std::string value = "old";
    EXPECT_EQ(root.parser->GetEnvironmentVariable(77, "LANG", value), zym::ZYM_OK);
    EXPECT_EQ(value, "a=b") << "the first one, from the first equals sign on";
    EXPECT_EQ(root.parser->GetEnvironmentVariable(77, "LAST", value), zym::ZYM_OK);
    EXPECT_EQ(value, "");
    value = "old";
    for (const char* name : {"novalue", "LAN", "lang", "", "second"}) {
      EXPECT_EQ(root.parser->GetEnvironmentVariable(77, name, value), zym::ZYM_OK) << name;
      EXPECT_EQ(value, "old") << "a missing one leaves the value alone: " << name;
    }
  });
}

TEST_F(ProcParserTest, AnEnvironmentThatCannotBeReadIsANotice) {
  std::string value = "old";
  EXPECT_EQ(parser->GetEnvironmentVariable(kNobody, "LANG", value), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(value, "old");
  EXPECT_TRUE(Trace().Has(700, "/proc/4194305/environ: No such file or directory"));
}

TEST(ProcParser, ReplacesTheListByEveryPieceThatIsNotEmpty) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/environ", std::string("A=1\0\0B\0C=no NUL", 15));
    root.tree.Write("78/environ", "");
    Environment variables = {zym::types::string_t("OLD=1")};
    ASSERT_EQ(root.parser->GetEnvironmentVariables(77, variables), zym::ZYM_OK);
    EXPECT_THAT(variables, ElementsAre("A=1", "B", "C=no NUL"));
    ASSERT_EQ(root.parser->GetEnvironmentVariables(78, variables), zym::ZYM_OK);
    EXPECT_THAT(variables, IsEmpty());
  });
}

TEST(ProcParser, AnEnvironmentWhoseReadFailsLeavesTheListAlone) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Place("77/environ/directory");
    Environment variables = {zym::types::string_t("OLD=1")};
    EXPECT_EQ(root.parser->GetEnvironmentVariables(77, variables), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(root.parser->GetEnvironmentVariables(78, variables), zym::ZYM_E_UNSPECIFIED);
    EXPECT_THAT(variables, ElementsAre("OLD=1"));
  });
}

TEST_F(ProcParserTest, ReadsALargeEnvironmentOfARealProcess) {
  const std::string large = "PM_TEST=" + std::string(100'000, 'x');
  const Child child = [&] {
    ::putenv(const_cast<char*>(large.c_str()));
    Child shell = Child::Shell("/bin/sh");
    ::unsetenv("PM_TEST");
    return shell;
  }();
  Environment variables;
  ASSERT_EQ(parser->GetEnvironmentVariables(child.Pid(), variables), zym::ZYM_OK);
  EXPECT_TRUE(std::ranges::find(variables, zym::types::string_t(large)) != variables.end());
  std::string value;
  EXPECT_EQ(parser->GetEnvironmentVariable(child.Pid(), "PM_TEST", value), zym::ZYM_OK);
  EXPECT_EQ(value.size(), 100'000U);
}

TEST_F(ProcParserTest, AKernelThreadHasNoEnvironment) {
  std::string comm;
  if (!ZYM_SUCCEEDED(parser->GetComm(2, comm)) || comm != "kthreadd")
    GTEST_SKIP() << "no kernel thread is to be seen: run in the machine's first pid namespace";
  Environment variables = {zym::types::string_t("OLD=1")};
  EXPECT_EQ(parser->GetEnvironmentVariables(2, variables), zym::ZYM_OK);
  EXPECT_TRUE(variables.empty());
  std::string value = "old";
  EXPECT_EQ(parser->GetEnvironmentVariable(2, "LANG", value), zym::ZYM_OK);
  EXPECT_EQ(value, "old");
}

TEST_F(ProcParserTest, AZombieHasNoEnvironment) {
  const Child child = Child::Forked();
  child.Kill();
  Environment variables = {zym::types::string_t("OLD=1")};
  EXPECT_EQ(parser->GetEnvironmentVariables(child.Pid(), variables), zym::ZYM_OK);
  EXPECT_TRUE(variables.empty());
}

// --- comm ---

TEST_F(ProcParserTest, ReadsTheNameOfAProcess) {
  const Child child = Child::Forked([] { return ::prctl(PR_SET_NAME, "a (b) c") == 0; });
  std::string comm;
  EXPECT_EQ(parser->GetComm(child.Pid(), comm), zym::ZYM_OK);
  EXPECT_EQ(comm, "a (b) c");
  EXPECT_EQ(parser->GetComm(kNobody, comm), zym::ZYM_E_UNSPECIFIED);
}

TEST(ProcParser, AnEmptyCommFileIsAFailedReadAndAnEmptyLineIsNot) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/comm", "");
    root.tree.Write("78/comm", "\n");
    root.tree.Write("79/comm", "no end");
    std::string comm = "old";
    EXPECT_EQ(root.parser->GetComm(77, comm), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(comm, "old");
    EXPECT_EQ(root.parser->GetComm(78, comm), zym::ZYM_OK);
    EXPECT_EQ(comm, "");
    EXPECT_EQ(root.parser->GetComm(79, comm), zym::ZYM_OK);
    EXPECT_EQ(comm, "no end");
  });
}

}  // namespace
}  // namespace qor::procfs
