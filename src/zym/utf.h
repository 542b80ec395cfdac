// UTF-8 and UTF-16. Surrogates in UTF-8, overlong forms and lone surrogates are errors.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zym/containers.h"

namespace zym {

// Null when `text` is not valid UTF-8, or not valid UTF-16. Throws only std::bad_alloc.
std::optional<types::string16_t> Utf8ToUtf16(std::string_view text);
std::optional<std::string> Utf16ToUtf8(std::u16string_view text);

// The same, for a caller to whom anything else is a failure: they throw std::bad_cast as well.
types::string16_t RequireUtf16(std::string_view text);
std::string RequireUtf8(std::u16string_view text);

// The same for text that a person reads, and that may be no text at all, as a file's name may: each byte, or
// each unit, that belongs to no code point becomes a kReplacementCharacter. Throw only std::bad_alloc.
types::string16_t Utf8ToUtf16Lossy(std::string_view text);
std::string Utf16ToUtf8Lossy(std::u16string_view text);

inline constexpr char32_t kReplacementCharacter = U'\uFFFD';

// How many bytes at the front of `text` are whole code points.
std::size_t Utf8Run(std::string_view text) noexcept;

// Decodes one code point at the front of `text` and drops it from there. An invalid sequence drops one unit
// and returns no value. `text` must not be empty.
std::optional<char32_t> TakeCodePoint(std::string_view& text) noexcept;
std::optional<char32_t> TakeCodePoint(std::u16string_view& text) noexcept;

// Writes `point` to `out`, which has room for 4 bytes, or for 2 units; returns the length.
std::size_t EncodeUtf8(char32_t point, char* out) noexcept;
std::size_t EncodeUtf16(char32_t point, char16_t* out) noexcept;

}  // namespace zym
