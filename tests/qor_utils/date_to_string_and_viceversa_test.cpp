#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>

#include "qor_utils/date_to_string_and_viceversa.h"
#include "zym/exception.h"

namespace qor {
namespace {

zym::datetime_t At(std::int64_t unixSeconds) {
  return zym::datetime::FromUnixSeconds(unixSeconds);
}

std::string What(const std::function<void()>& body) {
  try {
    body();
    return "no exception";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

TEST(DateToString, IsYearToSecondInUtc) {
  EXPECT_EQ(DateToString(At(0)), "1970-01-01 00:00:00");
  EXPECT_EQ(DateToString(At(1700000000) + 9999999), "2023-11-14 22:13:20");
  EXPECT_EQ(DateToString(At(-1)), "1969-12-31 23:59:59");
  EXPECT_EQ(DateToString(0), "1601-01-01 00:00:00");
}

TEST(DateToString, TakesAnotherFormat) {
  EXPECT_EQ(DateToString(At(0), "%d.%m.%y"), "01.01.70");
  EXPECT_EQ(DateToString(At(0), ""), "");
  EXPECT_EQ(DateToString(At(0), "100%%"), "100%");
}

TEST(DateToString, KeepsWhatStandsBehindANulInItsFormat) {
  using namespace std::string_view_literals;
  EXPECT_EQ(DateToString(At(0), "%Y\0%m"sv),
            "1970\0"
            "01"sv);
  EXPECT_EQ(DateToString(At(0), "\0cd\0"sv), "\0cd\0"sv);
}

TEST(DateToString, AFormatOf2048CharactersIsTooLong) {
  EXPECT_EQ(DateToString(At(0), std::string(2047, 'x')).size(), 2047U);
  EXPECT_EQ(What([] { DateToString(At(0), std::string(2048, 'x')); }), "Format specification is too long");
  EXPECT_EQ(What([] { StringToDate("", std::string(2048, 'x')); }), "Format specification is too long");
}

TEST(DateToString, ATextBeyondTheBufferThrows) {
  std::string format;
  for (int i = 0; i < 409; ++i) format += "%F";  // ten bytes each
  EXPECT_EQ(DateToString(At(0), format + "12345").size(), 4095U);
  EXPECT_EQ(What([&] { DateToString(At(0), format + "123456"); }), "Date is too long");
}

TEST(DateToString, ATimeThatThePlatformHasNotThrows) {
  EXPECT_THROW(DateToString(-zym::datetime::kUnixEpoch - 1), zym::datetime::TimeSystemError);
  EXPECT_NO_THROW(DateToString(std::numeric_limits<zym::datetime_t>::max()));
}

TEST(StringToDate, IsTheOpposite) {
  for (const std::int64_t seconds : {0LL, 1LL, -1LL, 951782399LL, 951782400LL, 1700000000LL, 4102444800LL})
    EXPECT_EQ(StringToDate(DateToString(At(seconds))), At(seconds)) << seconds;
  EXPECT_EQ(StringToDate("2020", "%Y"), At(1577836800)) << "what isn't told is the first";
}

TEST(StringToDate, RefusesWhatIsNotWhollyInItsFormat) {
  for (const char* const text : {"", "now", "2020-01-01", "2020-01-01 00:00:00 ", "2020-13-01 00:00:00"})
    EXPECT_EQ(What([text] { StringToDate(text); }), "Date doesn't match its format") << text;
}

TEST(StringToDate, RefusesADayThatTheCalendarDoesNotHave) {
  for (const char* const text :
       {"2024-02-30 00:00:00", "2023-02-29 00:00:00", "2024-04-31 00:00:00", "2016-12-31 23:59:60"})
    EXPECT_EQ(What([text] { StringToDate(text); }), "Date doesn't match its format") << text;
  EXPECT_EQ(StringToDate("2024-02-29 00:00:00"), At(1709164800));
}

TEST(StringToDate, RefusesAFormatWithANul) {
  using namespace std::string_view_literals;
  EXPECT_EQ(What([] { StringToDate("2024", "%Y\0%m"sv); }), "Date doesn't match its format");
  EXPECT_EQ(What([] { StringToDate("2024\0"sv, "%Y"); }), "Date doesn't match its format");
}

}  // namespace
}  // namespace qor
