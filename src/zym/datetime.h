// Times as records and events carry them: 100-nanosecond units since the year 1601, in UTC.
#pragma once

#include <cstdint>
#include <ctime>

namespace zym::datetime {

using datetime_t = std::int64_t;

inline constexpr datetime_t kUnitsPerSecond = 10'000'000;
inline constexpr datetime_t kUnixEpoch = 116'444'736'000'000'000;  // 1970-01-01 in these units

// The time of a Unix time, cut to whole units. Throws TimeSystemError, ZYM_E_INVALID_ARGUMENT: "Invalid
// timestamp: epoch " for a number of seconds that the units can't hold, "Invalid utc timestamp for posix
// platform " for a time before the year 1601.
datetime_t FromUnix(const std::timespec& time);
datetime_t FromUnixSeconds(std::int64_t seconds);

// The Unix time of `time`. Throws TimeSystemError, "Invalid utc timestamp for posix platform ", for a time
// before the range of the platform's clock.
std::timespec ToUnix(datetime_t time);

// The current time of CLOCK_REALTIME.
datetime_t Now() noexcept;

}  // namespace zym::datetime

namespace zym {
using datetime::datetime_t;
}
