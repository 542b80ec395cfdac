#include "qor_common/mount_namespace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "process_manager/types.h"
#include "qor_common/gained_rights.h"
#include "support/child_process.h"
#include "support/rights.h"
#include "support/temp_directory.h"

namespace qor::tools {
namespace {

using test_support::ForeignNamespace;
using test_support::RunInChild;
using test_support::TempDirectory;
using test_support::WriteTextFile;

bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

TEST(MountNamespace, TheOwnIdIsTheInodeOfTheNamespaceFile) {
  struct stat status {};
  ASSERT_EQ(::stat("/proc/self/ns/mnt", &status), 0);
  EXPECT_EQ(GetOwnNamespaceId(), status.st_ino);
}

TEST(MountNamespace, NoRecordedNamespaceIsNotForeign) {
  EXPECT_FALSE(IsForeignNamespace(kNoMountNamespace));
  EXPECT_FALSE(IsForeignNamespace(static_cast<std::uint64_t>(-1)));
}

TEST(MountNamespace, OnlyAnotherIdIsForeign) {
  EXPECT_FALSE(IsForeignNamespace(GetOwnNamespaceId()));
  EXPECT_TRUE(IsForeignNamespace(GetOwnNamespaceId() + 1));
}

TEST(MountNamespace, TheOwnIdIsReadAtEachCall) {
  SKIP_IF(test_support::MissingMountRights());
  EXPECT_EQ(RunInChild([]() -> std::string {
              const std::uint64_t before = GetOwnNamespaceId();
              if (const auto missing = test_support::EnterPrivateMounts(); !missing.empty()) return missing;
              if (GetOwnNamespaceId() == before) return "cached";
              return IsForeignNamespace(before) ? "" : "the old namespace isn't foreign";
            }),
            "");
}

class UnlinkInNamespaceTest : public testing::Test {
 protected:
  void SetUp() override { SKIP_IF(test_support::MissingMountRights()); }
  TempDirectory m_directory;
};

TEST_F(UnlinkInNamespaceTest, RemovesThereAndNotHere) {
  SKIP_IF(test_support::MissingNamespaceRoot());
  const std::string path = m_directory / "file";
  WriteTextFile(path, "here");
  const ForeignNamespace foreign(m_directory.Path());
  WriteTextFile(foreign.Seen(path), "there");
  const std::uint64_t own = GetOwnNamespaceId();

  // An absolute path: it means another file in each namespace.
  EXPECT_EQ(UnlinkInNamespace(foreign.Open().Get(), AT_FDCWD, path.c_str()), zym::ZYM_OK);

  EXPECT_FALSE(Exists(foreign.Seen(path)));
  EXPECT_EQ(test_support::ReadTextFile(path), "here");
  EXPECT_EQ(GetOwnNamespaceId(), own) << "the caller stays where it is";
}

TEST_F(UnlinkInNamespaceTest, TakesTheNameBelowADirectoryDescriptor) {
  const ForeignNamespace foreign(m_directory.Path());
  WriteTextFile(foreign.Seen(m_directory / "file"), "there");
  const UniqueFd directory(::open(foreign.Seen(m_directory.Path()).c_str(), O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(UnlinkInNamespace(foreign.Open().Get(), directory.Get(), "file"), zym::ZYM_OK);
  EXPECT_FALSE(Exists(foreign.Seen(m_directory / "file")));
}

TEST_F(UnlinkInNamespaceTest, GivesTheErrorOfTheCallThatFailed) {
  const ForeignNamespace foreign(m_directory.Path());
  const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(UnlinkInNamespace(foreign.Open().Get(), AT_FDCWD, (m_directory / "none").c_str()),
            zym::ZYM_E_FILE_NOT_FOUND);
  EXPECT_EQ(UnlinkInNamespace(-1, AT_FDCWD, "/none"), zym::ZYM_E_INVALID_HANDLE);
  EXPECT_EQ(UnlinkInNamespace(null.Get(), AT_FDCWD, "/none"), zym::ZYM_E_INVALID_ARGUMENT);
  EXPECT_EQ(UnlinkInNamespace(foreign.Open().Get(), -1, "file"), zym::ZYM_E_INVALID_HANDLE);
}

TEST_F(UnlinkInNamespaceTest, ReportsThatNoThreadCouldBeMade) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (const auto missing = test_support::FailSystemCall(SYS_clone, EAGAIN); !missing.empty())
                return missing;
              return UnlinkInNamespace(-1, AT_FDCWD, "/none") == zym::ErrnoToResult(EAGAIN) ? "" : "result";
            }),
            "");
}

TEST_F(UnlinkInNamespaceTest, WorksFromManyThreadsAtOnce) {
  SKIP_IF(test_support::MissingNamespaceRoot());
  constexpr int kThreads = 4;
  constexpr int kFiles = 50;
  const ForeignNamespace foreign(m_directory.Path());
  const auto name = [&](int thread, int file) {
    return m_directory / (std::to_string(thread) + "-" + std::to_string(file));
  };
  for (int thread = 0; thread < kThreads; ++thread)
    for (int file = 0; file < kFiles; ++file) WriteTextFile(foreign.Seen(name(thread, file)), "");
  const UniqueFd ns = foreign.Open();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int file = 0; file < kFiles; ++file)
        EXPECT_EQ(UnlinkInNamespace(ns.Get(), AT_FDCWD, name(thread, file).c_str()), zym::ZYM_OK);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

std::atomic<int> g_handled{0};

// More than the one page that the short-lived thread has.
void HungryHandler(int) {
  volatile char stack[64 * 1024];
  stack[0] = 1;
  stack[sizeof(stack) - 1] = 1;
  ++g_handled;
}

TEST_F(UnlinkInNamespaceTest, ASignalNeverRunsItsHandlerOnTheSmallStack) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              struct sigaction action {};
              action.sa_handler = HungryHandler;
              ::sigaction(SIGALRM, &action, nullptr);
              const itimerval often{.it_interval = {0, 50}, .it_value = {0, 50}};
              ::setitimer(ITIMER_REAL, &often, nullptr);
              for (int i = 0; i < 20000 && g_handled < 200; ++i) {
                if (UnlinkInNamespace(-1, AT_FDCWD, "/none") != zym::ZYM_E_INVALID_HANDLE) return "result";
              }
              sigset_t mask;
              ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
              return ::sigismember(&mask, SIGALRM) == 0 ? "" : "a signal stays blocked";
            }),
            "");
}

// The variable is read once, so each value needs a process in which nobody asked before.
class ValgrindCheck : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void ExitByResult(const char* value, zym::result_t expected) {
  ::setenv("QOR_VALGRIND_CHECK", value, 1);
  // With clone forbidden, a thread that was tried shows in the result.
  if (!test_support::FailSystemCall(SYS_clone, EAGAIN).empty()) std::_Exit(2);
  const zym::result_t first = UnlinkInNamespace(-1, AT_FDCWD, "/none");
  ::setenv("QOR_VALGRIND_CHECK", "changed", 1);
  std::_Exit(first == expected && UnlinkInNamespace(-1, AT_FDCWD, "/none") == expected ? 0 : 1);
}

TEST_F(ValgrindCheck, OnMakesNoThread) {
  EXPECT_EXIT(ExitByResult("ON", zym::ZYM_E_NOT_IMPLEMENTED), testing::ExitedWithCode(0), "");
}

TEST_P(ValgrindCheck, AnyOtherValueChangesNothing) {
  EXPECT_EXIT(ExitByResult(GetParam(), zym::ErrnoToResult(EAGAIN)), testing::ExitedWithCode(0), "");
}

TEST_F(ValgrindCheck, IsReadInAProgramWithMoreRightsThanItsStarterToo) {
  if (test_support::HasGainedRights()) {
    EXPECT_EQ(UnlinkInNamespace(-1, AT_FDCWD, "/none"), zym::ZYM_E_NOT_IMPLEMENTED);
    return;
  }
  SKIP_IF(test_support::MissingRight(CAP_SETGID, "to change the group"));
  test_support::RunAgainWithGainedRights("QOR_VALGRIND_CHECK", "ON");
}

INSTANTIATE_TEST_SUITE_P(Values, ValgrindCheck, testing::Values("on", "1", "OFF", "ON ", ""));

}  // namespace
}  // namespace qor::tools
