#include "host/output/shown_text.h"

#include <cstdio>

#include "zym/utf.h"

namespace pmhost {
namespace {

template <class C>
void AppendPoints(std::string& out, std::basic_string_view<C> text) {
  while (!text.empty()) {
    const char32_t point = zym::TakeCodePoint(text).value_or(zym::kReplacementCharacter);
    if (point < 0x20 || (point >= 0x7f && point < 0xa0)) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(point));
      out += escape;
    } else {
      char bytes[4];
      out.append(bytes, zym::EncodeUtf8(point, bytes));
    }
  }
}

}  // namespace

void AppendShown(std::string& out, std::u16string_view text) {
  AppendPoints(out, text);
}

void AppendShown(std::string& out, std::string_view utf8) {
  AppendPoints(out, utf8);
}

void CutToWidth(std::string& line, std::size_t width) {
  if (width == 0) return;
  std::size_t characters = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const bool begins = (static_cast<unsigned char>(line[i]) & 0xc0U) != 0x80;
    if (begins && ++characters > width) return line.resize(i);
  }
}

}  // namespace pmhost
