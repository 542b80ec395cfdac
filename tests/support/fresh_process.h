// Tests of what a process decides once and keeps.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

namespace test_support {

// Runs `body` in a fresh copy of the test program, in which no test ran before; its failed checks fail the
// test. What the body makes must be gone when it returns: nothing of the copy is destroyed behind it.
template <class Body>
void InFreshProcess(Body body) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";  // begins the program anew, and doesn't only fork
  EXPECT_EXIT(
      {
        body();
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "")
      << "the failed checks stand above";
}

}  // namespace test_support
