// Values of events in their two forms: whatever a value holds, it can be told from its field and read back.
#include "qor_utils/key_value_text.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

// The opposite of the escaping, for both forms.
std::string Unescape(std::string_view text) {
  constexpr std::string_view kEscapes = "bfnrtave\"\\=";
  constexpr std::string_view kMeanings = "\b\f\n\r\t\a\v\x1b\"\\=";
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      result.push_back(text[i]);
      continue;
    }
    Require(++i < text.size());
    const std::size_t at = kEscapes.find(text[i]);
    Require(at != std::string_view::npos);
    result.push_back(kMeanings[at]);
  }
  return result;
}

// `text` without `prefix` and `suffix`, which it must have.
std::string_view Between(std::string_view text, std::string_view prefix, std::string_view suffix) {
  Require(text.size() >= prefix.size() + suffix.size() && text.starts_with(prefix) && text.ends_with(suffix));
  return text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const qor::ValueLimits limits{.longest = data[0], .head = data[1], .tail = data[2]};
  const std::string_view value(reinterpret_cast<const char*>(data) + 3, size - 3);
  const qor::NamedField fields[] = {{"k", zym::types::variant_t(zym::types::string_t(value))}};

  const std::string plain = qor::ToPlainText(fields);
  Require(plain.find_first_of("\n\r") == std::string::npos);
  Require(Unescape(Between(plain, "k=", "")) == value);

  const std::string whole = qor::ToQuotedText(fields, {.longest = size, .head = 0, .tail = 0});
  Require(Unescape(Between(whole, "\"k\": \"", "\"")) == value);

  const std::string cut = qor::ToQuotedText(fields, limits);
  if (value.size() <= limits.longest) {
    Require(cut == whole);
  } else if (cut != whole) {
    // The value may hold the mark's own words: the head is what stands before the first one that fits the
    // sizes.
    const std::string inner(Between(cut, "\"k\": \"", "\""));
    bool fits = false;
    for (std::size_t mark = inner.find("...<Cut out "); mark != std::string::npos && !fits;
         mark = inner.find("...<Cut out ", mark + 1)) {
      const char* const number = inner.c_str() + mark + 12;
      char* end = nullptr;
      const std::size_t count = std::strtoull(number, &end, 10);
      const std::string_view behind(end);
      if (end == number || !behind.starts_with(" bytes>...")) continue;
      const std::string_view rest =
          std::string_view(inner).substr(static_cast<std::size_t>(end - inner.c_str()) + 10);
      if (mark > 0 && inner[mark - 1] == '\\' && (mark < 2 || inner[mark - 2] != '\\')) continue;
      const std::string head = Unescape(std::string_view(inner).substr(0, mark));
      const std::string tail = Unescape(rest);
      fits = head.size() <= limits.head && tail.size() <= limits.tail &&
             head.size() + count + tail.size() == value.size() && value.starts_with(head) &&
             value.ends_with(tail);
    }
    Require(fits);
  }

  // As UTF-16 it may be no text at all.
  std::u16string wide((size - 3) / 2, u'\0');
  for (std::size_t i = 0; i < wide.size(); ++i)
    wide[i] = static_cast<char16_t>(data[3 + 2 * i] | data[4 + 2 * i] << 8);
  const qor::NamedField wideFields[] = {
      {"k", zym::types::variant_t(zym::types::string16_t(wide.begin(), wide.end()))}};
  Require(!qor::ToPlainText(wideFields).empty());
  return 0;
}
