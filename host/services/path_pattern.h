// The host's language of patterns; docs/pmhost.md explains it to the user.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pmhost {

// A path cut at its slashes, once for all the patterns that it is tested with.
class PathText {
 public:
  explicit PathText(std::string_view path);
  PathText(const PathText&) = delete;
  PathText& operator=(const PathText&) = delete;

  // The components with their terminators; the first of an absolute path is empty. No path of the kernel
  // holds a NUL: a text with one has no components, and matches nothing.
  [[nodiscard]] const std::vector<const char*>& Components() const { return m_components; }

 private:
  std::string m_text;
  std::vector<const char*> m_components;
};

// One pattern, of paths or of names. Letters stand for bytes: nothing in a path says what text it is in.
// Testing takes at most as many comparisons of components as the product of the two lengths.
class PathPattern {
 public:
  // Throws std::invalid_argument with a sentence for the user if `text` is not a pattern.
  explicit PathPattern(std::string_view text);

  // A pattern without a slash.
  [[nodiscard]] bool IsOfNames() const { return m_isOfNames; }

  // The whole path, with a pattern of paths.
  [[nodiscard]] bool MatchesPath(const PathText& path) const;
  // One name, with a pattern of names.
  [[nodiscard]] bool MatchesName(const char* name) const;

 private:
  enum class Kind : unsigned char { kText, kGlob, kAnyDepth };

  struct Component {
    Kind kind;
    std::string text;
  };

  static Component Parse(std::string_view text);
  static bool Matches(const Component& component, const char* text);

  bool m_isOfNames;
  std::vector<Component> m_components;
};

}  // namespace pmhost
