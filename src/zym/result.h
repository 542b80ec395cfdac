// Result codes: what every operation of every interface returns, and how errno becomes one.
#pragma once

#include <cstdint>
#include <string_view>

namespace zym {

// Negative is failure; zero and positive are success. Bits 16 to 30 are the facility, the low 16 bits the
// code within it. Facility 0 holds common codes, 1 platform codes, 6 a raw errno.
using result_t = std::int32_t;

namespace detail {
constexpr result_t Code(std::uint32_t value) {
  return static_cast<result_t>(value);
}
}  // namespace detail

inline constexpr result_t ZYM_OK = 0;
inline constexpr result_t ZYM_FALSE = 1;  // a success that says no, or that nothing had to be done

inline constexpr result_t ZYM_E_NO_INTERFACE = detail::Code(0x80000001);
inline constexpr result_t ZYM_E_UNEXPECTED = detail::Code(0x80000040);
inline constexpr result_t ZYM_E_OUT_OF_MEMORY = detail::Code(0x80000041);
inline constexpr result_t ZYM_E_NOT_SUPPORTED = detail::Code(0x80000042);
inline constexpr result_t ZYM_E_NOT_IMPLEMENTED = detail::Code(0x80000043);
inline constexpr result_t ZYM_E_BUFFER_TOO_SMALL = detail::Code(0x80000044);
inline constexpr result_t ZYM_E_ACCESS_DENIED = detail::Code(0x80000045);
inline constexpr result_t ZYM_E_INVALID_ARGUMENT = detail::Code(0x80000046);
inline constexpr result_t ZYM_E_BAD_CAST = detail::Code(0x80000047);
inline constexpr result_t ZYM_E_NOT_MATCHED = detail::Code(0x8000004a);
inline constexpr result_t ZYM_E_UNSPECIFIED = detail::Code(0x8000004b);
inline constexpr result_t ZYM_E_NOT_FOUND = detail::Code(0x8000004c);
inline constexpr result_t ZYM_E_LOCKED = detail::Code(0x8000004f);
inline constexpr result_t ZYM_E_MEDIA_ERROR = detail::Code(0x80000059);
inline constexpr result_t ZYM_E_INVALID_SIZE = detail::Code(0x8000005c);
inline constexpr result_t ZYM_E_OUT_OF_RANGE = detail::Code(0x8000005e);
inline constexpr result_t ZYM_E_OUT_OF_SPACE = detail::Code(0x80000062);
inline constexpr result_t ZYM_E_ALREADY_DONE = detail::Code(0x80000067);
inline constexpr result_t ZYM_E_INVALID_STATE = detail::Code(0x8000006a);
inline constexpr result_t ZYM_E_UNKNOWN_EXCEPTION = detail::Code(0x80000072);
inline constexpr result_t ZYM_E_FILE_TOO_BIG = detail::Code(0x80000078);
inline constexpr result_t ZYM_E_CLASS_NOT_FOUND = detail::Code(0x80000100);
inline constexpr result_t ZYM_E_EXCEPTION_WITHOUT_RESULT = detail::Code(0x80000151);
inline constexpr result_t ZYM_E_EXCEPTION_WITH_SUCCESS = detail::Code(0x80000152);
inline constexpr result_t ZYM_E_PROPERTY_NOT_FOUND = detail::Code(0x80000180);
inline constexpr result_t ZYM_E_TIMEOUT = detail::Code(0x80000221);

inline constexpr result_t ZYM_E_PLATFORM = detail::Code(0x80010100);
inline constexpr result_t ZYM_E_INVALID_HANDLE = detail::Code(0x80010101);
inline constexpr result_t ZYM_E_FILE_NOT_FOUND = detail::Code(0x80010102);
inline constexpr result_t ZYM_E_PATH_NOT_FOUND = detail::Code(0x80010103);
inline constexpr result_t ZYM_E_SHARING_VIOLATION = detail::Code(0x80010104);
inline constexpr result_t ZYM_E_ALREADY_EXISTS = detail::Code(0x80010105);
inline constexpr result_t ZYM_E_SYMBOL_NOT_FOUND = detail::Code(0x80010107);
inline constexpr result_t ZYM_E_BAD_IMAGE_FORMAT = detail::Code(0x80010117);

// The text of a code, "Unknown result code" for one that has none. Never allocates, never fails; the text
// lives as long as the program.
std::string_view ResultText(result_t result) noexcept;

// The result for an errno or a pthread return code. 0 is success; an errno without a code of its own is
// carried in facility 6.
result_t ErrnoToResult(int error) noexcept;

}  // namespace zym

// The success test. Traces print it by this name.
#define ZYM_SUCCEEDED(_result) ((_result) >= 0)
