// Times as text, in UTC.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "zym/datetime.h"

namespace qor {

inline constexpr std::string_view kDateFormat = "%Y-%m-%d %H:%M:%S";
inline constexpr std::size_t kMaxDateFormatLength = 2047;

// `time` in the format of strftime(3), which may have a NUL in it, cut to the second. Throws
// std::invalid_argument: "Format specification is too long" for one of more than kMaxDateFormatLength
// characters, "Date is too long" when the text passes 4095 bytes. Throws zym::datetime::TimeSystemError for a
// time that the platform's clock or calendar can't hold.
std::string DateToString(zym::datetime_t time, std::string_view format = kDateFormat);

// The opposite, by strptime(3). Throws std::invalid_argument, "Date doesn't match its format", when `text` is
// not wholly in this format, when the format has a NUL in it, and for a time that the calendar doesn't have,
// such as 30 February or a leap second; and as DateToString does.
zym::datetime_t StringToDate(std::string_view text, std::string_view format = kDateFormat);

}  // namespace qor
