#include "host_kit/wall_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "support/threads.h"

namespace {

using host_kit::WallTime;
using host_kit::WallTimeOfDatetime;
using host_kit::WallTimeOfMonotonic;
using namespace std::chrono_literals;

std::uint64_t MonotonicNow() {
  std::timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

TEST(WallTime, TheMonotonicNowIsTheWallClocksNow) {
  const auto before = std::chrono::system_clock::now();
  const WallTime time = WallTimeOfMonotonic(MonotonicNow());
  const auto after = std::chrono::system_clock::now();
  constexpr auto kSlack = 100ms;  // the two clocks are read one after the other
  EXPECT_GE(time, before - kSlack);
  EXPECT_LE(time, after + kSlack);
}

// Between two of these calls the distance of the clocks may be measured anew, but not between all of them.
TEST(WallTime, EqualTimestampsAreEqualTimes) {
  const std::uint64_t now = MonotonicNow();
  EXPECT_TRUE(
      test_support::Eventually([now] { return WallTimeOfMonotonic(now) == WallTimeOfMonotonic(now); }));
  EXPECT_TRUE(test_support::Eventually(
      [now] { return WallTimeOfMonotonic(now + 5) - WallTimeOfMonotonic(now) == 5ns; }));
}

TEST(WallTime, ATimeOfARecordCountsFrom1601) {
  EXPECT_EQ(WallTimeOfDatetime(zym::datetime::kUnixEpoch), WallTime());
  EXPECT_EQ(WallTimeOfDatetime(zym::datetime::kUnixEpoch + 1), WallTime(100ns));
  EXPECT_EQ(WallTimeOfDatetime(zym::datetime::kUnixEpoch - zym::datetime::kUnitsPerSecond), WallTime(-1s));
}

TEST(WallTime, ATimeBeyondTheClockIsItsFirstOrItsLast) {
  for (const zym::datetime_t early : {std::numeric_limits<std::int64_t>::min(), std::int64_t{0}}) {
    EXPECT_LE(WallTimeOfDatetime(early) - WallTime::min(), 100ns);
  }
  EXPECT_LE(WallTime::max() - WallTimeOfDatetime(std::numeric_limits<std::int64_t>::max()), 100ns);
}

}  // namespace
