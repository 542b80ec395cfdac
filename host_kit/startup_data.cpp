#include "host_kit/startup_data.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "qor_common/language.h"
#include "qor_common/unique_fd.h"

namespace host_kit {
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

}  // namespace

qor::StartupData ReadStartupData() {
  return {.fanotifyAvailable = IsFanotifyAvailable(), .localization = OwnLanguage()};
}

StartupDataProvider::StartupDataProvider(qor::StartupData data) : m_data(std::move(data)) {}

}  // namespace host_kit
