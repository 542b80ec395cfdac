// How real processes are described.
#include "process_manager/process/tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "process_manager/process_manager.h"
#include "process_manager/procfs/proc_parser.h"
#include "support/child.h"
#include "support/fake_services.h"
#include "support/process_records.h"
#include "support/rights.h"
#include "support/temp_directory.h"
#include "zym/module_counter.h"

namespace qor::process_manager {
namespace {

using process_cache::ProcessInformation;
using test_support::Child;
using test_support::IsRecord;
using test_support::TempDirectory;
using ::testing::MatchesRegex;

class RealProcessTest : public ::testing::Test {
 protected:
  ~RealProcessTest() override {
    m_parser.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  zym::result_t Get(PidType pid) { return GetProcessInfo(m_host.tracer.get(), m_parser.get(), pid, m_info); }

  test_support::FakeHost m_host;
  std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<procfs::ProcParser> m_parser =
      zym::CreateObject<procfs::ProcParser>(m_host.locator.get());
  ProcessInformation m_info;
};

zym::types::string16_t Wide(const std::string& text) {
  return {text.begin(), text.end()};
}

// A copy of the shell of the test's own, under any name.
std::string CopyShell(const TempDirectory& directory, const std::string& name) {
  const std::string shell = directory.Place(name);
  std::filesystem::copy_file("/bin/sh", shell);
  return shell;
}

TEST_F(RealProcessTest, AShellIsDescribed) {
  const TempDirectory directory;
  const std::string shell = CopyShell(directory, "sh");
  const Child child = Child::Shell(shell, {"argument"});
  ASSERT_EQ(GetFullProcessInfo(m_host.tracer.get(), m_parser.get(), child.Pid(), m_info), zym::ZYM_OK);
  struct stat directoryOfProcess {};
  struct stat ns {};
  ASSERT_EQ(::stat(("/proc/" + std::to_string(child.Pid())).c_str(), &directoryOfProcess), 0);
  ASSERT_EQ(::stat("/proc/self/ns/mnt", &ns), 0);
  EXPECT_EQ(m_info.pid, child.Pid());
  EXPECT_EQ(m_info.parentPid, static_cast<PidType>(::getpid()));
  EXPECT_EQ(m_info.sessionId, static_cast<PidType>(::getsid(0)));
  EXPECT_EQ(m_info.startTime, directoryOfProcess.st_ctim.tv_sec * 10'000'000 + 116'444'736'000'000'000);
  EXPECT_EQ(m_info.imagePath, Wide(shell));
  EXPECT_EQ(m_info.workingDirectory, Wide(std::filesystem::current_path().string()));
  EXPECT_EQ(*m_info.commandLine, Wide(shell + " -c echo; read line shell argument"));
  EXPECT_EQ(m_info.flags, 0U);
  EXPECT_EQ(m_info.realUserId, ::getuid());
  EXPECT_EQ(m_info.effectiveUserId, ::geteuid());
  EXPECT_EQ(m_info.realGroupId, ::getgid());
  EXPECT_EQ(m_info.effectiveGroupId, ::getegid());
  EXPECT_EQ(m_info.mountNamespaceId, ns.st_ino);
  EXPECT_FALSE(m_info.environment.empty());
}

TEST_F(RealProcessTest, ARunningProgramWhoseFileWasDeletedHasItsPathAndFlags16) {
  const TempDirectory directory;
  const std::string shell = CopyShell(directory, "sh");
  const Child child = Child::Shell(shell);
  ASSERT_EQ(::unlink(shell.c_str()), 0);
  ASSERT_EQ(Get(child.Pid()), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, Wide(shell));
  EXPECT_EQ(m_info.flags, 16U);
}

TEST_F(RealProcessTest, AProgramWhoseNameReallyEndsSoKeepsItAndFlags0) {
  const TempDirectory directory;
  const std::string shell = CopyShell(directory, "sh (deleted)");
  const Child child = Child::Shell(shell);
  ASSERT_EQ(Get(child.Pid()), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, Wide(shell));
  EXPECT_EQ(m_info.flags, 0U);
}

TEST_F(RealProcessTest, AProgramWhoseNameEndedSoAndWhoseFileWasDeletedLosesOneSuffix) {
  const TempDirectory directory;
  const std::string shell = CopyShell(directory, "sh (deleted)");
  const Child child = Child::Shell(shell);
  ASSERT_EQ(::unlink(shell.c_str()), 0);
  ASSERT_EQ(Get(child.Pid()), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, Wide(shell));
  EXPECT_EQ(m_info.flags, 16U);
}

TEST_F(RealProcessTest, AKernelThreadIsDescribed) {
  std::string comm;
  if (!ZYM_SUCCEEDED(m_parser->GetComm(2, comm)) || comm != "kthreadd")
    GTEST_SKIP() << "no kernel thread is to be seen: run in the machine's first pid namespace";
  ASSERT_EQ(Get(2), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"[kthreadd]");
  EXPECT_EQ(m_info.flags, 17U);
  EXPECT_EQ(*m_info.commandLine, u"");
}

TEST_F(RealProcessTest, TheKernelIsDescribed) {
  ASSERT_EQ(GetFullProcessInfo(m_host.tracer.get(), m_parser.get(), 0, m_info), zym::ZYM_OK);
  EXPECT_EQ(m_info.imagePath, u"kernel memory");
  EXPECT_FALSE(m_info.commandLine->empty());
  EXPECT_FALSE(m_host.tracer->Has("Kernel statistic")) << "stat isn't asked for";
}

TEST_F(RealProcessTest, AProcessThatIsGoneIsNotFound) {
  Child child = Child::Forked();
  const PidType pid = child.Pid();
  child.End();
  m_info.pid = m_info.parentPid = 91;
  m_info.imagePath = u"old image";
  const ProcessInformation old = m_info;
  EXPECT_EQ(Get(pid), zym::ZYM_E_NOT_FOUND);
  EXPECT_THAT(m_host.tracer->Find("procfs->GetStat"),
              MatchesRegex("process_manager/process/tools.cpp:[0-9]+\\(procfs->GetStat\\(pid, "
                           "stat\\)\\),\\(ZYM_SUCCEEDED\\(_result\\)\\) failed: result = 0x8000004c \\(Not "
                           "found\\) Cannot get process status from procfs for pid: " +
                           std::to_string(pid)));
  EXPECT_THAT(m_info, IsRecord(old));
}

TEST_F(RealProcessTest, AZombieIsNotFound) {
  const Child child = Child::Forked();
  child.Kill();
  EXPECT_EQ(Get(child.Pid()), zym::ZYM_E_NOT_FOUND);
}

TEST_F(RealProcessTest, AProcessOfAnotherMountNamespaceIsDescribed) {
  SKIP_IF(test_support::MissingMountRights());
  const Child child = Child::Forked([] { return ::unshare(CLONE_NEWNS) == 0; });
  ASSERT_EQ(Get(child.Pid()), zym::ZYM_OK);
  const std::uint64_t other = m_info.mountNamespaceId;
  ASSERT_EQ(Get(static_cast<PidType>(::getpid())), zym::ZYM_OK);
  EXPECT_NE(m_info.mountNamespaceId, other);
}

TEST_F(RealProcessTest, NameWithParenthesesChangesNothing) {
  const Child child = Child::Forked([] { return ::prctl(PR_SET_NAME, ") R 0 (x") == 0; });
  ASSERT_EQ(Get(child.Pid()), zym::ZYM_OK);
  EXPECT_EQ(m_info.parentPid, static_cast<PidType>(::getpid()));
  EXPECT_EQ(m_info.flags, 0U);
}

}  // namespace
}  // namespace qor::process_manager
