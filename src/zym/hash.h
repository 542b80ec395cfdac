// The hash that turns names into numbers.
#pragma once

#include <cstdint>
#include <string_view>

namespace zym {

// FNV-1a, 32 bits. Not for tables that a stranger fills: anyone can find two names of one hash.
constexpr std::uint32_t HashOf(std::string_view name) noexcept {
  std::uint32_t hash = 2166136261U;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash;
}

}  // namespace zym
