// Times as text.
#include "host/output/time_text.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace pmhost {
namespace {

constexpr zym::datetime_t kSecond = zym::datetime::kUnitsPerSecond;
constexpr zym::datetime_t k1970 = zym::datetime::kUnixEpoch;

TEST(TimeText, ATimeOfARecordHasNanoseconds) {
  TimeText time;
  EXPECT_EQ(time.FromDatetime(k1970), "1970-01-01T00:00:00.000000000Z");
  EXPECT_EQ(time.FromDatetime(k1970 + 1), "1970-01-01T00:00:00.000000100Z");
  EXPECT_EQ(time.FromDatetime(k1970 + 1'700'000'000 * kSecond + 1'234'567), "2023-11-14T22:13:20.123456700Z");
}

TEST(TimeText, TimesBefore1970CountUpwardsToo) {
  TimeText time;
  EXPECT_EQ(time.FromDatetime(k1970 - 1), "1969-12-31T23:59:59.999999900Z");
  EXPECT_EQ(time.FromDatetime(0), "1601-01-01T00:00:00.000000000Z");
}

TEST(TimeText, ASecondThatIsKeptIsNotThatOfAnother) {
  TimeText time;
  for (const int repeated : {0, 1}) {
    EXPECT_EQ(time.FromDatetime(k1970 + kSecond - 1), "1970-01-01T00:00:00.999999900Z") << repeated;
    EXPECT_EQ(time.FromDatetime(k1970 + kSecond), "1970-01-01T00:00:01.000000000Z") << repeated;
    EXPECT_EQ(time.FromDatetime(k1970 + kSecond + 5), "1970-01-01T00:00:01.000000500Z") << repeated;
  }
}

TEST(TimeText, ATimeOfTheMonotonicClockIsTheTimeOfTheDay) {
  TimeText time;
  timespec monotonic{};
  const std::time_t before = std::time(nullptr);
  ::clock_gettime(CLOCK_MONOTONIC, &monotonic);
  const std::time_t after = std::time(nullptr);
  const std::string text(time.FromMonotonic(static_cast<std::uint64_t>(monotonic.tv_sec) * 1'000'000'000 +
                                            static_cast<std::uint64_t>(monotonic.tv_nsec)));
  std::tm parts{};
  ASSERT_NE(::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr) << text;
  const std::time_t told = ::timegm(&parts);
  EXPECT_GE(told, before - 1);  // the clocks are not read at one moment
  EXPECT_LE(told, after + 1);
}

}  // namespace
}  // namespace pmhost
