#include "qor_utils/date_to_string_and_viceversa.h"

#include <cerrno>
#include <ctime>
#include <stdexcept>

#include "zym/exception.h"

namespace qor {
namespace {

constexpr std::size_t kBufferSize = 4096;

std::string CheckedFormat(std::string_view format) {
  if (format.size() > kMaxDateFormatLength) throw std::invalid_argument("Format specification is too long");
  return std::string(format);
}

}  // namespace

std::string DateToString(zym::datetime_t time, std::string_view format) {
  // strftime(3) gives 0 for a text that doesn't fit as well as for one that is empty: one blank more tells
  // them apart.
  const std::string extended = CheckedFormat(format) + ' ';
  const std::timespec unixTime = zym::datetime::ToUnix(time);
  std::tm calendar{};
  if (::gmtime_r(&unixTime.tv_sec, &calendar) == nullptr)
    throw zym::datetime::TimeSystemError(__FILE__, __LINE__, errno, "Invalid date");
  char buffer[kBufferSize + 1];
  const std::size_t length = std::strftime(buffer, sizeof(buffer), extended.c_str(), &calendar);
  if (length == 0) throw std::invalid_argument("Date is too long");
  return {buffer, length - 1};
}

zym::datetime_t StringToDate(std::string_view text, std::string_view format) {
  const std::string terminated(text);
  std::tm calendar{};
  calendar.tm_mday = 1;
  calendar.tm_year = 70;
  const char* const end = ::strptime(terminated.c_str(), CheckedFormat(format).c_str(), &calendar);
  if (end == nullptr || end != terminated.c_str() + terminated.size())
    throw std::invalid_argument("Date doesn't match its format");
  return zym::datetime::FromUnixSeconds(::timegm(&calendar));
}

}  // namespace qor
