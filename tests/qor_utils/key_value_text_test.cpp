#include "qor_utils/key_value_text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "qor_utils/variant_to_string.h"

namespace qor {
namespace {

using zym::types::string16_t;
using zym::types::string_t;
using zym::types::variant_t;

variant_t Text(std::string_view text) {
  return variant_t(string_t(text));
}

std::vector<NamedField> One(std::string_view text) {
  return {{"k", Text(text)}};
}

const char16_t kLoneSurrogate[] = {0xd800, 0};

TEST(VariantToString, WritesEachKindOfValue) {
  EXPECT_EQ(VariantToString(variant_t(true)), "true");
  EXPECT_EQ(VariantToString(variant_t(false)), "false");
  EXPECT_EQ(VariantToString(variant_t(std::int32_t{-5})), "-5");
  EXPECT_EQ(VariantToString(variant_t(std::uint32_t{4294967295U})), "4294967295");
  EXPECT_EQ(VariantToString(variant_t(std::int64_t{INT64_MIN})), "-9223372036854775808");
  EXPECT_EQ(VariantToString(variant_t(std::uint64_t{UINT64_MAX})), "18446744073709551615");
  EXPECT_EQ(VariantToString(variant_t(0.5)), "0.5");
  EXPECT_EQ(VariantToString(Text("a\nb")), "a\nb");
  EXPECT_EQ(VariantToString(variant_t(string16_t(u"\u00e4\U0001f600"))), "\xc3\xa4\xf0\x9f\x98\x80");
}

std::string What(const variant_t& value) {
  try {
    return "no exception: " + VariantToString(value);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(VariantToString, ThrowsForAValueWithoutAText) {
  for (const variant_t& value : {variant_t(), variant_t(zym::objptr_t<zym::IObject>()),
                                 variant_t(zym::types::buffer_t{1}), variant_t(variant_t::vector_type(1))})
    EXPECT_EQ(What(value), "Unknown type in VariantToString") << value.GetTag();
  EXPECT_EQ(What(variant_t(string16_t(kLoneSurrogate))), "Invalid UTF-16 in VariantToString");
}

// --- plain form ---

TEST(PlainText, IsOneLineForEachField) {
  const std::vector<NamedField> fields = {{"name", Text("value")}, {"pid", variant_t(std::uint32_t{7})}};
  EXPECT_EQ(ToPlainText(fields), "name=value\npid=7");
  EXPECT_EQ(ToPlainText({}), "");
}

TEST(PlainText, EscapesWhatWouldEndAValue) {
  EXPECT_EQ(ToPlainText(One("a\nb\rc=d\\e")), "k=a\\nb\\rc\\=d\\\\e");
}

TEST(PlainText, WritesOtherControlCharactersByTheirLetters) {
  EXPECT_EQ(ToPlainText(One("\a\v\x1b")), "k=\\a\\v\\e");
}

TEST(PlainText, LetsTheRestThrough) {
  const std::string rest = "\t\b\f\x01\x7f\"'%1% \xc3\xa4\xff";
  EXPECT_EQ(ToPlainText(One(rest)), "k=" + rest);
  EXPECT_EQ(ToPlainText(One(std::string_view("a\0b", 3))), std::string("k=a\0b", 5));
}

TEST(PlainText, AValueThatCantBeReadIsCorrupted) {
  const std::vector<NamedField> fields = {
      {"a", variant_t()}, {"b", variant_t(string16_t(kLoneSurrogate))}, {"c", Text("fine")}};
  EXPECT_EQ(ToPlainText(fields), "a=<CORRUPTED>\nb=<CORRUPTED>\nc=fine");
}

// --- quoted form ---

TEST(QuotedText, IsOnePairForEachField) {
  const std::vector<NamedField> fields = {{"name", Text("value")}, {"pid", variant_t(std::uint32_t{7})}};
  EXPECT_EQ(ToQuotedText(fields), "\"name\": \"value\", \"pid\": \"7\"");
  EXPECT_EQ(ToQuotedText({}), "");
}

TEST(QuotedText, EscapesItsOwnCharacters) {
  EXPECT_EQ(ToQuotedText(One("\b\f\n\r\t\"\\")), "\"k\": \"\\b\\f\\n\\r\\t\\\"\\\\\"");
  EXPECT_EQ(ToQuotedText(One("\a\v\x1b")), "\"k\": \"\\a\\v\\e\"");
  EXPECT_EQ(ToQuotedText(One("a=b %1% \x01")), "\"k\": \"a=b %1% \x01\"");
}

TEST(QuotedText, AValueThatCantBeReadIsCorrupted) {
  const std::vector<NamedField> fields = {{"a", variant_t()}};
  EXPECT_EQ(ToQuotedText(fields), "\"a\": \"<CORRUPTED>\"");
}

TEST(QuotedText, AValueTooLongIsShownByItsHeadAndItsTail) {
  const ValueLimits limits{.longest = 10, .head = 3, .tail = 2};
  EXPECT_EQ(ToQuotedText(One("0123456789"), limits), "\"k\": \"0123456789\"") << "just fits";
  EXPECT_EQ(ToQuotedText(One("0123456789a"), limits), "\"k\": \"012...<Cut out 6 bytes>...9a\"");
}

TEST(QuotedText, HeadAndTailAreEscapedAfterTheCut) {
  const ValueLimits limits{.longest = 4, .head = 2, .tail = 2};
  EXPECT_EQ(ToQuotedText(One("\n\nxxxx\"\""), limits), "\"k\": \"\\n\\n...<Cut out 4 bytes>...\\\"\\\"\"");
}

TEST(QuotedText, NeverCutsACharacterInTwo) {
  const ValueLimits limits{.longest = 4, .head = 2, .tail = 2};
  // Three-byte characters: neither side has room for one.
  EXPECT_EQ(ToQuotedText(One("\xe2\x82\xac\xe2\x82\xac"), limits), "\"k\": \"...<Cut out 6 bytes>...\"");
  EXPECT_EQ(ToQuotedText(One("a\xc3\xa4xx\xc3\xa4z"), limits), "\"k\": \"a...<Cut out 6 bytes>...z\"");
}

TEST(QuotedText, HeadAndTailThatCoverTheValueCutNothing) {
  EXPECT_EQ(ToQuotedText(One("0123456789"), {.longest = 2, .head = 5, .tail = 5}), "\"k\": \"0123456789\"");
  EXPECT_EQ(ToQuotedText(One("0123456789"), {.longest = 2, .head = 50, .tail = 0}), "\"k\": \"0123456789\"");
  EXPECT_EQ(ToQuotedText(One("0123456789"), {.longest = 2, .head = 0, .tail = 0}),
            "\"k\": \"...<Cut out 10 bytes>...\"");
}

TEST(QuotedText, TheDefaultLimitShowsHeadAndTailOfAKibibyte) {
  EXPECT_EQ(ToQuotedText(One(std::string(4096, 'x'))).size(), 4096 + std::string("\"k\": \"\"").size());
  EXPECT_EQ(
      ToQuotedText(One(std::string(5000, 'x'))),
      "\"k\": \"" + std::string(1024, 'x') + "...<Cut out 2952 bytes>..." + std::string(1024, 'x') + "\"");
}

}  // namespace
}  // namespace qor
