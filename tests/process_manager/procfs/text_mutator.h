// Texts that differ a little from one that is right.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <utility>

namespace qor::procfs {

// Changes of a text that keep it near to what it was.
class Mutator {
 public:
  explicit Mutator(std::string alphabet) : m_alphabet(std::move(alphabet)) {}

  std::string operator()(std::string text) {
    for (std::size_t i = Below(4); i > 0; --i) {
      const std::size_t at = Below(text.size() + 1);
      const char c = m_alphabet[Below(m_alphabet.size())];
      switch (Below(3)) {
        case 0:
          text.insert(at, 1, c);
          break;
        case 1:
          if (at < text.size()) text[at] = c;
          break;
        default:
          text.erase(at, 1 + Below(3));
      }
    }
    return text;
  }

 private:
  std::size_t Below(std::size_t end) { return m_random() % end; }

  std::string m_alphabet;
  std::mt19937_64 m_random{20240229};  // the same texts at every run
};

inline constexpr int kMutants = 20'000;

}  // namespace qor::procfs
