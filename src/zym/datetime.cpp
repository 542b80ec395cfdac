#include "zym/datetime.h"

#include <cerrno>
#include <limits>
#include <string>

#include "zym/exception.h"

namespace zym::datetime {
namespace {

[[noreturn]] void ThrowInvalidUtc(datetime_t time) {
  throw TimeSystemError(__FILE__, __LINE__, EINVAL,
                        "Invalid utc timestamp for posix platform " + std::to_string(time));
}

}  // namespace

datetime_t FromUnix(const std::timespec& time) {
  constexpr std::int64_t kLargest =
      (std::numeric_limits<datetime_t>::max() - kUnixEpoch) / kUnitsPerSecond - 1;
  constexpr std::int64_t kSmallest = std::numeric_limits<datetime_t>::min() / kUnitsPerSecond;
  const std::int64_t seconds = time.tv_sec;
  if (seconds < kSmallest || seconds > kLargest)
    throw TimeSystemError(__FILE__, __LINE__, EINVAL, "Invalid timestamp: epoch " + std::to_string(seconds));
  const datetime_t units = seconds * kUnitsPerSecond + time.tv_nsec / 100;
  if (units < -kUnixEpoch) ThrowInvalidUtc(units);
  return units + kUnixEpoch;
}

datetime_t FromUnixSeconds(std::int64_t seconds) {
  return FromUnix({.tv_sec = seconds, .tv_nsec = 0});
}

std::timespec ToUnix(datetime_t time) {
  // Below this the subtraction of the epoch would leave the range of the type.
  if (time < -kUnixEpoch) ThrowInvalidUtc(time);
  const datetime_t unixTime = time - kUnixEpoch;
  std::int64_t seconds = unixTime / kUnitsPerSecond;
  std::int64_t rest = unixTime % kUnitsPerSecond;
  if (rest < 0) {
    rest += kUnitsPerSecond;
    --seconds;
  }
  return {.tv_sec = seconds, .tv_nsec = rest * 100};
}

datetime_t Now() noexcept {
  std::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kUnitsPerSecond + now.tv_nsec / 100 + kUnixEpoch;
}

}  // namespace zym::datetime
