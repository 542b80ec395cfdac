#include "qor_utils/date_to_string_and_viceversa.h"

#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <tuple>

#include "zym/exception.h"

namespace qor {
namespace {

constexpr std::size_t kBufferSize = 4096;

void CheckFormat(std::string_view format) {
  if (format.size() > kMaxDateFormatLength) throw std::invalid_argument("Format specification is too long");
}

// `format` has no NUL in it.
void Append(std::string& text, const std::tm& calendar, std::string_view format) {
  // strftime(3) returns 0 for a text that doesn't fit as well as for one that is empty: one blank more
  // makes the difference.
  const std::string extended = std::string(format) + ' ';
  char buffer[kBufferSize + 1];
  const std::size_t length = std::strftime(buffer, sizeof(buffer), extended.c_str(), &calendar);
  if (length == 0 || text.size() + length > kBufferSize) throw std::invalid_argument("Date is too long");
  text.append(buffer, length - 1);
}

bool IsSameTime(const std::tm& a, const std::tm& b) {
  const auto fields = [](const std::tm& time) {
    return std::tie(time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  };
  return fields(a) == fields(b);
}

}  // namespace

std::string DateToString(zym::datetime_t time, std::string_view format) {
  CheckFormat(format);
  const std::timespec unixTime = zym::datetime::ToUnix(time);
  std::tm calendar{};
  if (::gmtime_r(&unixTime.tv_sec, &calendar) == nullptr)
    throw zym::datetime::TimeSystemError(__FILE__, __LINE__, errno, "Invalid date");
  std::string text;
  for (;;) {
    const std::size_t nul = format.find('\0');  // which ends a format for strftime(3)
    Append(text, calendar, format.substr(0, nul));
    if (nul == std::string_view::npos) return text;
    text += '\0';
    format.remove_prefix(nul + 1);
  }
}

zym::datetime_t StringToDate(std::string_view text, std::string_view format) {
  CheckFormat(format);
  const std::string terminated(text);
  std::tm calendar{};
  calendar.tm_mday = 1;
  calendar.tm_year = 70;
  const char* const end = ::strptime(terminated.c_str(), std::string(format).c_str(), &calendar);
  const bool whole = end == terminated.c_str() + terminated.size() && format.find('\0') == format.npos;
  // timegm(3) makes 1 March of 30 February.
  std::tm real = calendar;
  const std::time_t seconds = ::timegm(&real);
  if (!whole || !IsSameTime(calendar, real)) throw std::invalid_argument("Date doesn't match its format");
  return zym::datetime::FromUnixSeconds(seconds);
}

}  // namespace qor
