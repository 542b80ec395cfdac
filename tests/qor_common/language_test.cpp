#include "qor_common/language.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using qor::tools::ParseLanguage;
using Language = std::optional<std::string>;

// The language of `text`; nothing if it has none.
Language Parse(std::string_view text) {
  std::string language = "untouched";
  const zym::result_t result = ParseLanguage(text, language);
  if (result == zym::ZYM_OK) return language;
  EXPECT_EQ(static_cast<std::uint32_t>(result), 0x80000046U) << text;
  EXPECT_EQ(language, "untouched") << text;
  return std::nullopt;
}

TEST(ParseLanguage, RussianWithACharacterSetIsRu) {
  EXPECT_EQ(Parse("ru_RU.UTF-8"), "ru");
}

TEST(ParseLanguage, TaiwanIsTraditionalChinese) {
  EXPECT_EQ(Parse("zh_TW.UTF-8"), "zh-hant");
}

TEST(ParseLanguage, MainlandChinaIsSimplifiedChinese) {
  EXPECT_EQ(Parse("zh_CN.GBK"), "zh-hans");
}

TEST(ParseLanguage, AnEmptyTextCAndPosixHaveNone) {
  for (const char* text : {"", "C", "POSIX", "C.UTF-8", "C.utf8"})
    EXPECT_EQ(Parse(text), std::nullopt) << text;
}

TEST(ParseLanguage, ABareLanguageCodeGivesNoLanguage) {
  for (const char* text : {"en", "ru", "zh", "en.UTF-8", "de@euro"})
    EXPECT_EQ(Parse(text), std::nullopt) << text;
}

// Hong Kong and Macau write traditional characters. That they count as simplified is meant: the rule knows
// one locale of the other kind.
TEST(ParseLanguage, EveryChineseButTaiwansIsSimplified) {
  for (const char* text : {"zh_HK.UTF-8", "zh_MO", "zh_SG", "zh_", "zh_TWO", "zh_T", "zh_.UTF-8"})
    EXPECT_EQ(Parse(text), "zh-hans") << text;
  for (const char* text : {"zh_TW", "zh_TW.BIG5", "zh_TW@x", "zh_TW_X", "zh_TW-x"})
    EXPECT_EQ(Parse(text), "zh-hant") << text;
}

TEST(ParseLanguage, ALetterInTheWrongPlaceGivesNone) {
  for (const char* text :
       {"EN_US", "En_US", "eN_US", "en_us", "en_Us", "en_uS", "_us", "P", "enX", "zh_tw", "ZH_TW"})
    EXPECT_EQ(Parse(text), std::nullopt) << text;
}

TEST(ParseLanguage, TheWalkEndsAtTheFirstOtherCharacter) {
  struct Case {
    std::string_view text;
    Language language;
  };
  using namespace std::string_view_literals;
  const std::vector<Case> cases = {
      {"en_US", "en"},
      {"en_GB.ISO-8859-15", "en"},
      {"de_DE@euro", "de"},
      {"ca_ES@valencia", "ca"},
      {"sr_RS@latin", "sr"},
      {"sr_RS.UTF-8@latin", "sr"},
      {"pt_BR.utf8", "pt"},
      {"fil_PH", "fil"},
      {"es_419", "es"},       // a region in digits ends the walk behind the '_'
      {"en_US.utf-8", "en"},  // small letters behind the point are not looked at
      {"en_1us", "en"},       // nor are those behind any other end
      {"en_", "en"},          // no region
      {"en_US_POSIX", "en"},  // the second '_' is an other character
      {"en__us", "en"},       // wherever it stands
      {"_US", ""},            // a language of no letters
      {"_", ""},
      {"en-US", std::nullopt},  // the walk ended before a '_'
      {"e n_US", std::nullopt},
      {" en_US", std::nullopt},
      {"1_US", std::nullopt},
      {".en_US", std::nullopt},
      {"en\0_US"sv, std::nullopt},
      {"en_US\0us"sv, "en"},
      {"\xd1\x80_RU", std::nullopt},  // letters of other alphabets are other characters
      {"en_\xd0\xa0", "en"},
      {"en_US:ru_RU", "en"},
      {"@[`{_", std::nullopt},  // the neighbours of the letters in ASCII
      {"az_AZ", "az"},
  };
  for (const Case& c : cases) EXPECT_EQ(Parse(c.text), c.language) << c.text;
}

TEST(ParseLanguage, AVeryLongTextIsWalkedOnce) {
  const std::string name(1 << 20, 'a');
  EXPECT_EQ(Parse(name + "_" + std::string(1 << 20, 'A')), name);
  EXPECT_EQ(Parse(name), std::nullopt);
}

}  // namespace
