// Values as text.
#pragma once

#include <string>

#include "zym/variant.h"

namespace qor {

// A boolean as "true" or "false", numbers in decimal, texts in UTF-8. Throws std::runtime_error: "Unknown
// type in VariantToString" for a value that has no text (empty, an object, a buffer, a list), "Invalid UTF-16
// in VariantToString" for a text that is not UTF-16.
std::string VariantToString(const zym::types::variant_t& variant);

}  // namespace qor
