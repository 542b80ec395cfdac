// The language in a locale's name, as in the environment variable LANG.
#pragma once

#include <string>
#include <string_view>

#include "zym/result.h"

namespace qor::tools {

// `text` is "ll_CC" and anything from the first character that has no place in that: "ru_RU.UTF-8",
// "ca_ES@valencia". Sets `language` to the part before the '_', which may be empty ("_US"). Chinese is named
// by its script: "zh-hant" for "zh_TW", "zh-hans" for every other "zh_". ZYM_E_INVALID_ARGUMENT, with
// `language` left alone: a capital before the '_' ("C", "POSIX"), a small letter after it, or no '_' ("en").
// Letters are those of ASCII. Throws only std::bad_alloc.
zym::result_t ParseLanguage(std::string_view text, std::string& language);

}  // namespace qor::tools
