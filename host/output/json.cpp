#include "host/output/json.h"

#include <charconv>
#include <cstdio>

#include "zym/utf.h"

namespace pmhost {
namespace {

// `text` as the inside of a JSON string.
void AppendEscaped(std::string& out, std::u16string_view text) {
  const auto appendUnit = [&out](unsigned unit) {
    char escape[8];
    std::snprintf(escape, sizeof(escape), "\\u%04x", unit);
    out += escape;
  };
  while (!text.empty()) {
    const char16_t unit = text.front();
    if (unit == u'"' || unit == u'\\') {
      out += '\\';
      out += static_cast<char>(unit);
      text.remove_prefix(1);
    } else if (unit < 0x20 || unit == 0x7f) {
      appendUnit(unit);
      text.remove_prefix(1);
    } else if (unit < 0x80) {
      out += static_cast<char>(unit);
      text.remove_prefix(1);
    } else if (const std::optional<char32_t> point = zym::TakeCodePoint(text)) {
      char bytes[4];
      out.append(bytes, zym::EncodeUtf8(*point, bytes));
    } else {
      appendUnit(unit);  // a lone surrogate
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

void JsonLine::Text(const char* name, std::string_view value) {
  m_writer.Key(name);
  m_writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void JsonLine::Text(const char* name, std::optional<std::u16string_view> value) {
  if (!value) return Null(name);
  m_writer.Key(name);
  m_scratch.assign(1, '"');
  AppendEscaped(m_scratch, *value);
  m_scratch += '"';
  m_writer.RawValue(m_scratch.data(), m_scratch.size(), rapidjson::kStringType);
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
  m_writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void JsonLine::EndList() {
  m_writer.EndArray();
}

}  // namespace pmhost
