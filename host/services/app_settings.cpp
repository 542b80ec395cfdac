#include "host/services/app_settings.h"

#include <new>
#include <utility>

namespace pmhost {
namespace {

zym::result_t Copy(const qor::AppSettings& from, qor::AppSettings& to) try {
  to = from;
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

}  // namespace

AppSettingsProvider::AppSettingsProvider(qor::AppSettings settings) : m_settings(std::move(settings)) {}

zym::result_t AppSettingsProvider::GetDefaultSettings(qor::AppSettings& settings) {
  return Copy({}, settings);
}

zym::result_t AppSettingsProvider::GetSettings(qor::AppSettings& settings) {
  return Copy(m_settings, settings);
}

}  // namespace pmhost
