#include "host/output/time_text.h"

#include <cstdio>
#include <ctime>

namespace pmhost {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::int64_t Read(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

}  // namespace

TimeText::TimeText() : m_offset(Read(CLOCK_REALTIME) - Read(CLOCK_MONOTONIC)) {}

std::string TimeText::FromMonotonic(std::uint64_t nanoseconds) const {
  return FromUnix(static_cast<std::int64_t>(nanoseconds) + m_offset);
}

std::string TimeText::FromDatetime(zym::datetime_t time) const {
  return FromUnix((time - zym::datetime::kUnixEpoch) * 100);
}

std::string TimeText::FromUnix(std::int64_t unixTime) {
  const std::time_t seconds = unixTime / kNanosecondsPerSecond;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[48];
  const std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof(text) - length, ".%09lldZ",
                static_cast<long long>(unixTime % kNanosecondsPerSecond));
  return text;
}

}  // namespace pmhost
