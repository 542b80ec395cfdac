#include "zym/utf.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <typeinfo>
#include <utility>

namespace zym {
namespace {

constexpr bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xd800 && unit < 0xdc00;
}
constexpr bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xdc00 && unit < 0xe000;
}
constexpr bool IsAscii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}

// How many bytes at the front of `text` are ASCII. Nearly every path and command line is ASCII to its end, so
// eight bytes are looked at together.
std::size_t AsciiRun(std::string_view text) {
  std::size_t run = 0;
  for (std::uint64_t word = 0; run + sizeof(word) <= text.size(); run += sizeof(word)) {
    std::memcpy(&word, text.data() + run, sizeof(word));
    if ((word & 0x8080808080808080U) != 0) break;
  }
  while (run < text.size() && IsAscii(text[run])) ++run;
  return run;
}

struct Lead {
  std::size_t length;
  char32_t bits;
  char32_t smallest;  // below it, the sequence is longer than it needs to be
};

constexpr Lead DecodeLead(unsigned char c) {
  if (c < 0x80) return {1, c, 0};
  if (c < 0xc0) return {0, 0, 0};
  if (c < 0xe0) return {2, c & 0x1fU, 0x80};
  if (c < 0xf0) return {3, c & 0x0fU, 0x800};
  if (c < 0xf8) return {4, c & 0x07U, 0x10000};
  return {0, 0, 0};
}

// Null at the first byte that belongs to no code point, unless there is a `replacement` for it.
std::optional<types::string16_t> ToUtf16(std::string_view text, std::optional<char32_t> replacement) {
  // No byte makes more than one unit, so the text fits and is cut to its length at the end.
  types::string16_t result(text.size(), u'\0');
  char16_t* out = result.data();
  while (!text.empty()) {
    const std::size_t run = AsciiRun(text);
    out =
        std::transform(text.data(), text.data() + run, out, [](char c) { return static_cast<char16_t>(c); });
    text.remove_prefix(run);
    if (text.empty()) break;
    std::optional<char32_t> point = TakeCodePoint(text);
    if (!point) point = replacement;
    if (!point) return std::nullopt;
    out += EncodeUtf16(*point, out);
  }
  result.resize(static_cast<std::size_t>(out - result.data()));
  return result;
}

std::optional<std::string> ToUtf8(std::u16string_view text, std::optional<char32_t> replacement) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    std::optional<char32_t> point = TakeCodePoint(text);
    if (!point) point = replacement;
    if (!point) return std::nullopt;
    char bytes[4];
    result.append(bytes, EncodeUtf8(*point, bytes));
  }
  return result;
}

}  // namespace

std::optional<char32_t> TakeCodePoint(std::string_view& text) noexcept {
  const Lead lead = DecodeLead(static_cast<unsigned char>(text.front()));
  if (lead.length == 0 || lead.length > text.size()) {
    text.remove_prefix(1);
    return std::nullopt;
  }
  char32_t point = lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c & 0xc0U) != 0x80) {
      text.remove_prefix(1);
      return std::nullopt;
    }
    point = point << 6 | (c & 0x3fU);
  }
  if (point < lead.smallest || point > 0x10ffff || IsHighSurrogate(point) || IsLowSurrogate(point)) {
    text.remove_prefix(1);
    return std::nullopt;
  }
  text.remove_prefix(lead.length);
  return point;
}

std::optional<char32_t> TakeCodePoint(std::u16string_view& text) noexcept {
  const char32_t first = text.front();
  text.remove_prefix(1);
  if (IsLowSurrogate(first)) return std::nullopt;
  if (!IsHighSurrogate(first)) return first;
  if (text.empty() || !IsLowSurrogate(text.front())) return std::nullopt;
  const char32_t second = text.front();
  text.remove_prefix(1);
  return 0x10000 + ((first - 0xd800) << 10) + (second - 0xdc00);
}

std::size_t Utf8Run(std::string_view text) noexcept {
  std::string_view rest = text;
  for (;;) {
    rest.remove_prefix(AsciiRun(rest));
    const std::size_t run = text.size() - rest.size();
    if (rest.empty() || !TakeCodePoint(rest)) return run;
  }
}

std::size_t EncodeUtf8(char32_t point, char* out) noexcept {
  const auto tail = [&](int shift) { return static_cast<char>(0x80 | ((point >> shift) & 0x3f)); };
  if (point < 0x80) {
    out[0] = static_cast<char>(point);
    return 1;
  }
  if (point < 0x800) {
    out[0] = static_cast<char>(0xc0 | point >> 6);
    out[1] = tail(0);
    return 2;
  }
  if (point < 0x10000) {
    out[0] = static_cast<char>(0xe0 | point >> 12);
    out[1] = tail(6);
    out[2] = tail(0);
    return 3;
  }
  out[0] = static_cast<char>(0xf0 | point >> 18);
  out[1] = tail(12);
  out[2] = tail(6);
  out[3] = tail(0);
  return 4;
}

std::size_t EncodeUtf16(char32_t point, char16_t* out) noexcept {
  if (point < 0x10000) {
    out[0] = static_cast<char16_t>(point);
    return 1;
  }
  out[0] = static_cast<char16_t>(0xd800 + ((point - 0x10000) >> 10));
  out[1] = static_cast<char16_t>(0xdc00 + ((point - 0x10000) & 0x3ff));
  return 2;
}

std::optional<types::string16_t> Utf8ToUtf16(std::string_view text) {
  return ToUtf16(text, std::nullopt);
}

std::optional<std::string> Utf16ToUtf8(std::u16string_view text) {
  return ToUtf8(text, std::nullopt);
}

types::string16_t RequireUtf16(std::string_view text) {
  std::optional<types::string16_t> result = Utf8ToUtf16(text);
  if (!result) throw std::bad_cast();
  return std::move(*result);
}

std::string RequireUtf8(std::u16string_view text) {
  std::optional<std::string> result = Utf16ToUtf8(text);
  if (!result) throw std::bad_cast();
  return std::move(*result);
}

types::string16_t Utf8ToUtf16Lossy(std::string_view text) {
  return ToUtf16(text, kReplacementCharacter).value();
}

std::string Utf16ToUtf8Lossy(std::u16string_view text) {
  return ToUtf8(text, kReplacementCharacter).value();
}

}  // namespace zym
