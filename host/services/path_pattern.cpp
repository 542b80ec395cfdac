#include "host/services/path_pattern.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace pmhost {
namespace {

constexpr std::string_view kAnyDepth = "**";

// fnmatch(3) takes what it can't read for plain characters or matches nothing, in silence. Here it is an
// error.
class GlobChecker {
 public:
  explicit GlobChecker(std::string_view text) : m_text(text) {}

  // True: there is a special character in the text.
  bool Check() {
    bool isSpecial = false;
    while (m_at != m_text.size()) {
      const char c = m_text[m_at++];
      if (c == '\\') SkipEscaped();
      if (c == '[') SkipClass();
      isSpecial |= c == '*' || c == '?' || c == '[';
    }
    return isSpecial;
  }

 private:
  void SkipEscaped() {
    if (m_at == m_text.size()) throw std::invalid_argument("a '\\' with nothing behind it");
    ++m_at;
  }

  // Behind the '['. A ']' that stands first means itself.
  void SkipClass() {
    if (Here() == '!' || Here() == '^') ++m_at;
    for (bool isFirst = true; isFirst || Here() != ']'; isFirst = false) {
      const char c = Here();
      ++m_at;
      if (c == '\\') SkipEscaped();
      if (c == '[' && (Here() == '.' || Here() == '='))
        throw std::invalid_argument("'[.' and '[=' are not known here");
      if (c == '[' && Here() == ':') SkipNamedClass();
    }
    ++m_at;
  }

  void SkipNamedClass() {
    constexpr std::array<std::string_view, 12> kNames = {"alnum", "alpha", "blank", "cntrl",
                                                         "digit", "graph", "lower", "print",
                                                         "punct", "space", "upper", "xdigit"};
    const std::size_t end = m_text.find(":]", ++m_at);
    if (end == std::string_view::npos ||
        std::ranges::find(kNames, m_text.substr(m_at, end - m_at)) == kNames.end())
      throw std::invalid_argument("a '[:' that names no class of characters");
    m_at = end + 2;
  }

  [[nodiscard]] char Here() const {
    if (m_at == m_text.size()) throw std::invalid_argument("a '[' without its ']'");
    return m_text[m_at];
  }

  std::string_view m_text;
  std::size_t m_at = 0;
};

std::string WithoutEscapes(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i != text.size(); ++i) {
    if (text[i] == '\\') ++i;
    plain += text[i];
  }
  return plain;
}

std::vector<std::string_view> CutAtSlashes(std::string_view text) {
  std::vector<std::string_view> components;
  for (;;) {
    const std::size_t slash = text.find('/');
    components.push_back(text.substr(0, slash));
    if (slash == std::string_view::npos) return components;
    text.remove_prefix(slash + 1);
  }
}

}  // namespace

PathText::PathText(std::string_view path) : m_text(path) {
  if (m_text.find('\0') != std::string::npos) return;
  m_components.reserve(static_cast<std::size_t>(std::ranges::count(m_text, '/')) + 1);
  m_components.push_back(m_text.data());
  for (char& c : m_text) {
    if (c != '/') continue;
    c = '\0';
    m_components.push_back(&c + 1);
  }
}

PathPattern::PathPattern(std::string_view text) : m_isOfNames(text.find('/') == std::string_view::npos) {
  if (text.empty()) throw std::invalid_argument("an empty pattern");
  if (text.find('\0') != std::string_view::npos) throw std::invalid_argument("a NUL in a pattern");
  std::vector<std::string_view> components = CutAtSlashes(text);
  if (!m_isOfNames) {
    if (!components.front().empty() && components.front() != kAnyDepth)
      throw std::invalid_argument("a pattern with a '/' in it begins with '/' or with '**/'");
    // What ends in a slash, or in "/**", is everything below.
    if (text != "/" && components.back().empty()) components.back() = kAnyDepth;
    if (components.back() == kAnyDepth) components.push_back("*");
  }
  for (std::size_t i = 0; i != components.size(); ++i) {
    const std::string_view component = components[i];
    if (component.empty() && i != 0 && text != "/") throw std::invalid_argument("'//' is in no path");
    if (component == "." || component == "..")
      throw std::invalid_argument("'.' and '..' are in no path that the kernel reports");
    const bool isAnyDepth = !m_isOfNames && component == kAnyDepth;
    m_components.push_back(isAnyDepth ? Component{Kind::kAnyDepth, {}} : Parse(component));
  }
}

PathPattern::Component PathPattern::Parse(std::string_view text) {
  if (GlobChecker(text).Check()) return {Kind::kGlob, std::string(text)};
  return {Kind::kText, WithoutEscapes(text)};
}

// In the "C" locale, which a program has that sets none: each byte is a character.
bool PathPattern::Matches(const Component& component, const char* text) {
  return component.kind == Kind::kText ? component.text == text
                                       : ::fnmatch(component.text.c_str(), text, 0) == 0;
}

bool PathPattern::MatchesName(const char* name) const {
  return m_isOfNames && Matches(m_components.front(), name);
}

// A "**" takes as few components as it can; when what follows fails, the last "**" takes one more. An earlier
// one never has to: what it left to the later one can be matched there too.
bool PathPattern::MatchesPath(const PathText& path) const {
  if (m_isOfNames) return false;
  const std::vector<const char*>& text = path.Components();
  if (text.empty()) return false;
  const std::size_t none = m_components.size();
  std::size_t lastAnyDepth = none;
  std::size_t taken = 0;  // where the text of what follows it begins
  std::size_t at = 0;
  for (std::size_t i = 0; i != text.size();) {
    if (at != m_components.size() && m_components[at].kind == Kind::kAnyDepth) {
      lastAnyDepth = at++;
      taken = i;
    } else if (at != m_components.size() && Matches(m_components[at], text[i])) {
      ++at;
      ++i;
    } else if (lastAnyDepth != none) {
      at = lastAnyDepth + 1;
      i = ++taken;
    } else {
      return false;
    }
  }
  return at == m_components.size();  // no pattern ends in "**"
}

}  // namespace pmhost
