// The reader of /proc, on real processes and on trees that a test makes.
#include "process_manager/procfs/proc_parser.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qor_common/procfs_root.h"
#include "support/child.h"
#include "support/fresh_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "tests/process_manager/procfs/proc_parser_fixture.h"
#include "zym/exception.h"

namespace qor::procfs {
namespace {

using test_support::Child;
using test_support::InFreshProcess;
using test_support::TempDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// What doesn't belong to one process lies where the test says.
class RootedParser : public ProcParser {
 public:
  RootedParser(zym::IServiceLocator* locator, NativePath root)
      : ProcParser(locator), m_root(std::move(root)) {}

  const NativePath& GetProcRoot() const override { return m_root; }

 private:
  NativePath m_root;
};

// --- construction and the root ---

TEST_F(ProcParserTest, NeedsAnAllocatorAndATracer) {
  host.locator->Remove(zym::IAllocator::kIid);
  EXPECT_THROW(Make<ProcParser>(), zym::GetInterfaceException);
  host.locator->Add(host.allocator, zym::IAllocator::kIid);
  host.locator->Remove(zym::ITracer::kIid);
  EXPECT_THROW(Make<ProcParser>(), zym::GetInterfaceException);
}

TEST_F(ProcParserTest, IsAnIParser) {
  void* found = nullptr;
  ASSERT_EQ(parser->QueryInterface(IParser::kIid, &found), zym::ZYM_OK);
  EXPECT_EQ(found, static_cast<IParser*>(parser.get()));
  static_cast<IParser*>(found)->Release();
}

TEST(ProcParser, TheRootIsProcByDefault) {
  InFreshProcess([] {
    ::unsetenv("VORN_HOST_PROCFS");
    EXPECT_EQ(GetProcfsRoot(), "/proc/");
    Setting setting;
    EXPECT_EQ(setting.parser->GetProcRoot(), "/proc/");
    EXPECT_EQ(setting.Make<LocalProcParser>()->GetProcRoot(), "/proc");
  });
}

TEST(ProcParser, TheRootIsReadOnce) {
  WithFakeRoot([](FakeRoot& root) {
    EXPECT_EQ(GetProcfsRoot(), root.tree.Path() + "/");
    ::unsetenv("VORN_HOST_PROCFS");
    EXPECT_EQ(GetProcfsRoot(), root.tree.Path() + "/");
    EXPECT_EQ(root.parser->GetProcRoot(), root.tree.Path() + "/");
  });
}

TEST(LocalProcParser, ReadsProcessesBelowTheProcfsRootAndTheRestBelowProc) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/comm", "seven\n");
    root.tree.Write("cmdline", "fake kernel");
    const auto local = root.Make<LocalProcParser>();
    std::string comm;
    EXPECT_EQ(local->GetComm(77, comm), zym::ZYM_OK);
    EXPECT_EQ(comm, "seven");

    std::vector<unsigned int> pids;
    EXPECT_EQ(root.parser->GetProcessList(pids), zym::ZYM_OK);
    EXPECT_THAT(pids, ElementsAre(77U));
    pids.clear();
    EXPECT_EQ(local->GetProcessList(pids), zym::ZYM_OK);
    EXPECT_THAT(pids, ::testing::Contains(static_cast<unsigned int>(::getpid())));

    zym::types::string16_t cmdline;
    EXPECT_EQ(root.parser->GetCmdline(0, cmdline), zym::ZYM_OK);
    EXPECT_EQ(cmdline, u"fake kernel");
    EXPECT_EQ(local->GetCmdline(0, cmdline), zym::ZYM_OK);
    EXPECT_NE(cmdline, u"fake kernel");
  });
}

// --- pid 0 ---

TEST_F(ProcParserTest, HasNothingToSayOfTheKernelAndSucceeds) {
  Stat stat{.pid = 77, .comm = "old"};
  EXPECT_EQ(parser->GetStat(0, stat), zym::ZYM_OK);
  EXPECT_EQ(stat.pid, 77U);
  EXPECT_EQ(stat.comm, "old");
  EXPECT_EQ(Trace().Find("Kernel statistic"), "Warning: Kernel statistic is not implemented");
  Trace().Clear();
  Maps maps;
  EXPECT_EQ(parser->GetMaps(0, maps), zym::ZYM_OK);
  EXPECT_TRUE(maps.empty());
  EXPECT_EQ(Trace().Find("Kernel"), "Warning: Kernel statistic is not implemented");
  IOCounters counters{.rchar = 77};
  EXPECT_EQ(parser->GetIOCounters(0, counters), zym::ZYM_OK);
  EXPECT_EQ(counters.rchar, 77U);
  EXPECT_EQ(Trace().Find("Kernel IO"), "Warning: Kernel IO statistic is not implemented");
  Creds creds{.uid = {77}};
  EXPECT_EQ(parser->GetCreds(0, creds), zym::ZYM_OK);
  EXPECT_EQ(creds.uid[0], 77U);
  EXPECT_EQ(Trace().Find("Kernel creds"), "Warning: Kernel creds is not implemented");
}

TEST_F(ProcParserTest, GivesTheKernelsOwnCommandLineForPid0) {
  const auto rooted = Make<RootedParser>("/proc");
  zym::types::string16_t cmdline;
  ASSERT_EQ(rooted->GetCmdline(0, cmdline), zym::ZYM_OK);
  const std::string expected = test_support::ReadTextFile("/proc/cmdline");
  EXPECT_EQ(cmdline, zym::types::string16_t(expected.begin(), expected.end())) << "its line end stays";
}

// --- stat ---

TEST_F(ProcParserTest, ReadsTheStatOfARealProcess) {
  const Child child = Child::Forked([] { return ::prctl(PR_SET_NAME, "short name") == 0; });
  Stat stat;
  ASSERT_EQ(parser->GetStat(child.Pid(), stat), zym::ZYM_OK);
  EXPECT_EQ(stat.pid, child.Pid());
  EXPECT_EQ(stat.ppid, static_cast<PidType>(::getpid()));
  EXPECT_EQ(stat.pgrp, static_cast<PidType>(::getpgrp()));
  EXPECT_EQ(stat.session, static_cast<PidType>(::getsid(0)));
  EXPECT_EQ(stat.comm, "short name");
  EXPECT_EQ(stat.uid, ::getuid());
  struct stat directory {};
  ASSERT_EQ(::stat(("/proc/" + std::to_string(child.Pid())).c_str(), &directory), 0);
  EXPECT_EQ(stat.directoryChangeTime, directory.st_ctim.tv_sec);

  const Child shell = Child::Shell("/bin/sh");  // a program into which no sanitizer has put a thread
  ASSERT_EQ(parser->GetStat(shell.Pid(), stat), zym::ZYM_OK);
  EXPECT_EQ(stat.num_threads, 1);
}

TEST_F(ProcParserTest, ANameWithBlanksAndParenthesesIsWholeAndShiftsNothing) {
  for (const char* name : {"a (b) c", ")(", "()()", ") R 1 2 3 4", " "}) {
    const Child child = Child::Forked([&] { return ::prctl(PR_SET_NAME, name) == 0; });
    Stat stat;
    ASSERT_EQ(parser->GetStat(child.Pid(), stat), zym::ZYM_OK) << name;
    EXPECT_EQ(stat.comm, name);
    EXPECT_EQ(stat.ppid, static_cast<PidType>(::getpid())) << name;
  }
}

// One line is read, and the kernel doesn't escape a line end in this file.
TEST_F(ProcParserTest, ANameWithALineEndCannotBeParsed) {
  const Child child = Child::Forked([] { return ::prctl(PR_SET_NAME, "two\nlines") == 0; });
  Stat stat;
  EXPECT_EQ(parser->GetStat(child.Pid(), stat), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Trace().Has(
      500, "procfs::GetStat(): failed to parse from /proc/" + std::to_string(child.Pid()) + "/stat"));
  Creds creds;
  EXPECT_EQ(parser->GetCreds(child.Pid(), creds), zym::ZYM_OK) << "in status it is escaped";
}

TEST_F(ProcParserTest, StatOfAProcessThatIsGoneIsNotFound) {
  Stat stat;
  EXPECT_EQ(parser->GetStat(kNobody, stat), zym::ZYM_E_NOT_FOUND);
  EXPECT_THAT(Trace().Records(), IsEmpty());
  Child child = Child::Forked();
  const PidType pid = child.Pid();
  child.End();
  EXPECT_EQ(parser->GetStat(pid, stat), zym::ZYM_E_NOT_FOUND);
}

TEST(ProcParser, AStatFileThatCannotBeOpenedAfterItsDirectoryWasSeenIsAnError) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Place("77/other");
    Stat stat;
    EXPECT_EQ(root.parser->GetStat(77, stat), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(stat.uid, ::getuid());
    EXPECT_GT(stat.directoryChangeTime, 0);
    EXPECT_TRUE(root.Trace().Has(
        500,
        "zym::result_t qor::procfs::ProcParser::GetStat(qor::PidType, qor::procfs::Stat&): Failed to open " +
            root.Path("77/stat")));
  });
}

TEST(ProcParser, AStatFileWithoutALineCannotBeRead) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/stat", "");
    root.tree.Place("78/stat/directory");
    Stat stat;
    EXPECT_EQ(root.parser->GetStat(77, stat), zym::ZYM_E_UNSPECIFIED);
    EXPECT_TRUE(root.Trace().Has(500, "procfs::GetStat(): Could not read from " + root.Path("77/stat")));
    EXPECT_EQ(root.parser->GetStat(78, stat), zym::ZYM_E_UNSPECIFIED);
    EXPECT_TRUE(root.Trace().Has(500, "procfs::GetStat(): Could not read from " + root.Path("78/stat")));
  });
}

TEST(ProcParser, AStatLineWithoutANameOrAFieldIsTraced) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/stat", "77 name R 1\n");
    root.tree.Write("78/stat", "78 (name) R 1 2 x\nsecond line\n");
    Stat stat;
    EXPECT_EQ(root.parser->GetStat(77, stat), zym::ZYM_E_UNSPECIFIED);
    EXPECT_TRUE(root.Trace().Has(500, "procfs::GetStat(): failed to parse from " + root.Path("77/stat")));
    EXPECT_EQ(root.parser->GetStat(78, stat), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(root.Trace().Find("Couldn't"), "procfs::GetStat(): Couldn't parse line 78 (name) R 1 2 x");
    EXPECT_EQ(stat.pgrp, 2U) << "the fields before it are set";
  });
}

// --- io, creds ---

TEST_F(ProcParserTest, ReadsTheCountersOfThisProcess) {
  IOCounters first;
  IOCounters second;
  ASSERT_EQ(parser->GetIOCounters(static_cast<PidType>(::getpid()), first), zym::ZYM_OK);
  ASSERT_EQ(parser->GetIOCounters(static_cast<PidType>(::getpid()), second), zym::ZYM_OK);
  EXPECT_GT(second.rchar, first.rchar) << "reading them is reading";
  EXPECT_GT(second.syscr, first.syscr);
}

TEST(ProcParser, CountersThatAreMissingOrUnreadableAreTraced) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/io", "rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 5\nwrite_bytes: 6\n");
    for (const PidType pid : {77U, 78U}) {
      IOCounters counters{.rchar = 99};
      EXPECT_EQ(root.parser->GetIOCounters(pid, counters), zym::ZYM_E_UNSPECIFIED);
      EXPECT_EQ(counters.rchar, 99U);
      EXPECT_TRUE(root.Trace().Has(500, "Failed to parse " + root.Path(std::to_string(pid) + "/io")));
    }
  });
}

TEST_F(ProcParserTest, ReadsTheCredentialsOfARealProcess) {
  SKIP_IF(test_support::MissingRight(CAP_SETUID, "to take other ids"));
  const Child child = Child::Forked([] {
    const gid_t groups[] = {4001, 4002};
    return ::setgroups(2, groups) == 0 && ::setresgid(3001, 3002, 3003) == 0 &&
           ::setresuid(2001, 2002, 2003) == 0;
  });
  Creds creds;
  ASSERT_EQ(parser->GetCreds(child.Pid(), creds), zym::ZYM_OK);
  EXPECT_THAT(creds.uid, ElementsAre(2001U, 2002U, 2003U, 2002U))
      << "the filesystem id follows the effective";
  EXPECT_THAT(creds.gid, ElementsAre(3001U, 3002U, 3003U, 3002U));
  EXPECT_THAT(creds.groups, ElementsAre(4001U, 4002U));
}

TEST(ProcParser, AStatusFileThatCannotBeParsedIsTracedAsAFailedCheck) {
  WithFakeRoot([](FakeRoot& root) {
    root.tree.Write("77/status", "Uid:\t0\t0\t0\nGid:\t0\t0\t0\t0\nGroups:\t\n");
    for (const PidType pid : {77U, 78U}) {
      root.Trace().Clear();
      Creds creds;
      EXPECT_EQ(root.parser->GetCreds(pid, creds), zym::ZYM_E_UNSPECIFIED);
      EXPECT_TRUE(root.Trace().Has(300, "process_manager/procfs/proc_parser.cpp:"));
      EXPECT_THAT(root.Trace().Find("Cannot parse"),
                  HasSubstr("(ParseCreds(file, creds)),(bool) failed: result = false Cannot parse " +
                            root.Path(std::to_string(pid) + "/status")));
    }
  });
}

// --- lists of processes ---

TEST_F(ProcParserTest, TheListOfProcessesAppendsAndTheOneByRelevanceReplaces) {
  const TempDirectory tree;
  for (const char* name : {"7/x", "12/x", "self/x", "12a/x", "-5/x", "99999999999/x"}) tree.Write(name, "");
  tree.Write("31", "");
  const auto rooted = Make<RootedParser>(tree.Path());
  std::vector<unsigned int> pids = {99};
  ASSERT_EQ(rooted->GetProcessList(pids), zym::ZYM_OK);
  EXPECT_EQ(pids.front(), 99U);
  EXPECT_THAT(pids, UnorderedElementsAre(99U, 7U, 12U, 31U));
  ASSERT_EQ(rooted->GetProcessListByRelevance(pids), zym::ZYM_OK);
  EXPECT_THAT(pids, UnorderedElementsAre(7U, 12U, 31U));
}

TEST_F(ProcParserTest, TheListByRelevanceHasTheNewestFirst) {
  const TempDirectory tree;
  const auto make = [&](const std::string& name, time_t time) {
    tree.Write(name + "/stat", "");
    const timespec times[2] = {{.tv_sec = time, .tv_nsec = 0}, {.tv_sec = time, .tv_nsec = 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, tree.Place(name).c_str(), times, 0), 0);
  };
  make("10", 2000);
  make("20", 3000);
  make("30", 1000);
  std::vector<unsigned int> pids;
  ASSERT_EQ(Make<RootedParser>(tree.Path() + "/")->GetProcessListByRelevance(pids), zym::ZYM_OK);
  EXPECT_THAT(pids, ElementsAre(20U, 10U, 30U));
}

TEST_F(ProcParserTest, BothListsHaveThisProcess) {
  const Child child = Child::Forked();
  std::vector<unsigned int> pids;
  ASSERT_EQ(parser->GetProcessList(pids), zym::ZYM_OK);
  EXPECT_THAT(pids, ::testing::IsSupersetOf({static_cast<unsigned int>(::getpid()), child.Pid()}));
  ASSERT_EQ(parser->GetProcessListByRelevance(pids), zym::ZYM_OK);
  EXPECT_THAT(pids, ::testing::IsSupersetOf({static_cast<unsigned int>(::getpid()), child.Pid()}));
}

TEST_F(ProcParserTest, ARootThatCannotBeOpenedIsTracedAsAFailedCheck) {
  const auto rooted = Make<RootedParser>("/no/such/root");
  std::vector<unsigned int> pids = {99};
  EXPECT_EQ(rooted->GetProcessList(pids), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(rooted->GetProcessListByRelevance(pids), zym::ZYM_E_UNSPECIFIED);
  EXPECT_THAT(pids, ElementsAre(99U));
  const auto records = Trace().Records();
  ASSERT_EQ(records.size(), 2U);
  for (const test_support::TraceRecord& record : records) {
    EXPECT_EQ(record.level, 300U);
    EXPECT_THAT(record.text,
                ::testing::MatchesRegex(
                    "process_manager/procfs/proc_parser.cpp:[0-9]+\\(dir\\),\\(bool\\) failed: result = "
                    "false Cannot open /no/such/root: No such file or directory"));
  }
}

TEST_F(ProcParserTest, ManyThreadsMayReadAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this] {
      for (int j = 0; j < 50; ++j) {
        const auto pid = static_cast<PidType>(::getpid());
        Stat stat;
        Maps maps;
        zym::types::string16_t cmdline;
        std::uint64_t id = 0;
        EXPECT_EQ(parser->GetStat(pid, stat), zym::ZYM_OK);
        EXPECT_EQ(parser->GetMaps(pid, maps), zym::ZYM_OK);
        EXPECT_EQ(parser->GetCmdline(pid, cmdline), zym::ZYM_OK);
        EXPECT_EQ(parser->GetMountNamespaceId(pid, id), zym::ZYM_OK);
      }
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace qor::procfs
