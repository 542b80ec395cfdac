// The settings that the command line and the configuration file made.
#pragma once

#include "process_manager/services/app_settings.h"
#include "zym/object.h"

namespace pmhost {

// Fixed at construction. Any thread.
class AppSettingsProvider : public zym::object::Ifaces<qor::IAppSettingsProvider> {
 public:
  explicit AppSettingsProvider(qor::AppSettings settings);

  zym::result_t GetDefaultSettings(qor::AppSettings& settings) override;
  zym::result_t GetSettings(qor::AppSettings& settings) override;

 private:
  const qor::AppSettings m_settings;
};

}  // namespace pmhost
