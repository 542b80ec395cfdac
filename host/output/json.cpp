#include "host/output/json.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <type_traits>

#include "zym/utf.h"

namespace pmhost {
namespace {

// What stands for a unit that is not text: a lone surrogate itself, or the low surrogate that many programs
// read back as the byte.
constexpr unsigned Unit(char16_t unit) {
  return unit;
}
constexpr unsigned Unit(char byte) {
  return 0xdc00U + static_cast<unsigned char>(byte);
}

template <class C>
constexpr bool StandsForItself(C unit) {
  const unsigned code = static_cast<std::make_unsigned_t<C>>(unit);
  return code >= 0x20 && code < 0x7f && code != '"' && code != '\\';
}

void AppendUnit(std::string& out, unsigned unit) {
  char escape[8];
  std::snprintf(escape, sizeof(escape), "\\u%04x", unit);
  out += escape;
}

// Takes the first character of `text`, which doesn't stand for itself.
template <class C>
void AppendEscaped(std::string& out, std::basic_string_view<C>& text) {
  const C unit = text.front();
  const unsigned code = static_cast<std::make_unsigned_t<C>>(unit);
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

// `text` as the inside of a JSON string. Most text is a run of characters that stand for themselves.
template <class C>
void Append(std::string& out, std::basic_string_view<C> text) {
  while (!text.empty()) {
    const auto* const plain = std::find_if_not(text.begin(), text.end(), StandsForItself<C>);
    out.append(text.begin(), plain);
    text.remove_prefix(static_cast<std::size_t>(plain - text.begin()));
    if (!text.empty()) AppendEscaped(out, text);
  }
}

}  // namespace

void JsonLine::Begin() {
  m_buffer.Clear();
  m_writer.Reset(m_buffer);
  m_writer.StartObject();
}

std::string_view JsonLine::End() {
  m_writer.EndObject();
  return {m_buffer.GetString(), m_buffer.GetSize()};
}

template <class C>
void JsonLine::String(std::basic_string_view<C> text) {
  m_scratch.assign(1, '"');
  Append(m_scratch, text);
  m_scratch += '"';
  m_writer.RawValue(m_scratch.data(), m_scratch.size(), rapidjson::kStringType);
}

void JsonLine::Text(const char* name, std::string_view value) {
  m_writer.Key(name);
  String(value);
}

void JsonLine::Text(const char* name, std::optional<std::u16string_view> value) {
  if (!value) return Null(name);
  m_writer.Key(name);
  String(*value);
}

void JsonLine::Number(const char* name, std::optional<std::uint64_t> value) {
  if (!value) return Null(name);
  m_writer.Key(name);
  m_writer.Uint64(*value);
}

void JsonLine::LongNumber(const char* name, std::optional<std::uint64_t> value) {
  if (!value) return Null(name);
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof(digits), *value).ptr;
  Text(name, std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

void JsonLine::Boolean(const char* name, bool value) {
  m_writer.Key(name);
  m_writer.Bool(value);
}

void JsonLine::Null(const char* name) {
  m_writer.Key(name);
  m_writer.Null();
}

void JsonLine::BeginList(const char* name) {
  m_writer.Key(name);
  m_writer.StartArray();
}

void JsonLine::Item(std::string_view value) {
  String(value);
}

void JsonLine::EndList() {
  m_writer.EndArray();
}

void JsonLine::BeginObject(const char* name) {
  m_writer.Key(name);
  m_writer.StartObject();
}

void JsonLine::EndObject() {
  m_writer.EndObject();
}

}  // namespace pmhost
