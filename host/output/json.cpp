#include "host/output/json.h"

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

// `text` as the inside of a JSON string.
template <class C>
void AppendEscaped(std::string& out, std::basic_string_view<C> text) {
  const auto appendUnit = [&out](unsigned unit) {
    char escape[8];
    std::snprintf(escape, sizeof(escape), "\\u%04x", unit);
    out += escape;
  };
  while (!text.empty()) {
    const C unit = text.front();
    const unsigned code = static_cast<std::make_unsigned_t<C>>(unit);
    if (unit == '"' || unit == '\\') {
      out += '\\';
      out += static_cast<char>(unit);
      text.remove_prefix(1);
    } else if (code < 0x20 || code == 0x7f) {
      appendUnit(code);
      text.remove_prefix(1);
    } else if (code < 0x80) {
      out += static_cast<char>(unit);
      text.remove_prefix(1);
    } else if (const std::optional<char32_t> point = zym::TakeCodePoint(text)) {
      char bytes[4];
      out.append(bytes, zym::EncodeUtf8(*point, bytes));
    } else {
      appendUnit(Unit(unit));
    }
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
  AppendEscaped(m_scratch, text);
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

void JsonLine::Number(const char* name, std::optional<std::uint32_t> value) {
  if (!value) return Null(name);
  m_writer.Key(name);
  m_writer.Uint(*value);
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

}  // namespace pmhost
