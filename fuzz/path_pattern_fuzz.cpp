// The host's patterns and the paths that they are tested with, both any bytes; beside a matcher that tries
// every way.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/services/path_pattern.h"

namespace {

using Texts = std::vector<std::string_view>;

void Require(bool condition) {
  if (!condition) std::abort();
}

Texts Cut(std::string_view text) {
  Texts components;
  for (std::size_t slash = 0; (slash = text.find('/')) != std::string_view::npos;
       text.remove_prefix(slash + 1))
    components.push_back(text.substr(0, slash));
  components.push_back(text);
  return components;
}

// Whether a sequence of elements matches a sequence of pattern elements, some of which take any number of
// them: a table of all pairs of suffixes.
template <class Pattern, class Text, class IsAny, class Fits>
bool TryEveryWay(const Pattern& pattern, const Text& text, IsAny isAny, Fits fits) {
  std::vector<std::vector<char>> matches(pattern.size() + 1, std::vector<char>(text.size() + 1, 0));
  matches[pattern.size()][text.size()] = 1;
  for (std::size_t p = pattern.size(); p-- != 0;)
    for (std::size_t t = text.size() + 1; t-- != 0;)
      matches[p][t] = isAny(pattern[p])
                          ? matches[p + 1][t] || (t != text.size() && matches[p][t + 1])
                          : t != text.size() && fits(pattern[p], text[t]) && matches[p + 1][t + 1];
  return matches[0][0] != 0;
}

// Patterns without classes and escapes.
bool ComponentMatches(std::string_view pattern, std::string_view text) {
  return TryEveryWay(
      pattern, text, [](char c) { return c == '*'; }, [](char p, char t) { return p == '?' || p == t; });
}

bool Expected(std::string_view pattern, std::string_view path) {
  Texts components = Cut(pattern);
  if (pattern != "/" && components.back().empty()) components.back() = "**";
  if (components.back() == "**") components.push_back("*");
  return TryEveryWay(
      components, Cut(path), [](std::string_view component) { return component == "**"; }, ComponentMatches);
}

std::string Escaped(std::string_view path) {
  std::string pattern;
  for (const char c : path) {
    if (c == '\\' || c == '*' || c == '?' || c == '[') pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// A path as the kernel tells one matches the pattern in which each character of it is meant.
void CheckEscaped(std::string_view path) {
  const Texts components = Cut(path);
  if (!path.starts_with('/') || path == "/") return;
  for (std::size_t i = 1; i != components.size(); ++i)
    if (components[i].empty() || components[i] == "." || components[i] == "..") return;
  if (path.find('\0') != std::string_view::npos) return;
  Require(pmhost::PathPattern(Escaped(path)).MatchesPath(pmhost::PathText(path)));
  Require(pmhost::PathPattern("/**").MatchesPath(pmhost::PathText(path)));
}

}  // namespace

// The pattern ends at the first line end; the rest is the path.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string_view text = input.substr(0, end);
  const std::string_view path = input.substr(std::min(end + 1, input.size()));
  CheckEscaped(path);
  try {
    const pmhost::PathPattern pattern(text);
    const pmhost::PathText pathText(path);
    const bool matches = pattern.MatchesPath(pathText);
    const bool hasNul = path.find('\0') != std::string_view::npos;
    Require(pathText.Components().empty() == hasNul);
    if (pattern.IsOfNames()) {
      Require(!matches);
      if (!hasNul && text.find_first_of("[\\") == std::string_view::npos)
        Require(pattern.MatchesName(std::string(path).c_str()) == ComponentMatches(text, path));
    } else if (hasNul) {
      Require(!matches);
    } else if (text.find_first_of("[\\") == std::string_view::npos && text.size() + path.size() < 4096) {
      Require(matches == Expected(text, path));
    }
  } catch (const std::invalid_argument& e) {
    Require(!std::string_view(e.what()).empty());
  }
  return 0;
}
