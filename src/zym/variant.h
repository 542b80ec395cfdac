// A value with a type tag: what property bags and serialised fields hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>
#include <variant>

#include "zym/containers.h"
#include "zym/datetime.h"
#include "zym/intrusive_ptr.h"
#include "zym/iobject.h"

namespace zym::types {

// Owned bytes.
using buffer_t = vector_t<std::uint8_t>;

class variant_t {
 public:
  using vector_type = vector_t<variant_t>;

  // Tags 13, 14, 15, 17 and 0x1007 are the host framework's; the plain values are numbered here.
  enum Tag : std::uint32_t {
    kEmpty = 0,
    kBool = 1,
    kInt32 = 4,
    kUInt32 = 5,
    kInt64 = 6,
    kUInt64 = 7,
    kDouble = 9,
    kObject = 13,
    kString = 14,
    kString16 = 15,
    kBuffer = 17,
    kVector = 0x1007,
  };

  variant_t() = default;
  variant_t(const variant_t&) = default;
  variant_t& operator=(const variant_t&) = default;
  // A move leaves the source empty.
  variant_t(variant_t&& other) noexcept : m_value(std::exchange(other.m_value, std::monostate{})) {}
  variant_t& operator=(variant_t&& other) noexcept {
    if (this != &other) m_value = std::exchange(other.m_value, std::monostate{});
    return *this;
  }
  ~variant_t() = default;

  // The constraint keeps copies and moves away from it, which clang-tidy sees in an enable_if only.
  template <class T>  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
  requires(!std::is_same_v<std::remove_cvref_t<T>, variant_t>) explicit variant_t(T&& value)
      : m_value(std::forward<T>(value)) {}

  [[nodiscard]] Tag GetTag() const noexcept {
    constexpr Tag kTags[] = {kEmpty,  kBool,   kInt32,  kUInt32,   kInt64,  kUInt64,
                             kDouble, kObject, kString, kString16, kBuffer, kVector};
    static_assert(std::size(kTags) == std::variant_size_v<Value>);
    return kTags[m_value.index()];
  }

  // The value if it is a T, else null.
  template <class T>
  [[nodiscard]] const T* If() const noexcept {
    return std::get_if<T>(&m_value);
  }

 private:
  using Value = std::variant<std::monostate, bool, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t,
                             double, objptr_t<IObject>, string_t, string16_t, buffer_t, vector_type>;
  Value m_value;
};

}  // namespace zym::types
