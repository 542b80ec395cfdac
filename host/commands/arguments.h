// Options and arguments that several commands have.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace pmhost {

// Both ends are in it.
struct NumberRange {
  std::uint64_t first;
  std::uint64_t last;
};
inline constexpr NumberRange kAnyNumber{0, 0xffffffffffffffff};

// An option or, without dashes, an argument: a decimal number in the range, and nothing else. Leading zeros
// mean nothing; a sign is refused.
CLI::Option* AddNumber(CLI::App& command, const std::string& name, NumberRange range, const std::string& help,
                       const std::function<void(std::uint64_t)>& take);

// The argument PID. For most commands the kernel, which has pid 0, is not a process.
enum class TakesKernel : bool { kNo, kYes };
CLI::Option* AddPid(CLI::App& command, std::uint32_t& pid, TakesKernel takesKernel = TakesKernel::kNo);

// A time, with fractions.
CLI::Option* AddSeconds(CLI::App& command, const std::string& name, std::optional<double>& seconds,
                        const std::string& help);

// A number in decimal, or in hexadecimal behind "0x"; absent for anything else. Leading zeros mean nothing.
std::optional<std::uint64_t> ParseMemoryNumber(const std::string& text);

// Checks for CLI::Option: what is wrong with the text; nothing when it is right.
std::string CheckMemoryNumber(const std::string& text);
std::string CheckPattern(const std::string& text);

}  // namespace pmhost
