#include "host/commands/arguments.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <stdexcept>
#include <system_error>

#include "host/services/path_pattern.h"

namespace pmhost {
namespace {

// The whole text as one number.
template <class T, class... Base>
std::optional<T> Parse(std::string_view text, Base... base) {
  T number = 0;
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, number, base...);
  return error == std::errc() && parsed == end ? std::optional(number) : std::nullopt;
}

std::string CheckSeconds(const std::string& text) {
  constexpr double kLongest = 1e9;
  const double seconds = Parse<double>(text).value_or(-1);
  const bool isTime = seconds >= 0 && seconds <= kLongest;  // NaN is neither
  return isTime ? "" : "must be a number of seconds from 0 to 1000000000, not '" + text + "'";
}

}  // namespace

CLI::Option* AddNumber(CLI::App& command, const std::string& name, NumberRange range, const std::string& help,
                       const std::function<void(std::uint64_t)>& take) {
  const auto parse = [name, range, take](const std::string& text) {
    const std::optional<std::uint64_t> number = Parse<std::uint64_t>(text);
    if (!number || *number < range.first || *number > range.last)
      throw CLI::ValidationError(name, "must be a number from " + std::to_string(range.first) + " to " +
                                           std::to_string(range.last) + ", not '" + text + "'");
    take(*number);
  };
  return command.add_option_function<std::string>(name, parse, help);
}

CLI::Option* AddPid(CLI::App& command, std::uint32_t& pid, TakesKernel takesKernel) {
  constexpr std::uint64_t kLast = 0x7fffffff;  // pid_t is signed
  const std::uint64_t first = takesKernel == TakesKernel::kYes ? 0 : 1;
  return AddNumber(command, "PID", {first, kLast}, "The process",
                   [&pid](std::uint64_t number) { pid = static_cast<std::uint32_t>(number); })
      ->type_name("");
}

CLI::Option* AddSeconds(CLI::App& command, const std::string& name, std::optional<double>& seconds,
                        const std::string& help) {
  return command.add_option(name, seconds, help)->type_name("SECONDS")->check(CheckSeconds);
}

std::optional<std::uint64_t> ParseMemoryNumber(const std::string& text) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  return Parse<std::uint64_t>(std::string_view(text).substr(hexadecimal ? 2 : 0), hexadecimal ? 16 : 10);
}

std::string CheckMemoryNumber(const std::string& text) {
  return ParseMemoryNumber(text) ? "" : "must be a number such as 4096 or 0x1000, not '" + text + "'";
}

std::string CheckPattern(const std::string& text) {
  try {
    static_cast<void>(PathPattern(text));
    return {};
  } catch (const std::invalid_argument& e) {
    return "'" + text + "' is not a pattern: " + e.what();
  }
}

}  // namespace pmhost
