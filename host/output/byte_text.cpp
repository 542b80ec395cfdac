#include "host/output/byte_text.h"

#include "zym/utf.h"

namespace pmhost {

zym::types::string16_t DecodeBytes(std::string_view bytes) {
  zym::types::string16_t text;
  while (!bytes.empty()) {
    const auto first = static_cast<unsigned char>(bytes.front());
    const std::optional<char32_t> point = zym::TakeCodePoint(bytes);
    char16_t units[2];
    text.append(units, zym::EncodeUtf16(point.value_or(0xdc00U + first), units));
  }
  return text;
}

}  // namespace pmhost
