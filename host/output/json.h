// JSON lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace pmhost {

// One object, written as it comes. Its buffer is kept from line to line.
class JsonLine {
 public:
  // Begins a new object.
  void Begin();
  // Ends it; valid until the next Begin.
  std::string_view End();

  // UTF-8, or UTF-16. What is not text is never dropped: a lone surrogate is escaped as itself ("\udXXX"), a
  // byte 0xXX as "\udcXX".
  void Text(const char* name, std::string_view value);
  void Text(const char* name, std::optional<std::u16string_view> value);
  // A number that fits 53 bits.
  void Number(const char* name, std::optional<std::uint64_t> value);
  // A number that may not fit 53 bits: a string in decimal.
  void LongNumber(const char* name, std::optional<std::uint64_t> value);
  void Boolean(const char* name, bool value);
  void Null(const char* name);

  // A list of texts.
  void BeginList(const char* name);
  void Item(std::string_view value);
  void EndList();

  // An object inside; what comes until its end are its members.
  void BeginObject(const char* name);
  void EndObject();

 private:
  template <class C>
  void String(std::basic_string_view<C> text);

  using Buffer = rapidjson::StringBuffer;

  Buffer m_buffer;
  rapidjson::Writer<Buffer> m_writer{m_buffer};
  std::string m_scratch;
};

}  // namespace pmhost
