// Trace records and the macros that write them.
//
// A component's trace reads alike everywhere; the habits are:
//   entry of an operation     ZYM_TRACE(tracer, kCall, __func__ << "() " << ...)
//   exit that reports         ZYM_TRACE(tracer, kCall, __func__ << "() <- " << ...)
//   plain message             ZYM_TRACE(tracer, level, __func__ << ": " << ...)
//   failed check              the ZYM_CHECK macros, which print their own expression
// Nothing after the level is evaluated unless the record is open: at a disabled level a statement costs one
// virtual call. What that evaluation raises, as for want of memory, ends the text there and goes no further:
// a trace never fails what it traces.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "zym/exception.h"
#include "zym/tracer.h"

namespace zym::trace {

// Sets the base of the numbers that follow.
enum class Base : std::uint8_t { kDecimal = 10, kHexadecimal = 16 };
inline constexpr Base dec = Base::kDecimal;
inline constexpr Base hex = Base::kHexadecimal;

// A result code in the form "0x80000046 (Invalid argument)"; a code without a text has the number alone.
struct Code {
  result_t result;
};

// The width of the next value, filled from the left. A text counts by its units, bytes or UTF-16 words.
struct Width {
  std::uint32_t width;
  char fill = ' ';
};

// The size of the buffer that a record begins with.
inline constexpr std::uint64_t kInitialRecordSize = 512;

// One record, open from construction to destruction, in the manner of an output stream. It never raises and
// never fails what it traces: a byte that is not UTF-8 becomes U+FFFD, and when the record can't grow it is
// emptied, further text is dropped, and the empty record is committed. It keeps errno as it was, whatever the
// tracer does.
class Record {
 public:
  // A record that a tracer has opened for whoever makes the object of it; false: nothing is traced.
  struct Opened {
    ITracer* tracer = nullptr;
    char* buffer = nullptr;

    explicit operator bool() const noexcept { return buffer != nullptr; }
  };

  // Opens a record, unless the tracer is null or refuses the level. What a disabled statement costs stands in
  // its caller: a null tracer a branch, a refusal one virtual call.
  static Opened Open(ITracer* tracer, std::uint32_t level) noexcept {
    return {tracer, tracer != nullptr ? OpenBuffer(tracer, level) : nullptr};
  }
  template <class P>
  requires requires(const P& p) { static_cast<ITracer*>(p.get()); }
  static Opened Open(const P& tracer, std::uint32_t level) noexcept {
    return Open(static_cast<ITracer*>(tracer.get()), level);
  }
  // The record does not keep the tracer alive: a temporary pointer would leave it without one.
  template <class P>
  requires requires(P& p) { static_cast<ITracer*>(p.get()); }
  static Opened Open(const P&& tracer, std::uint32_t level) = delete;

  explicit Record(Opened opened) noexcept : m_tracer(opened.tracer), m_buffer(opened.buffer) {}
  Record(ITracer* tracer, std::uint32_t level) noexcept : Record(Open(tracer, level)) {}
  ~Record() {
    if (m_buffer != nullptr) Commit();
  }
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  explicit operator bool() const noexcept { return m_buffer != nullptr; }

  Record& operator<<(std::string_view text) noexcept;
  Record& operator<<(const char* text) noexcept {
    return *this << std::string_view(text != nullptr ? text : "(null)");
  }
  Record& operator<<(std::u16string_view text) noexcept;
  Record& operator<<(char c) noexcept { return *this << std::string_view(&c, 1); }
  // An address is no text: without this one it would be a boolean.
  template <class T>
  requires(!std::same_as<std::remove_const_t<T>, char>) Record& operator<<(T* pointer) = delete;
  Record& operator<<(bool value) noexcept { return *this << std::string_view(value ? "true" : "false"); }
  Record& operator<<(double value) noexcept;
  Record& operator<<(Code code) noexcept;
  Record& operator<<(Base base) noexcept {
    m_base = static_cast<int>(base);
    return *this;
  }
  Record& operator<<(Width width) noexcept {
    m_width = width.width;
    m_fill = width.fill;
    return *this;
  }
  template <std::integral N>
  requires(!std::same_as<N, bool> && !std::same_as<N, char>) Record& operator<<(N value) noexcept {
    char digits[24];
    char* const last = digits + sizeof(digits);
    // In hexadecimal a negative number shows its bits, as in an output stream.
    const auto bits = static_cast<std::make_unsigned_t<N>>(value);
    const char* const end =
        m_base == 10 ? std::to_chars(digits, last, value).ptr : std::to_chars(digits, last, bits, m_base).ptr;
    return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
  }
  template <class T>
  requires requires(const T& value, Record& record) { AppendTo(record, value); }
  Record& operator<<(const T& value) {
    AppendTo(*this, value);
    return *this;
  }

 private:
  static char* OpenBuffer(ITracer* tracer, std::uint32_t level) noexcept;
  void Commit() noexcept;
  void FillFor(std::size_t length) noexcept;
  void AppendWhole(std::string_view text) noexcept;
  void Append(std::string_view text) noexcept;
  bool Grow(std::uint64_t needed) noexcept;

  ITracer* m_tracer;
  char* m_buffer;  // null: nothing is traced
  std::uint64_t m_capacity = kInitialRecordSize;
  std::uint64_t m_length = 0;
  bool m_overflowed = false;
  int m_base = 10;
  int m_precision = 6;
  std::uint32_t m_width = 0;
  char m_fill = ' ';
};

}  // namespace zym::trace

// Traces at a level. The object is made behind the branch: most statements are disabled.
#define ZYM_TRACE(tracer, level, ...)                                                      \
  do {                                                                                     \
    if (const auto zymOpened = ::zym::trace::Record::Open((tracer), (level))) [[unlikely]] \
      try {                                                                                \
        ::zym::trace::Record zymRecord{zymOpened};                                         \
        zymRecord << __VA_ARGS__;                                                          \
      } catch (...) {                                                                      \
      }                                                                                    \
  } while (false)

// --- checks ------------------------------------------------------------------------------------------------
// Each prints its own expression. The texts are a frozen interface, the code is not: where the natural
// expression is not the text, the variant _AS takes the text beside it.

// Evaluates an expression of result_t and gives its value; traces a failure at level 300 and goes on.
#define ZYM_REPORT_RESULT(tracer, expression, ...) \
  ZYM_REPORT_RESULT_AS(tracer, #expression, expression __VA_OPT__(, ) __VA_ARGS__)
#define ZYM_REPORT_RESULT_AS(tracer, text, expression, ...)                      \
  [&, zymFunction = __func__]() -> ::zym::result_t {                             \
    const ::zym::result_t zymResult = (expression);                              \
    if (!ZYM_SUCCEEDED(zymResult))                                               \
      ZYM_TRACE(tracer, ::zym::trace::kFailure,                                  \
                zymFunction << ": '(" text ")=" << ::zym::trace::Code{zymResult} \
                            << "' " __VA_OPT__(<< __VA_ARGS__));                 \
    return zymResult;                                                            \
  }()

// Checks an expression of result_t: traces a failure at level 300 and returns it.
#define ZYM_CHECK_RESULT(tracer, expression, ...) \
  ZYM_CHECK_RESULT_AS(tracer, #expression, expression __VA_OPT__(, ) __VA_ARGS__)
#define ZYM_CHECK_RESULT_AS(tracer, text, expression, ...)                                             \
  do {                                                                                                 \
    if (const ::zym::result_t zymResult = (expression); !ZYM_SUCCEEDED(zymResult)) {                   \
      ZYM_TRACE(tracer, ::zym::trace::kFailure,                                                        \
                __FILE__ << ":" << __LINE__ << "(" text "),(ZYM_SUCCEEDED(_result)) failed: result = " \
                         << ::zym::trace::Code{zymResult} __VA_OPT__(<< " " << __VA_ARGS__));          \
      return zymResult;                                                                                \
    }                                                                                                  \
  } while (false)

// Checks a condition: traces a failure at level 300 and returns `value`.
#define ZYM_CHECK(tracer, condition, value, ...) \
  ZYM_CHECK_AS(tracer, #condition, condition, value __VA_OPT__(, ) __VA_ARGS__)
#define ZYM_CHECK_AS(tracer, text, condition, value, ...)                                                  \
  do {                                                                                                     \
    if (!(condition)) {                                                                                    \
      ZYM_TRACE(tracer, ::zym::trace::kFailure,                                                            \
                __FILE__ << ":" << __LINE__                                                                \
                         << "(" text "),(bool) failed: result = false" __VA_OPT__(<< " " << __VA_ARGS__)); \
      return value;                                                                                        \
    }                                                                                                      \
  } while (false)

// Checks an expression of result_t: throws zym::CheckResultFailedException, with a message, on a failure.
#define ZYM_CHECK_RESULT_OR_THROW(expression, ...)                                 \
  do {                                                                             \
    if (const ::zym::result_t zymResult = (expression); !ZYM_SUCCEEDED(zymResult)) \
      throw ::zym::CheckResultFailedException(__FILE__, __LINE__, zymResult)       \
          __VA_OPT__(<< ". " << __VA_ARGS__);                                      \
  } while (false)

// Checks a condition: throws zym::CheckFailedException, with a message, when it doesn't hold.
#define ZYM_CHECK_OR_THROW(condition, ...) \
  ZYM_CHECK_OR_THROW_AS(#condition, condition __VA_OPT__(, ) __VA_ARGS__)
#define ZYM_CHECK_OR_THROW_AS(text, condition, ...)                                                     \
  do {                                                                                                  \
    if (!(condition))                                                                                   \
      throw ::zym::CheckFailedException(__FILE__, __LINE__) << text __VA_OPT__(<< ". " << __VA_ARGS__); \
  } while (false)
