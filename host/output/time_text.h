// Times as text.
#pragma once

#include <cstdint>
#include <string_view>

#include "zym/datetime.h"

namespace pmhost {

// Turns nanoseconds of CLOCK_MONOTONIC, which events carry, into RFC 3339 in UTC with nanoseconds. The
// distance of the two clocks is measured at construction. A text is valid until the next one.
class TimeText {
 public:
  TimeText();

  std::string_view FromMonotonic(std::uint64_t nanoseconds);
  // A time of a record, in 100-nanosecond units since 1601.
  std::string_view FromDatetime(zym::datetime_t time);

 private:
  std::string_view FromUnix(std::int64_t time, std::int64_t unitsPerSecond);
  void SetSecond(std::int64_t seconds);

  std::int64_t m_offset;  // nanoseconds from the monotonic clock to the Unix time

  // Most times that follow each other are of one second: its part of the text stays.
  std::int64_t m_second = 0;
  std::size_t m_secondLength = 0;  // 0: none was made yet
  char m_text[64];
};

}  // namespace pmhost
