#include "host/services/app_settings.h"

#include <gtest/gtest.h>

namespace {

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
