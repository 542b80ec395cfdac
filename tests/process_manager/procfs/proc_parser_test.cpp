// The reader of /proc, on real processes and on trees that a test makes.
#include "process_manager/procfs/proc_parser.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "process_manager/procfs/kernel_setting.h"
#include "qor_common/procfs_root.h"
#include "support/child.h"
#include "support/fake_services.h"
#include "support/fresh_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "zym/exception.h"
#include "zym/module_counter.h"

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

// A host with a parser. Ends by looking whether every object is gone.
struct Setting {
  Setting() = default;
  ~Setting() {
    parser.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), objects);
  }

  template <class P, class... Args>
  zym::intrusive_ptr<P> Make(Args&&... args) {
    return zym::CreateObject<P>(host.locator.get(), std::forward<Args>(args)...);
  }
  test_support::RecordingTracer& Trace() const { return *host.tracer; }

  test_support::FakeHost host;
  std::int32_t objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<ProcParser> parser = Make<ProcParser>();
};

class ProcParserTest : public ::testing::Test, protected Setting {};

// A fresh process whose procfs root is a tree of the test's.
struct FakeRoot : Setting {
  FakeRoot() { ::setenv("VORN_HOST_PROCFS", tree.Path().c_str(), 1); }

  // The trees have ordinary files, so their root isn't "/proc/".
  std::string Path(const std::string& name) const { return tree.Path() + "/" + name; }

  TempDirectory tree;
};

void WithFakeRoot(const std::function<void(FakeRoot&)>& body) {
  InFreshProcess([&body] {
    FakeRoot root;
    body(root);
  });
}

constexpr PidType kNobody = 4'194'305;  // above the largest pid of Linux, 2^22

// A mount namespace of the process's own, in which it may cover what it likes.
bool EnterOwnMountNamespace() {
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

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
      EXPECT_TRUE(root.Trace().Has(300, "process_manager/proc_parser.cpp:"));
      EXPECT_THAT(root.Trace().Find("Cannot parse"),
                  HasSubstr("(ParseCreds(file, creds)),(bool) failed: result = false Cannot parse " +
                            root.Path(std::to_string(pid) + "/status")));
    }
  });
}

// --- links ---

TEST_F(ProcParserTest, ReadsLinksAsTheKernelGivesThem) {
  const TempDirectory directory;
  const Child child = Child::Forked([&] { return ::chdir(directory.Path().c_str()) == 0; });
  NativePath path;
  EXPECT_EQ(parser->GetWorkingDir(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, directory.Path());
  EXPECT_EQ(parser->GetProcLink(child.Pid(), "root", path), zym::ZYM_OK);
  EXPECT_EQ(path, "/");
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST_F(ProcParserTest, KeepsWhatTheKernelPutsBehindTheNameOfADeletedFile) {
  TempDirectory directory;
  const std::string shell = directory.Place("sh");
  std::filesystem::copy_file("/bin/sh", shell);
  const Child child = Child::Shell(shell);
  ASSERT_EQ(::unlink(shell.c_str()), 0);
  NativePath path;
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_OK);
  EXPECT_EQ(path, shell + " (deleted)");
}

TEST_F(ProcParserTest, ALinkOfAProcessThatIsGoneIsNotFound) {
  NativePath path = "old";
  errno = 0;
  EXPECT_EQ(parser->GetProcLink(kNobody, "exe", path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(errno, ENOENT) << "why it couldn't be read stays in errno";
  EXPECT_EQ(parser->GetImagePath(kNobody, path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(parser->GetWorkingDir(kNobody, path), zym::ZYM_E_NOT_FOUND);
  EXPECT_EQ(path, "old");
}

TEST_F(ProcParserTest, AZombieHasNoImageAndNoWorkingDirectory) {
  const Child child = Child::Forked();
  child.Kill();
  NativePath path;
  EXPECT_EQ(parser->GetImagePath(child.Pid(), path), zym::ZYM_E_NOT_FOUND);
  Stat stat;
  EXPECT_EQ(parser->GetStat(child.Pid(), stat), zym::ZYM_OK);
  EXPECT_EQ(stat.state, 'Z');
}

TEST_F(ProcParserTest, WhatIsThereAndIsNoLinkIsAnError) {
  NativePath path;
  errno = 0;
  EXPECT_EQ(parser->GetProcLink(static_cast<PidType>(::getpid()), "stat", path), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(parser->GetProcLink(static_cast<PidType>(::getpid()), "", path), zym::ZYM_E_UNSPECIFIED)
      << "the directory itself";
}

TEST(ProcParser, AnEmptyNameReadsThePathOfTheProcessItself) {
  WithFakeRoot([](FakeRoot& root) {
    ASSERT_EQ(::symlink("/some/where", root.tree.Place("77").c_str()), 0);
    NativePath path;
    EXPECT_EQ(root.parser->GetProcLink(77, "", path), zym::ZYM_OK);
    EXPECT_EQ(path, "/some/where");
  });
}

TEST(ProcParser, ALinkOf4095BytesIsTheLongestThatIsWhole) {
  WithFakeRoot([](FakeRoot& root) {
    const std::string target(PATH_MAX - 1, 'x');
    ASSERT_EQ(::symlink(target.c_str(), root.tree.Place("77/exe").c_str()), 0);
    NativePath path;
    EXPECT_EQ(root.parser->GetImagePath(77, path), zym::ZYM_OK);
    EXPECT_EQ(path, target);
  });
}

// --- maps, iomem ---

TEST_F(ProcParserTest, ReadsTheMappingsOfThisProcess) {
  Maps maps;
  ASSERT_EQ(parser->GetMaps(static_cast<PidType>(::getpid()), maps), zym::ZYM_OK);
  const auto address = reinterpret_cast<std::uint64_t>(&EnterOwnMountNamespace);
  const bool found = std::ranges::any_of(maps, [&](const auto& item) {
    return item.second->begin <= address && address < item.second->end && item.second->permissions == 5 &&
           item.second->path == std::filesystem::read_symlink("/proc/self/exe").string();
  });
  EXPECT_TRUE(found) << "the mapping that this test runs in";
}

TEST_F(ProcParserTest, MapsThatCannotBeOpenedAreAnError) {
  Maps maps;
  EXPECT_EQ(parser->GetMaps(kNobody, maps), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Trace().Has(500, "Unable to open file /proc/4194305/maps"));
}

TEST_F(ProcParserTest, ReadsIomemBelowItsRoot) {
  const TempDirectory tree;
  tree.Write("iomem", "00001000-0009fbff : System RAM\nwords\n");
  IOMemMap map;
  ASSERT_EQ(Make<RootedParser>(tree.Path())->GetIOMemMap(map), zym::ZYM_OK);
  ASSERT_EQ(map.size(), 1U);
  EXPECT_EQ(map[0].end, 0x9fbffU);
  EXPECT_EQ(map[0].name, "System RAM");
}

TEST_F(ProcParserTest, IomemThatCannotBeOpenedIsAnError) {
  const TempDirectory tree;
  IOMemMap map;
  EXPECT_EQ(Make<RootedParser>(tree.Path() + "/")->GetIOMemMap(map), zym::ZYM_E_UNSPECIFIED);
  EXPECT_TRUE(Trace().Has(300, "Unable to open " + tree.Path() + "/iomem"));
}

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
    EXPECT_THAT(
        record.text,
        ::testing::MatchesRegex("process_manager/proc_parser.cpp:[0-9]+\\(dir\\),\\(bool\\) failed: result = "
                                "false Cannot open /no/such/root: No such file or directory"));
  }
}

// --- descriptors ---

TEST_F(ProcParserTest, ListsTheDescriptorsOfAProcess) {
  const qor::UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const Child child = Child::Forked();
  std::vector<unsigned int> fds = {12345};
  ASSERT_EQ(parser->GetDescriptors(child.Pid(), fds), zym::ZYM_OK);
  EXPECT_THAT(fds, ::testing::IsSupersetOf({12345U, static_cast<unsigned int>(file.Get())}));
}

TEST_F(ProcParserTest, DescriptorsOfAProcessThatIsGoneAreTracedAsAFailedCheck) {
  std::vector<unsigned int> fds;
  EXPECT_EQ(parser->GetDescriptors(kNobody, fds), zym::ZYM_E_UNSPECIFIED);
  EXPECT_THAT(Trace().Find("(dir)"), HasSubstr("(dir),(bool) failed: result = false Cannot open "
                                               "/proc/4194305/fd: No such file or directory"));
}

TEST_F(ProcParserTest, TellsWhatIsBehindADescriptor) {
  const TempDirectory directory;
  const std::string path = directory.Write("file", "x");
  int pipe[2];
  int sockets[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const int fds[] = {::open(path.c_str(), O_RDONLY | O_CLOEXEC), ::open("/", O_RDONLY | O_CLOEXEC),
                     ::open("/dev/null", O_RDONLY | O_CLOEXEC), pipe[0], sockets[0]};
  const std::uint32_t types[] = {0, 1, 2, 4, 6};
  for (std::size_t i = 0; i < std::size(fds); ++i) {
    struct stat status {};
    ASSERT_EQ(::fstat(fds[i], &status), 0);
    DescriptorInfo info{.fileType = 99};
    ASSERT_EQ(
        parser->GetDescriptorInfo(static_cast<PidType>(::getpid()), static_cast<unsigned int>(fds[i]), info),
        zym::ZYM_OK);
    EXPECT_EQ(info.inode, status.st_ino) << i;
    EXPECT_EQ(info.fileType, types[i]) << i;
    ::close(fds[i]);
  }
  ::close(pipe[1]);
  ::close(sockets[1]);
}

TEST_F(ProcParserTest, ADescriptorThatIsNotOpenIsAnError) {
  DescriptorInfo info{.inode = 77};
  EXPECT_EQ(parser->GetDescriptorInfo(static_cast<PidType>(::getpid()), 987654, info),
            zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(parser->GetDescriptorInfo(kNobody, 0, info), zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(info.inode, 77U);
}

TEST(ProcParser, ADescriptorWhosePathIsTooLongIsNotTakenForAnother) {
  InFreshProcess([] {
    const TempDirectory tree;
    tree.Write("77/fd/1", "");
    std::string root = tree.Path();
    root.append(PATH_MAX - 1 - root.size() - std::string("77/fd/1").size(), '/');
    ::setenv("VORN_HOST_PROCFS", root.c_str(), 1);
    Setting setting;
    DescriptorInfo info{.inode = 77};
    EXPECT_EQ(setting.parser->GetDescriptorInfo(77, 12, info), zym::ZYM_E_UNSPECIFIED);
    EXPECT_EQ(info.inode, 77U);
    EXPECT_EQ(setting.parser->GetDescriptorInfo(77, 1, info), zym::ZYM_OK) << "this one just fits";
  });
}

TEST(ProcParser, ABlockDeviceIsTold) {
  SKIP_IF(test_support::MissingRight(CAP_MKNOD, "to make a device"));
  WithFakeRoot([](FakeRoot& root) {
    ASSERT_EQ(::mknod(root.tree.Place("77/fd/3").c_str(), S_IFBLK | 0600, 0), 0);
    DescriptorInfo info;
    EXPECT_EQ(root.parser->GetDescriptorInfo(77, 3, info), zym::ZYM_OK);
    EXPECT_EQ(info.fileType, 3U);
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

// --- the mount namespace ---

TEST_F(ProcParserTest, GivesTheMountNamespaceOfAProcess) {
  struct stat own {};
  ASSERT_EQ(::stat("/proc/self/ns/mnt", &own), 0);
  const Child child = Child::Forked();
  std::uint64_t id = 0;
  ASSERT_EQ(parser->GetMountNamespaceId(child.Pid(), id), zym::ZYM_OK);
  EXPECT_EQ(id, own.st_ino);
  EXPECT_TRUE(Trace().Has(800, "GetMountNamespaceId() <- 0x00000000 (No error) nsid=" + std::to_string(id)));
}

TEST_F(ProcParserTest, TellsAnotherMountNamespaceFromItsOwn) {
  SKIP_IF(test_support::MissingMountRights());
  const Child child = Child::Forked([] { return ::unshare(CLONE_NEWNS) == 0; });
  std::uint64_t own = 0;
  std::uint64_t other = 0;
  ASSERT_EQ(parser->GetMountNamespaceId(static_cast<PidType>(::getpid()), own), zym::ZYM_OK);
  ASSERT_EQ(parser->GetMountNamespaceId(child.Pid(), other), zym::ZYM_OK);
  EXPECT_NE(own, other);
}

TEST_F(ProcParserTest, TheNamespaceOfAProcessThatIsGoneIsUnknown) {
  std::uint64_t id = 0;
  EXPECT_EQ(parser->GetMountNamespaceId(kNobody, id), zym::ZYM_E_FILE_NOT_FOUND) << "by errno";
  EXPECT_EQ(id, kNoMountNamespace);
  EXPECT_TRUE(Trace().Has(800, "() <- 0x80010102 (File not found) nsid=18446744073709551615"));
}

TEST(ProcParser, AKernelWithoutNamespaceFilesHasTheNamespace0) {
  SKIP_IF(test_support::MissingMountRights());
  InFreshProcess([] {
    ASSERT_TRUE(EnterOwnMountNamespace());
    ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    Setting setting;
    std::uint64_t id = 77;
    EXPECT_EQ(setting.parser->GetMountNamespaceId(1, id), zym::ZYM_OK);
    EXPECT_EQ(id, 0U);
    ASSERT_EQ(::umount("/proc"), 0);
    id = 77;
    EXPECT_EQ(setting.parser->GetMountNamespaceId(1, id), zym::ZYM_OK);
    EXPECT_EQ(id, 0U) << "it is asked once";
  });
}

TEST(ProcParser, AnotherFailureToReadTheOwnNamespaceIsTriedAgain) {
  SKIP_IF(test_support::MissingMountRights());
  InFreshProcess([] {
    ASSERT_TRUE(EnterOwnMountNamespace());
    ASSERT_EQ(::mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    ASSERT_TRUE(std::ofstream("/proc/self") << "no directory");
    Setting setting;
    std::uint64_t id = 77;
    const auto pid = static_cast<PidType>(::getpid());
    EXPECT_EQ(setting.parser->GetMountNamespaceId(pid, id), zym::ZYM_E_FILE_NOT_FOUND);
    EXPECT_EQ(id, kNoMountNamespace);
    ASSERT_EQ(::umount("/proc"), 0);
    EXPECT_EQ(setting.parser->GetMountNamespaceId(pid, id), zym::ZYM_OK);
    struct stat own {};
    ASSERT_EQ(::stat("/proc/self/ns/mnt", &own), 0);
    EXPECT_EQ(id, own.st_ino);
  });
}

// --- all at once ---

// --- files that are no such files ---

// Every operation that reads a file below the root, by the name of that file.
struct FileReader {
  const char* file;
  std::function<zym::result_t(ProcParser&)> read;
};

std::vector<FileReader> FileReaders() {
  constexpr PidType kPid = 77;
  return {
      {"77/stat",
       [](ProcParser& parser) {
         Stat stat;
         return parser.GetStat(kPid, stat);
       }},
      {"77/io",
       [](ProcParser& parser) {
         IOCounters counters{.rchar = 1, .cancelled_write_bytes = 2};
         const zym::result_t result = parser.GetIOCounters(kPid, counters);
         if (result != zym::ZYM_OK) {
           EXPECT_TRUE(counters.rchar == 1 && counters.cancelled_write_bytes == 2) << "never half filled";
         }
         return result;
       }},
      {"77/maps",
       [](ProcParser& parser) {
         Maps maps;
         return parser.GetMaps(kPid, maps);
       }},
      {"77/cmdline",
       [](ProcParser& parser) {
         zym::types::string16_t cmdline;
         const zym::result_t result = parser.GetCmdline(kPid, cmdline);
         EXPECT_EQ(result == zym::ZYM_FALSE,
                   ZYM_SUCCEEDED(result) && cmdline.empty() && result != zym::ZYM_OK);
         return result;
       }},
      {"77/status",
       [](ProcParser& parser) {
         Creds creds;
         return parser.GetCreds(kPid, creds);
       }},
      {"77/environ",
       [](ProcParser& parser) {
         std::string value = "untouched";
         EXPECT_EQ(parser.GetEnvironmentVariable(kPid, "no such name", value), zym::ZYM_OK);
         EXPECT_EQ(value, "untouched");
         zym::types::vector_t<zym::types::string_t> variables;
         const zym::result_t result = parser.GetEnvironmentVariables(kPid, variables);
         for (const zym::types::string_t& variable : variables) EXPECT_FALSE(variable.empty());
         return result;
       }},
      {"77/comm",
       [](ProcParser& parser) {
         std::string comm;
         return parser.GetComm(kPid, comm);
       }},
      {"cmdline",
       [](ProcParser& parser) {
         zym::types::string16_t cmdline;
         return parser.GetCmdline(0, cmdline);
       }},
      {"iomem",
       [](ProcParser& parser) {
         IOMemMap map;
         return parser.GetIOMemMap(map);
       }},
      {"modules",
       [](ProcParser& parser) {
         ModulesList modules;
         return parser.GetModules(modules);
       }},
  };
}

// What each file gives as long as its bytes are text: a result of the reader's own table.
bool IsAResultOfTheReaders(zym::result_t result) {
  return result == zym::ZYM_OK || result == zym::ZYM_FALSE || result == zym::ZYM_E_UNSPECIFIED;
}

TEST(ProcParser, AnEmptyFileIsAResultOfItsOwnForEachOperation) {
  WithFakeRoot([](FakeRoot& root) {
    const std::map<std::string, zym::result_t> expected = {
        {"77/stat", zym::ZYM_E_UNSPECIFIED},
        {"77/io", zym::ZYM_E_UNSPECIFIED},
        {"77/maps", zym::ZYM_OK},
        {"77/cmdline", zym::ZYM_FALSE},
        {"77/status", zym::ZYM_E_UNSPECIFIED},
        {"77/environ", zym::ZYM_OK},
        {"77/comm", zym::ZYM_E_UNSPECIFIED},
        {"cmdline", zym::ZYM_FALSE},
        {"iomem", zym::ZYM_OK},
        {"modules", zym::ZYM_OK},
    };
    for (const auto& [file, read] : FileReaders()) {
      root.tree.Write(file, "");
      EXPECT_EQ(read(*root.parser), expected.at(file)) << file;
    }
  });
}

// The files of this very process, and such of the kernel, cut behind each of their first bytes, and then here
// and there. What the texts mean then is held where they are parsed.
TEST(ProcParser, AFileThatIsCutAnywhereGivesAResultOfTheTable) {
  WithFakeRoot([](FakeRoot& root) {
    constexpr std::size_t kMost = 300;
    root.tree.Write("sys/kernel/kptr_restrict", "1\n");  // for an offset that is cut to 0
    root.tree.Write("sys/kernel/perf_event_paranoid", "2\n");
    for (const auto& [file, read] : FileReaders()) {
      std::string text = "dm_mod 159744 3 dm_mirror,dm_log, Live 0xffffffffc0311000\n";
      if (std::string_view(file) == "iomem")
        text = "00001000-0009fbff : System RAM\n  00001000-00002fff : part\n";
      if (std::string_view(file).starts_with("77/"))
        text = test_support::ReadTextFile("/proc/self/" + std::string(file).substr(3));
      if (std::string_view(file) == "cmdline") text = "root=/dev/sda1 ro quiet\n";
      for (std::size_t length = 0; length <= std::min(text.size(), kMost); length += length < 80 ? 1 : 11) {
        root.tree.Write(file, text.substr(0, length));
        const zym::result_t result = read(*root.parser);
        EXPECT_TRUE(IsAResultOfTheReaders(result))
            << file << " of " << length << " bytes: " << std::hex << result;
      }
      root.tree.Write(file, text);
      EXPECT_EQ(read(*root.parser), zym::ZYM_OK) << file << " as a whole";
    }
  });
}

TEST(ProcParser, AHostileFileGivesAResultAndLetsNothingOut) {
  WithFakeRoot([](FakeRoot& root) {
    std::string allBytes(256, '\0');
    for (std::size_t i = 0; i < allBytes.size(); ++i) allBytes[i] = static_cast<char>(i);
    std::vector<std::string> contents = {allBytes,
                                         "77 ()",
                                         "77 )(",
                                         "((((",
                                         "))))",
                                         "\xff\xfe\n",
                                         "Uid:\nGid:\nGroups:\n",
                                         "Uid:\t99999999999999999999 -1 0 0\nGid:\t0 0 0 0\nGroups:\t- 1\n",
                                         "ffffffffffffffffffff-0 rwxs 0 0:0 0\n",
                                         "0-0 : \n"};
    for (const char c : {'x', '\0', '\n', '(', ')', '9', '-', ' ', '=', '\xff'})
      contents.emplace_back(std::size_t{1} << 20, c);
    for (const auto& [file, read] : FileReaders()) {
      for (const std::string& content : contents) {
        root.tree.Write(file, content);
        zym::result_t result = zym::ZYM_OK;
        EXPECT_NO_THROW(result = read(*root.parser)) << file;
        // Only what is to become text can be none, which is an exception's result.
        const bool mayBeNoText = std::string_view(file).ends_with("cmdline");
        EXPECT_TRUE(IsAResultOfTheReaders(result) ||
                    (mayBeNoText && result == zym::ZYM_E_EXCEPTION_WITHOUT_RESULT))
            << file << " of " << content.size() << " bytes from \"" << content.substr(0, 8)
            << "\": " << std::hex << result;
      }
    }
  });
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
