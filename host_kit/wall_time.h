// The times of events and records as wall clock time.
#pragma once

#include <chrono>
#include <cstdint>

#include "zym/datetime.h"

namespace host_kit {

// UTC, since 1970, in nanoseconds.
using WallTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// Of nanoseconds of CLOCK_MONOTONIC, which the kernel stamps its events with. The distance of the two clocks
// is measured anew when the last measurement is a second old: equal timestamps within a second become equal
// times, and a clock that is set, or a machine that slept, is followed within a second. Any thread.
WallTime WallTimeOfMonotonic(std::uint64_t nanoseconds);

// Of a time of a record: 100-nanosecond units since 1601. Times outside of the years 1678 to 2261, which
// nanoseconds cannot hold, become the nearest that they can.
WallTime WallTimeOfDatetime(zym::datetime_t time);

}  // namespace host_kit
