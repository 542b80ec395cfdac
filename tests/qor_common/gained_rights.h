// Tests of what a program does that has more rights than whoever started it.
#pragma once

#include <gtest/gtest.h>
#include <sys/auxv.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace test_support {

// This process began with rights that its starter lacks (AT_SECURE, getauxval(3)).
inline bool HasGainedRights() {
  return ::getauxval(AT_SECURE) != 0;
}

// Runs the current test in a new process that has gained rights, with `name` set to `value` in its
// environment: the kernel takes a program for one that is set-group-id when its group isn't that of its
// starter. Needs CAP_SETGID.
inline void RunAgainWithGainedRights(const char* name, const char* value) {
  constexpr const char* kMark = "PM_TEST_GAINED_RIGHTS";
  constexpr gid_t kOther = 65534;
  ASSERT_EQ(std::getenv(kMark), nullptr) << "the new process has not gained any";
  const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::setenv(kMark, "1", 1);
    ::setenv(name, value, 1);
    if (::setresgid(kOther, ::getegid(), ::getegid()) == 0)
      ::execl("/proc/self/exe", "unit_tests", filter.c_str(), nullptr);
    ::_exit(127);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the failed checks stand above: " << status;
}

}  // namespace test_support
