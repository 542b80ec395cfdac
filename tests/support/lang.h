// The LANG of this program, and so of the programs that it starts.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace test_support {

// Sets it for a while, or takes it away.
class Lang {
 public:
  explicit Lang(const char* value) {
    if (const char* const old = std::getenv("LANG")) m_old = old;
    if (value != nullptr)
      ::setenv("LANG", value, 1);
    else
      ::unsetenv("LANG");
  }
  ~Lang() {
    if (m_old)
      ::setenv("LANG", m_old->c_str(), 1);
    else
      ::unsetenv("LANG");
  }
  Lang(const Lang&) = delete;
  Lang& operator=(const Lang&) = delete;

 private:
  std::optional<std::string> m_old;
};

}  // namespace test_support
