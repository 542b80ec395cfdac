// The fields of a product event as one text.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "zym/variant.h"

namespace qor {

struct NamedField {
  std::string name;
  zym::types::variant_t value;
};

// What stands for a value that can't be read, that is, that VariantToString throws on.
inline constexpr std::string_view kCorruptedValue = "<CORRUPTED>";

// When a value counts as too long for its field, in bytes of its unescaped text, and how much of it is shown
// then. The cuts move outwards from inside a UTF-8 sequence, so that a little more may be left out.
struct ValueLimits {
  std::size_t longest = 4096;
  std::size_t head = 1024;
  std::size_t tail = 1024;
};

// One line "name=value" for each field, joined by line ends. In the value, line feed, carriage return, '='
// and '\' are escaped by a backslash, and so are bell (\a), vertical tab (\v) and escape (\e).
std::string ToPlainText(std::span<const NamedField> fields);

// "name": "value" for each field, joined by ", ". In the value, \b, \f, \n, \r, \t, '"' and '\' are escaped
// by a backslash, and so are \a, \v and \e. A value that is too long is shown by its head and its tail, with
// "...<Cut out N bytes>..." between.
std::string ToQuotedText(std::span<const NamedField> fields, const ValueLimits& limits = {});

}  // namespace qor
