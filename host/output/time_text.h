// Times as text.
#pragma once

#include <cstdint>
#include <string>

#include "zym/datetime.h"

namespace pmhost {

// Turns nanoseconds of CLOCK_MONOTONIC, which events carry, into RFC 3339 in UTC with nanoseconds. The
// distance of the two clocks is measured at construction.
class TimeText {
 public:
  TimeText();

  [[nodiscard]] std::string FromMonotonic(std::uint64_t nanoseconds) const;
  // A time of a record, in 100-nanosecond units since 1601.
  [[nodiscard]] std::string FromDatetime(zym::datetime_t time) const;

 private:
  static std::string FromUnix(std::int64_t nanoseconds);

  std::int64_t m_offset;  // nanoseconds from the monotonic clock to the Unix time
};

}  // namespace pmhost
