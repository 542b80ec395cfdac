#include "host/output/json.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <type_traits>

#include "zym/utf.h"

namespace pmhost {
namespace {

// What stands for a unit that is no text: a lone surrogate itself, or the low surrogate that many programs
// read back as the byte.
constexpr unsigned Unit(char16_t unit) {
  return unit;
}
constexpr unsigned Unit(char byte) {
  return 0xdc00U + static_cast<unsigned char>(byte);
}

template <class C>
constexpr unsigned CodeOf(C unit) {
  return static_cast<std::make_unsigned_t<C>>(unit);
}

template <class C>
constexpr bool StandsForItself(C unit) {
  const unsigned code = CodeOf(unit);
  return code >= 0x20 && code < 0x7f && code != '"' && code != '\\';
}

void AppendUnit(std::string& out, unsigned unit) {
  char escape[8];
  std::snprintf(escape, sizeof(escape), "\\u%04x", unit);
  out += escape;
}

// The first character of `text`, which doesn't stand for itself, as the inside of a JSON string.
template <class C>
void AppendEscaped(std::string& out, std::basic_string_view<C>& text) {
  const C unit = text.front();
  const unsigned code = CodeOf(unit);
  if (code < 0x80) {
    text.remove_prefix(1);
    if (unit != '"' && unit != '\\') return AppendUnit(out, code);
    out += '\\';
    out += static_cast<char>(unit);
  } else if (const std::optional<char32_t> point = zym::TakeCodePoint(text)) {
    char bytes[4];
    out.append(bytes, zym::EncodeUtf8(*point, bytes));
  } else {
    AppendUnit(out, Unit(unit));
  }
}

}  // namespace

std::string_view JsonLine::End() {
  m_text += '}';
  return m_text;
}

// A comma behind a value; nothing behind what opens an object or a list.
void JsonLine::Separate() {
  if (m_text.back() != '{' && m_text.back() != '[') m_text += ',';
}

void JsonLine::Name(std::string_view name) {
  Separate();
  m_text += '"';
  m_text += name;
  m_text += "\":";
}

// Most text is a run of characters that stand for themselves.
template <class C>
void JsonLine::String(std::basic_string_view<C> text) {
  m_text += '"';
  while (!text.empty()) {
    std::size_t plain = 0;
    while (plain < text.size() && StandsForItself(text[plain])) ++plain;
    const std::size_t length = m_text.size();
    m_text.resize(length + plain);
    std::transform(text.data(), text.data() + plain, m_text.data() + length,
                   [](C unit) { return static_cast<char>(unit); });
    text.remove_prefix(plain);
    if (!text.empty()) AppendEscaped(m_text, text);
  }
  m_text += '"';
}

template <class N>
void JsonLine::Digits(N value) {
  char digits[24];
  m_text.append(digits, std::to_chars(digits, digits + sizeof(digits), value).ptr);
}

void JsonLine::Text(std::string_view name, std::string_view value) {
  Name(name);
  String(value);
}

void JsonLine::Text(std::string_view name, std::optional<std::u16string_view> value) {
  if (!value) return Null(name);
  Name(name);
  String(*value);
}

void JsonLine::Number(std::string_view name, std::optional<std::uint32_t> value) {
  if (!value) return Null(name);
  Name(name);
  Digits(*value);
}

void JsonLine::LongNumber(std::string_view name, std::optional<std::uint64_t> value) {
  if (!value) return Null(name);
  Name(name);
  m_text += '"';
  Digits(*value);
  m_text += '"';
}

void JsonLine::Boolean(std::string_view name, bool value) {
  Name(name);
  m_text += value ? "true" : "false";
}

void JsonLine::Null(std::string_view name) {
  Name(name);
  m_text += "null";
}

void JsonLine::BeginList(std::string_view name) {
  Name(name);
  m_text += '[';
}

void JsonLine::Item(std::string_view value) {
  Separate();
  String(value);
}

void JsonLine::EndList() {
  m_text += ']';
}

}  // namespace pmhost
