// The exceptions of the framework. They live inside a class and stop at every interface boundary, where
// ExceptionToResult turns them into a trace record and a result code.
//
//   std::exception
//     zym::exception                     file, line, shared details
//       zym::GetInterfaceException       a required interface is missing
//       zym::Exception                   a message of its own
//         zym::ResultCodeException       with a result code
//           zym::CheckResultFailedException
//           zym::SystemException         with an errno
//             zym::datetime::TimeSystemError
//         zym::CheckFailedException      a failed condition, with no code
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "zym/containers.h"
#include "zym/result.h"
#include "zym/utf.h"

namespace zym {

// A named, typed fact that an exception carries. A type tag is how a value says what it is: the type's byte
// and the marker "<END>".
class Property {
 public:
  static constexpr std::size_t kMaxNameLength = 31;

  // The types that a property can have; their numbers are part of the trace format's vocabulary.
  enum Type : std::uint8_t { kText = 7, kResult = 20, kSystemError = 21, kUnsigned64 = 22 };

  static Property Result(result_t value);          // "zym.result"
  static Property SystemError(int error);          // "os.result"
  static Property ModuleResult(std::string text);  // "os.module_result"
  static Property Unsigned(std::string_view name, std::uint64_t value);

  [[nodiscard]] std::string_view Name() const noexcept { return {m_name.data(), m_nameLength}; }
  [[nodiscard]] std::uint32_t Key() const noexcept { return m_key; }
  [[nodiscard]] Type GetType() const noexcept { return m_type; }
  [[nodiscard]] std::array<char, 6> Tag() const noexcept {
    return {static_cast<char>(m_type), '<', 'E', 'N', 'D', '>'};
  }
  // The value as the text of an exception shows it.
  [[nodiscard]] std::string Render() const;

  // The value of a kResult, kSystemError or kUnsigned64 property.
  [[nodiscard]] std::uint64_t Number() const { return std::get<std::uint64_t>(m_value); }
  [[nodiscard]] const std::string& Text() const { return std::get<std::string>(m_value); }

  static constexpr std::string_view kResultName = "zym.result";
  static constexpr std::string_view kSystemErrorName = "os.result";
  static constexpr std::string_view kModuleResultName = "os.module_result";

 private:
  Property(std::string_view name, Type type, std::variant<std::uint64_t, std::string> value);

  std::array<char, kMaxNameLength + 1> m_name{};
  std::size_t m_nameLength;
  std::uint32_t m_key;
  Type m_type;
  std::variant<std::uint64_t, std::string> m_value;
};

// A loaded file, as the call stack of an exception names it.
struct StackModule {
  std::string name;
  std::string buildId;
  std::uintptr_t base = 0;
  std::uintptr_t size = 0;
};

class exception : public std::exception {
 public:
  // `file` must be a string literal.
  exception(const char* file, int line, std::string message);

  // "file(line): message. ...": built on first demand and kept, shared by all copies.
  const char* what() const noexcept override;

  [[nodiscard]] const char* File() const noexcept { return m_file; }
  [[nodiscard]] int Line() const noexcept { return m_line; }

  void AddProperty(Property property);
  [[nodiscard]] const Property* FindProperty(std::string_view name) const noexcept;

  // The addresses of the frames, innermost first, and the modules that they lie in. For a build that records
  // call stacks; without it the stack is empty.
  void SetStack(std::vector<std::uintptr_t> frames, std::vector<StackModule> modules);

 protected:
  [[nodiscard]] const std::string& PrimaryMessage() const noexcept { return m_details->message; }
  void AppendToPrimaryMessage(std::string_view text);

 private:
  struct Details {
    std::string message;
    std::vector<std::uintptr_t> frames;
    std::vector<StackModule> modules;  // sorted by base
    std::vector<Property> properties;
    std::once_flag built;
    std::string what;
  };

  void BuildWhat() const;

  const char* m_file;
  int m_line;
  std::shared_ptr<Details> m_details;
};

// The locator doesn't give a required interface.
class GetInterfaceException : public exception {
 public:
  GetInterfaceException(const char* file, int line, std::uint32_t iid, std::uint32_t serviceKey,
                        result_t result);
};

class Exception : public exception {
 public:
  using exception::exception;

  // The message in UTF-16. U+FFFD stands for each byte of it that is not UTF-8.
  virtual types::string16_t Message() const;
  // "message. At file(line) ": what a boundary traces.
  [[nodiscard]] types::string16_t Description() const;
};

// Gives D its stream-style appending of message parts, in narrow or wide text.
template <class D, class B>
class ExceptionBase : public B {
 public:
  using B::B;

  D& operator<<(std::string_view text) {
    this->AppendToPrimaryMessage(text);
    return static_cast<D&>(*this);
  }
  D& operator<<(const char* text) { return *this << std::string_view(text); }
  D& operator<<(std::u16string_view text) { return *this << std::string_view(Utf16ToUtf8Lossy(text)); }
  template <std::integral N>
  D& operator<<(N value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
  }
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  ResultCodeException(const char* file, int line, result_t result, std::string message = {});

  [[nodiscard]] result_t Result() const noexcept;
  // The message, ": ", the code in hexadecimal, " (", the code's text and ")".
  types::string16_t Message() const override;
};

// An expression gave a failing result. Its message begins with "Expression failed".
class CheckResultFailedException : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
 public:
  CheckResultFailedException(const char* file, int line, result_t result);
};

// A system call failed: carries the errno too, and the result code that stands for it.
class SystemException : public ExceptionBase<SystemException, ResultCodeException> {
 public:
  SystemException(const char* file, int line, int error, std::string message = {});
};

// A condition didn't hold.
class CheckFailedException : public ExceptionBase<CheckFailedException, Exception> {
 public:
  CheckFailedException(const char* file, int line, std::string message = {});
};

namespace datetime {

// A time that the other clock can't hold.
class TimeSystemError : public SystemException {
 public:
  using SystemException::SystemException;
};

}  // namespace datetime
}  // namespace zym
