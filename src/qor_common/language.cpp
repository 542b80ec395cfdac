#include "qor_common/language.h"

#include <cstddef>

namespace qor::tools {
namespace {

bool IsSmall(char c) {
  return c >= 'a' && c <= 'z';
}

bool IsCapital(char c) {
  return c >= 'A' && c <= 'Z';
}

}  // namespace

zym::result_t ParseLanguage(std::string_view text, std::string& language) {
  constexpr std::size_t kNone = std::string_view::npos;
  std::size_t underscore = kNone;
  std::size_t end = 0;
  for (; end != text.size(); ++end) {
    const char c = text[end];
    if (c == '_' && underscore == kNone) {
      underscore = end;
    } else if (IsSmall(c) || IsCapital(c)) {
      if (IsCapital(c) != (underscore != kNone)) return zym::ZYM_E_INVALID_ARGUMENT;
    } else {
      break;  // a second '_' too: "en_US_POSIX" is English
    }
  }
  if (underscore == kNone) return zym::ZYM_E_INVALID_ARGUMENT;

  const std::string_view locale = text.substr(0, end);
  const std::string_view name = text.substr(0, underscore);
  if (locale == "zh_TW")
    language = "zh-hant";
  else if (name == "zh")
    language = "zh-hans";  // "zh_HK" too: that is meant
  else
    language = name;
  return zym::ZYM_OK;
}

}  // namespace qor::tools
