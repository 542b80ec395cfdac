#include "host_kit/stat_text.h"

#include <charconv>
#include <concepts>
#include <limits>
#include <system_error>
#include <type_traits>

namespace host_kit {
namespace {

bool IsLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The fields behind the name, each with a blank before it.
class Fields {
 public:
  explicit Fields(std::string_view text) : m_text(text) {}

  Fields& operator>>(char& letter) {
    const std::string_view field = Take();
    m_failed = m_failed || field.size() != 1 || !IsLetter(field.front());
    if (!m_failed) letter = field.front();
    return *this;
  }

  // The kernel prints some of the unsigned fields as signed: -1, which is all ones here.
  template <std::integral N>
  Fields& operator>>(N& number) {
    std::string_view field = Take();
    const bool negative = field.starts_with('-');
    if (negative) field.remove_prefix(1);
    std::make_unsigned_t<N> magnitude = 0;
    const char* const fieldEnd = field.data() + field.size();
    const auto [end, error] = std::from_chars(field.data(), fieldEnd, magnitude);
    constexpr auto kLargest = static_cast<std::make_unsigned_t<N>>(std::numeric_limits<N>::max());
    const std::make_unsigned_t<N> limit = kLargest + (negative && std::signed_integral<N> ? 1 : 0);
    m_failed = m_failed || error != std::errc() || end != fieldEnd || magnitude > limit;
    if (!m_failed) number = static_cast<N>(negative ? 0 - magnitude : magnitude);
    return *this;
  }

  [[nodiscard]] bool Failed() const { return m_failed; }

 private:
  std::string_view Take() {
    m_failed = m_failed || !m_text.starts_with(' ');
    if (m_failed) return {};
    m_text.remove_prefix(1);
    const std::string_view field = m_text.substr(0, m_text.find_first_of(" \n"));
    m_text.remove_prefix(field.size());
    return field;
  }

  std::string_view m_text;
  bool m_failed = false;
};

}  // namespace

bool ParseStatText(std::string_view text, qor::procfs::Stat& stat) {
  const std::size_t open = text.find(" (");
  const std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || open + 2 > close) return false;
  qor::procfs::Stat read = stat;
  const std::string_view pid = text.substr(0, open);
  const auto [end, error] = std::from_chars(pid.data(), pid.data() + pid.size(), read.pid);
  if (error != std::errc() || end != pid.data() + pid.size()) return false;
  read.comm.assign(text.substr(open + 2, close - open - 2));
  Fields fields(text.substr(close + 1));
  fields >> read.state >> read.ppid >> read.pgrp >> read.session >> read.tty_nr >> read.tpgid >> read.flags;
  fields >> read.minflt >> read.cminflt >> read.majflt >> read.cmajflt;
  fields >> read.utime >> read.stime >> read.cutime >> read.cstime;
  fields >> read.priority >> read.nice >> read.num_threads >> read.itrealvalue;
  fields >> read.starttime >> read.vsize >> read.rss >> read.rsslim;
  if (fields.Failed()) return false;
  stat = std::move(read);
  return true;
}

}  // namespace host_kit
