// Values at the front of a text, taken as the C++ library and strtol take them, without a stream.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace qor::procfs {

// isspace of the "C" locale, and \s of a pattern.
constexpr bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr std::string_view SkipBlanks(std::string_view text) {
  std::size_t blanks = 0;
  while (blanks < text.size() && IsBlank(text[blanks])) ++blanks;
  return text.substr(blanks);
}

// An integer with an optional sign at the very front of a text.
template <std::integral N>
struct TakenNumber {
  N value = 0;  // out of range: the nearest that the type has
  bool outOfRange = false;
  std::size_t length = 0;  // 0: there is none
};

// A negative number for an unsigned type is negated in that type if its digits are in range, as strtoul and
// streams have it. With the base 16 the digits may begin with "0x".
template <std::integral N>
TakenNumber<N> TakeNumber(std::string_view text, int base = 10) {
  using Magnitude = std::make_unsigned_t<N>;
  constexpr Magnitude kLargest = std::numeric_limits<N>::max();
  const char* const textEnd = text.data() + text.size();
  const char* digits = text.data();
  bool negative = false;
  if (digits != textEnd && (*digits == '+' || *digits == '-')) negative = *digits++ == '-';
  if (base == 16 && textEnd - digits > 1 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
    digits += 2;

  Magnitude magnitude = 0;
  const auto [end, error] = std::from_chars(digits, textEnd, magnitude, base);
  if (error == std::errc::invalid_argument) return {};
  TakenNumber<N> number;
  number.length = static_cast<std::size_t>(end - text.data());
  const bool negated = negative && std::signed_integral<N>;
  const Magnitude limit = kLargest + (negated ? 1 : 0);
  number.outOfRange = error != std::errc() || magnitude > limit;
  if (number.outOfRange)
    number.value = negated ? std::numeric_limits<N>::min() : std::numeric_limits<N>::max();
  else
    number.value = static_cast<N>(negative ? Magnitude{0} - magnitude : magnitude);
  return number;
}

// Extraction as std::istream has it in the classic locale: blanks before a value are skipped, and the first
// value that is missing or out of the range of its type fails this and all after it. What fails is left as a
// stream leaves it: 0, the nearest value of the type, or, behind the end of the text, untouched.
class Extractor {
 public:
  explicit Extractor(std::string_view text, int base = 10) : m_text(text), m_base(base) {}

  template <std::integral N>
  Extractor& operator>>(N& value) {
    if (!Begin()) return *this;
    const TakenNumber<N> number = TakeNumber<N>(m_text, m_base);
    value = number.value;
    m_failed = number.length == 0 || number.outOfRange;
    m_text.remove_prefix(number.length);
    return *this;
  }

  Extractor& operator>>(char& value) {
    if (!Begin()) return *this;
    value = m_text.front();
    m_text.remove_prefix(1);
    return *this;
  }

  // Goes on at the front of another text; a failure stays.
  void Seek(std::string_view text) { m_text = text; }

  explicit operator bool() const { return !m_failed; }

 private:
  bool Begin() {
    if (m_failed) return false;
    m_text = SkipBlanks(m_text);
    m_failed = m_text.empty();
    return !m_failed;
  }

  std::string_view m_text;
  int m_base;
  bool m_failed = false;
};

// A decimal number as strtol(3) takes it, dropped from the front of `text`; null when there is none. Out of
// range it is the nearest value.
inline std::optional<std::int64_t> TakeLong(std::string_view& text) {
  const std::string_view trimmed = SkipBlanks(text);
  const TakenNumber<std::int64_t> number = TakeNumber<std::int64_t>(trimmed);
  if (number.length == 0) return std::nullopt;
  text = trimmed.substr(number.length);
  return number.value;
}

// A text that is a number from its first character to its last, without a sign; null for any other, and for
// one out of range.
template <std::unsigned_integral N>
std::optional<N> ToNumber(std::string_view text, int base = 10) {
  N value = 0;
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, value, base);
  if (error != std::errc() || end != textEnd) return std::nullopt;
  return value;
}

}  // namespace qor::procfs
