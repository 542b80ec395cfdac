// UTF-8 and UTF-16, each with any units: names of files, arguments and environments are just bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "zym/utf.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

// Taken apart point by point and put together again: the way of a trace, which replaces what is no text.
template <class C>
bool IsWhole(std::basic_string_view<C> text) {
  bool whole = true;
  while (!text.empty()) {
    const std::size_t before = text.size();
    whole = zym::TakeCodePoint(text).has_value() && whole;
    Require(text.size() < before);
  }
  return whole;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // What converts is whole, and converts back to the same units.
  const std::string narrow(reinterpret_cast<const char*>(data), size);
  const auto wide = zym::Utf8ToUtf16(narrow);
  Require(wide.has_value() == IsWhole(std::string_view(narrow)));
  if (wide) Require(zym::Utf16ToUtf8(*wide) == narrow);
  // What is replaced is whole, and what is whole stays as it is.
  const auto shown = zym::Utf8ToUtf16Lossy(narrow);
  Require(IsWhole(std::u16string_view(shown)));
  if (wide) Require(shown == *wide);

  std::u16string units(size / sizeof(char16_t), u'\0');
  if (!units.empty()) std::memcpy(units.data(), data, units.size() * sizeof(char16_t));
  const auto bytes = zym::Utf16ToUtf8(units);
  Require(bytes.has_value() == IsWhole(std::u16string_view(units)));
  const auto shownBytes = zym::Utf16ToUtf8Lossy(units);
  Require(IsWhole(std::string_view(shownBytes)));
  if (bytes) {
    Require(shownBytes == *bytes);
    const auto back = zym::Utf8ToUtf16(*bytes);
    Require(back.has_value() && std::u16string_view(*back) == units);
  }
  return 0;
}
