// JSON lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pmhost {

// One object, written as it comes. Its memory is kept from line to line: a storm of events is a storm of
// these.
class JsonLine {
 public:
  // Begins a new object.
  void Begin() { m_text = '{'; }
  // Ends it; valid until the next Begin.
  std::string_view End();

  // Names are the program's own and are written as they are: nothing in them needs an escape.
  //
  // UTF-8, or UTF-16. What is no text is never dropped: a lone surrogate is escaped as itself ("\udXXX"), a
  // byte 0xXX as "\udcXX".
  void Text(std::string_view name, std::string_view value);
  void Text(std::string_view name, std::optional<std::u16string_view> value);
  void Number(std::string_view name, std::optional<std::uint32_t> value);
  // A number that may not fit 53 bits: a string in decimal.
  void LongNumber(std::string_view name, std::optional<std::uint64_t> value);
  void Boolean(std::string_view name, bool value);
  void Null(std::string_view name);

  // A list of texts.
  void BeginList(std::string_view name);
  void Item(std::string_view value);
  void EndList();

 private:
  void Separate();
  void Name(std::string_view name);
  template <class C>
  void String(std::basic_string_view<C> text);
  template <class N>
  void Digits(N value);

  std::string m_text;
};

}  // namespace pmhost
