#include "host/output/shown_text.h"

#include <clocale>
#include <cstdio>
#include <cwchar>

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

// wcwidth(3) knows the characters of the locale of its thread. The program stays in "C", where patterns
// compare bytes: the locale is another one as long as this lives.
class WideCharacters {
 public:
  WideCharacters() : m_old(::uselocale(Utf8())) {}
  ~WideCharacters() { ::uselocale(m_old); }
  WideCharacters(const WideCharacters&) = delete;
  WideCharacters& operator=(const WideCharacters&) = delete;

  // The columns of the first character, which is dropped.
  std::size_t TakeWidth(std::string_view& utf8) const {
    if (static_cast<unsigned char>(utf8.front()) < 0x80) {
      utf8.remove_prefix(1);
      return 1;
    }
    const int width = ::wcwidth(static_cast<wchar_t>(zym::TakeCodePoint(utf8).value_or(U'\uFFFD')));
    return width < 0 ? 1 : static_cast<std::size_t>(width);  // a terminal shows a mark
  }

 private:
  // Where the C library lacks it every character counts for one column.
  static locale_t Utf8() {
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
  }

  const locale_t m_old;
};

}  // namespace

void AppendShown(std::string& out, std::u16string_view text) {
  AppendPoints(out, text);
}

void AppendShown(std::string& out, std::string_view utf8) {
  AppendPoints(out, utf8);
}

std::size_t DisplayWidth(std::string_view utf8) {
  const WideCharacters wide;
  std::size_t width = 0;
  while (!utf8.empty()) width += wide.TakeWidth(utf8);
  return width;
}

void CutToWidth(std::string& line, std::size_t width) {
  if (width == 0 || line.size() <= width) return;  // no character takes more columns than bytes
  const WideCharacters wide;
  std::size_t columns = 0;
  for (std::string_view rest = line; !rest.empty();) {
    const std::size_t begin = line.size() - rest.size();
    columns += wide.TakeWidth(rest);
    if (columns > width) return line.resize(begin);
  }
}

}  // namespace pmhost
