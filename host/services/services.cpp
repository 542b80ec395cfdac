#include "host/services/services.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "qor_common/language.h"
#include "qor_common/unique_fd.h"

namespace pmhost {
namespace {

bool IsFanotifyAvailable() {
  return static_cast<bool>(
      qor::UniqueFd(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC)));
}

zym::types::string16_t OwnLanguage() {
  const char* const lang = std::getenv("LANG");
  std::string language;
  if (lang == nullptr || !ZYM_SUCCEEDED(qor::tools::ParseLanguage(lang, language)) || language.empty())
    return u"en";
  return {language.begin(), language.end()};  // ASCII
}

zym::result_t Copy(const qor::AppSettings& from, qor::AppSettings& to) try {
  to = from;
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

}  // namespace

StartupDataProvider::StartupDataProvider()
    : m_data{.fanotifyAvailable = IsFanotifyAvailable(), .localization = OwnLanguage()} {}

zym::result_t AppSettingsProvider::GetDefaultSettings(qor::AppSettings& settings) {
  return Copy({}, settings);
}

zym::result_t AppSettingsProvider::GetSettings(qor::AppSettings& settings) {
  return Copy(m_settings, settings);
}

zym::result_t ScanStatistics::RegisterScannedProcessFilePath(zym::types::string16_t&& path) try {
  const std::scoped_lock lock(m_mutex);
  m_paths.insert(std::move(path));
  return zym::ZYM_OK;
} catch (const std::bad_alloc&) {
  return zym::ZYM_E_OUT_OF_MEMORY;
}

zym::result_t FeatureLookup::GetBoolean(const char* name, bool* value) {
  const auto found = m_switches.find(name);
  if (found == m_switches.end()) return zym::ZYM_E_NOT_FOUND;
  *value = found->second;
  return zym::ZYM_OK;
}

zym::result_t ProductValues::GetValue(std::uint32_t key, std::uint32_t* value) {
  if (key != kExploitPreventionActive) return zym::ZYM_E_NOT_FOUND;
  *value = 0;
  return zym::ZYM_OK;
}

}  // namespace pmhost
