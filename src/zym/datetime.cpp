#include "zym/datetime.h"

#include <cerrno>
#include <limits>

#include "zym/exception.h"

namespace zym::datetime {

datetime_t FromUnixSeconds(std::int64_t seconds) {
  constexpr std::int64_t kLargest = (std::numeric_limits<datetime_t>::max() - kUnixEpoch) / kUnitsPerSecond;
  constexpr std::int64_t kSmallest = -kUnixEpoch / kUnitsPerSecond;  // the year 1601
  if (seconds < kSmallest || seconds > kLargest)
    throw TimeSystemError(__FILE__, __LINE__, EOVERFLOW,
                          "Invalid timestamp: epoch " + std::to_string(seconds));
  return seconds * kUnitsPerSecond + kUnixEpoch;
}

std::timespec ToUnix(datetime_t time) {
  // Below this the subtraction of the epoch would leave the range of the type.
  if (time < -kUnixEpoch)
    throw TimeSystemError(__FILE__, __LINE__, EOVERFLOW,
                          "Invalid utc timestamp for posix platform " + std::to_string(time));
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
