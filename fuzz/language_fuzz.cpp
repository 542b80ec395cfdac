// The reader of LANG, with any bytes, beside another way to the same answer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "qor_common/language.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

// Whether `text` has a language, and which.
bool Expected(std::string_view text, std::string& language) {
  const std::size_t small = std::min(text.find_first_not_of("abcdefghijklmnopqrstuvwxyz"), text.size());
  if (small == text.size() || text[small] != '_') return false;
  const std::string_view rest = text.substr(small + 1);
  const std::size_t capitals = std::min(rest.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), rest.size());
  if (capitals != rest.size() && rest[capitals] >= 'a' && rest[capitals] <= 'z') return false;
  language = text.substr(0, small);
  if (language == "zh") language = rest.substr(0, capitals) == "TW" ? "zh-hant" : "zh-hans";
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string language = "untouched";
  std::string expected = "untouched";
  const zym::result_t result = qor::tools::ParseLanguage(text, language);
  Require(result == (Expected(text, expected) ? zym::ZYM_OK : zym::ZYM_E_INVALID_ARGUMENT));
  Require(language == expected);
  return 0;
}
