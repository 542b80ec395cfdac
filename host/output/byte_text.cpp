#include "host/output/byte_text.h"

#include "zym/utf.h"

namespace pmhost {
namespace {

constexpr char32_t kFirstOfTwo = 0x10000;  // from here on a code point takes two units

void Append(zym::types::string16_t& text, char32_t point) {
  if (point < kFirstOfTwo) {
    text += static_cast<char16_t>(point);
    return;
  }
  const char32_t rest = point - kFirstOfTwo;
  text += static_cast<char16_t>(0xd800 + (rest >> 10));
  text += static_cast<char16_t>(0xdc00 + (rest & 0x3ff));
}

}  // namespace

zym::types::string16_t DecodeBytes(std::string_view bytes) {
  zym::types::string16_t text;
  while (!bytes.empty()) {
    const auto first = static_cast<unsigned char>(bytes.front());
    const std::optional<char32_t> point = zym::TakeCodePoint(bytes);
    Append(text, point.value_or(0xdc00U + first));
  }
  return text;
}

}  // namespace pmhost
