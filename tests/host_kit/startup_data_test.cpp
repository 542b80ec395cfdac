#include "host_kit/startup_data.h"

#include <gtest/gtest.h>

#include <string>

#include "support/lang.h"

namespace {

// What the startup data of a host say that was started with this LANG.
std::u16string LocalizationWith(const char* lang) {
  const test_support::Lang own(lang);
  const auto provider = zym::CreateObject<host_kit::StartupDataProvider>();
  const zym::types::string16_t& localization = provider->GetStartupData()->localization;
  return {localization.begin(), localization.end()};
}

TEST(StartupData, TheLocalizationIsThatOfTheHostsOwnLang) {
  EXPECT_EQ(LocalizationWith("ru_RU.UTF-8"), u"ru");
  EXPECT_EQ(LocalizationWith("zh_TW.UTF-8"), u"zh-hant");
}

TEST(StartupData, WithoutALanguageTheLocalizationIsEnglish) {
  for (const char* lang : {"", "C.UTF-8", "POSIX", "de", "_DE"})
    EXPECT_EQ(LocalizationWith(lang), u"en") << lang;
  EXPECT_EQ(LocalizationWith(nullptr), u"en");
}

TEST(StartupData, WhatTheHostKnowsBetterTakesThePlaceOfWhatIsRead) {
  const auto provider =
      zym::CreateObject<host_kit::StartupDataProvider>(qor::StartupData{.startedByWatchdog = 1});
  EXPECT_EQ(provider->GetStartupData()->startedByWatchdog, 1);
}

}  // namespace
