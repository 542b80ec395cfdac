#include "host_kit/wall_time.h"

#include <algorithm>
#include <ctime>
#include <mutex>

namespace host_kit {
namespace {

using std::chrono::nanoseconds;

nanoseconds Read(clockid_t clock) {
  std::timespec time{};
  ::clock_gettime(clock, &time);
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

// What is to be added to the monotonic clock.
class ClockDistance {
 public:
  nanoseconds Get() {
    constexpr std::chrono::seconds kMaxAge{1};
    const std::scoped_lock lock(m_mutex);
    const nanoseconds now = Read(CLOCK_MONOTONIC);
    if (!m_measured || now - m_when >= kMaxAge) {
      m_distance = Read(CLOCK_REALTIME) - now;
      m_when = now;
      m_measured = true;
    }
    return m_distance;
  }

 private:
  std::mutex m_mutex;  // guards all below
  bool m_measured = false;
  nanoseconds m_when{};
  nanoseconds m_distance{};
};

}  // namespace

WallTime WallTimeOfMonotonic(std::uint64_t nanosecondsSinceBoot) {
  static ClockDistance distance;
  return WallTime(nanoseconds(nanosecondsSinceBoot) + distance.Get());
}

WallTime WallTimeOfDatetime(zym::datetime_t time) {
  using Units = std::chrono::duration<std::int64_t, std::ratio<1, zym::datetime::kUnitsPerSecond>>;
  constexpr auto kFirst = std::chrono::ceil<Units>(nanoseconds::min());
  constexpr auto kLast = std::chrono::floor<Units>(nanoseconds::max());
  // From the year 1601 on the difference fits.
  const Units sinceUnixEpoch(std::max(time, std::int64_t{0}) - zym::datetime::kUnixEpoch);
  return WallTime(std::clamp(sinceUnixEpoch, kFirst, kLast));
}

}  // namespace host_kit
