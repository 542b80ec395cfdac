#include "host/output/time_text.h"

#include <ctime>

namespace pmhost {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int kFractionDigits = 9;

std::int64_t Read(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

}  // namespace

TimeText::TimeText() : m_offset(Read(CLOCK_REALTIME) - Read(CLOCK_MONOTONIC)) {}

std::string_view TimeText::FromMonotonic(std::uint64_t nanoseconds) {
  return FromUnix(static_cast<std::int64_t>(nanoseconds) + m_offset, kNanosecondsPerSecond);
}

std::string_view TimeText::FromDatetime(zym::datetime_t time) {
  return FromUnix(time - zym::datetime::kUnixEpoch, zym::datetime::kUnitsPerSecond);
}

// `time` in so many units a second, since 1970.
std::string_view TimeText::FromUnix(std::int64_t time, std::int64_t unitsPerSecond) {
  std::int64_t seconds = time / unitsPerSecond;
  std::int64_t fraction = time % unitsPerSecond * (kNanosecondsPerSecond / unitsPerSecond);
  if (fraction < 0) {  // before 1970
    fraction += kNanosecondsPerSecond;
    --seconds;
  }
  if (seconds != m_second || m_secondLength == 0) SetSecond(seconds);

  char* const digits = m_text + m_secondLength;
  for (int i = kFractionDigits; i > 0; --i, fraction /= 10)
    digits[i - 1] = static_cast<char>('0' + fraction % 10);
  digits[kFractionDigits] = 'Z';
  return {m_text, m_secondLength + kFractionDigits + 1};
}

void TimeText::SetSecond(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  m_second = seconds;
  m_secondLength = std::strftime(m_text, sizeof(m_text) - kFractionDigits - 1, "%Y-%m-%dT%H:%M:%S.", &parts);
}

}  // namespace pmhost
