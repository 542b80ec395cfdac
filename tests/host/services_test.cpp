// The small services of the host that need no module to be asked.
#include "host/services/services.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

// What the host's startup data say when it was started with this LANG.
std::u16string LocalizationWith(const char* lang) {
  std::optional<std::string> old;
  if (const char* const value = std::getenv("LANG")) old = value;
  if (lang != nullptr)
    ::setenv("LANG", lang, 1);
  else
    ::unsetenv("LANG");
  const auto provider = zym::CreateObject<pmhost::StartupDataProvider>();
  if (old)
    ::setenv("LANG", old->c_str(), 1);
  else
    ::unsetenv("LANG");
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

TEST(AppSettings, TheListOfExcludedProcessesIsWhatTheHostWasTold) {
  qor::AppSettings told;
  told.excludedProcesses = {"/usr/sbin/*", "sshd"};
  const auto provider = zym::CreateObject<pmhost::AppSettingsProvider>(told);
  qor::AppSettings settings;
  EXPECT_EQ(provider->GetSettings(settings), zym::ZYM_OK);
  EXPECT_EQ(settings.excludedProcesses, told.excludedProcesses);
  EXPECT_EQ(settings.exclusionPaths, qor::AppSettings().exclusionPaths);
  EXPECT_FALSE(settings.systemEventsTransmission);
}

TEST(AppSettings, TheDefaultsExcludeNoProcess) {
  qor::AppSettings told;
  told.excludedProcesses = {"sshd"};
  told.exclusionPaths.clear();
  told.systemEventsTransmission = true;
  const auto provider = zym::CreateObject<pmhost::AppSettingsProvider>(told);
  qor::AppSettings settings = told;
  EXPECT_EQ(provider->GetDefaultSettings(settings), zym::ZYM_OK);
  EXPECT_TRUE(settings.excludedProcesses.empty());
  EXPECT_FALSE(settings.systemEventsTransmission);
  ASSERT_FALSE(settings.exclusionPaths.empty());
  EXPECT_EQ(settings.exclusionPaths.front(), "/var/log/quelmarin/vorn/");
}

}  // namespace
