#include "qor_utils/variant_to_string.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <utility>

#include "zym/utf.h"

namespace qor {
namespace {

using zym::types::variant_t;

template <class N>
std::string NumberToString(N number) {
  char digits[32];  // the longest double in its shortest form has 24
  const auto end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
  return {digits, end};
}

}  // namespace

std::string VariantToString(const variant_t& variant) {
  switch (variant.GetTag()) {
    case variant_t::kBool:
      return *variant.If<bool>() ? "true" : "false";
    case variant_t::kInt32:
      return NumberToString(*variant.If<std::int32_t>());
    case variant_t::kUInt32:
      return NumberToString(*variant.If<std::uint32_t>());
    case variant_t::kInt64:
      return NumberToString(*variant.If<std::int64_t>());
    case variant_t::kUInt64:
      return NumberToString(*variant.If<std::uint64_t>());
    case variant_t::kDouble:
      return NumberToString(*variant.If<double>());
    case variant_t::kString: {
      const auto& text = *variant.If<zym::types::string_t>();
      return {text.data(), text.size()};
    }
    case variant_t::kString16: {
      std::optional<std::string> text = zym::Utf16ToUtf8(*variant.If<zym::types::string16_t>());
      if (!text) throw std::runtime_error("Invalid UTF-16 in VariantToString");
      return *std::move(text);
    }
    default:
      throw std::runtime_error("Unknown type in VariantToString");
  }
}

}  // namespace qor
