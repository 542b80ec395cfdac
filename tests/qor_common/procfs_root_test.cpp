// The root is read once in a process, so each case has a process of its own, in which nobody asked before.
#include "qor_common/procfs_root.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "qor_common/gained_rights.h"
#include "support/rights.h"

namespace qor::procfs {
namespace {

class ProcfsRoot : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void ExitByRoot(const char* value, const char* expected) {
  if (value != nullptr)
    ::setenv("VORN_HOST_PROCFS", value, 1);
  else
    ::unsetenv("VORN_HOST_PROCFS");
  const bool right = GetProcfsRoot() == expected;
  ::setenv("VORN_HOST_PROCFS", "/", 1);
  std::_Exit(right && GetProcfsRoot() == expected ? 0 : 1);
}

TEST_F(ProcfsRoot, IsProcByDefault) {
  EXPECT_EXIT(ExitByRoot(nullptr, "/proc/"), testing::ExitedWithCode(0), "");
}

TEST_F(ProcfsRoot, IsTheVariablesValueWithASlashAtItsEnd) {
  EXPECT_EXIT(ExitByRoot("/tmp", "/tmp/"), testing::ExitedWithCode(0), "");
}

TEST_F(ProcfsRoot, KeepsASlashThatIsThere) {
  EXPECT_EXIT(ExitByRoot("/tmp/", "/tmp/"), testing::ExitedWithCode(0), "");
}

TEST_F(ProcfsRoot, StaysProcForAPathThatIsMissing) {
  EXPECT_EXIT(ExitByRoot("/missing/proc", "/proc/"), testing::ExitedWithCode(0), "");
}

TEST_F(ProcfsRoot, StaysProcForAnEmptyValue) {
  EXPECT_EXIT(ExitByRoot("", "/proc/"), testing::ExitedWithCode(0), "");
}

// An agent in a container may have file capabilities, and the host's /proc elsewhere.
TEST_F(ProcfsRoot, IsTheVariablesValueInAProgramWithMoreRightsThanItsStarterToo) {
  if (test_support::HasGainedRights()) {
    EXPECT_EQ(GetProcfsRoot(), "/tmp/");
    return;
  }
  SKIP_IF(test_support::MissingRight(CAP_SETGID, "to change the group"));
  test_support::RunAgainWithGainedRights("VORN_HOST_PROCFS", "/tmp");
}

}  // namespace
}  // namespace qor::procfs
