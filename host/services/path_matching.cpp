#include "host/services/path_matching.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/services/path_pattern.h"
#include "zym/exception_to_result.h"

namespace pmhost {
namespace {

using qor::IPathMatcher;
using qor::NativePath;
using qor::PathList;

std::vector<PathPattern> Parse(const PathList& patterns) {
  std::vector<PathPattern> parsed;
  for (const NativePath& pattern : patterns) {
    try {
      parsed.emplace_back(pattern);
    } catch (const std::invalid_argument& e) {
      throw std::invalid_argument("'" + pattern + "': " + e.what());
    }
  }
  return parsed;
}

// The part of a whole path with which a pattern of names is tested.
enum class NamesInPaths : bool { kNone, kLastComponent };

class PatternSet {
 public:
  PatternSet(const PathList& patterns, NamesInPaths namesInPaths)
      : m_patterns(Parse(patterns)), m_namesInPaths(namesInPaths) {}

  [[nodiscard]] bool MatchesPath(const PathText& path) const {
    if (path.Components().empty()) return false;
    return std::ranges::any_of(m_patterns, [&](const PathPattern& pattern) {
      return pattern.IsOfNames() ? m_namesInPaths == NamesInPaths::kLastComponent &&
                                       pattern.MatchesName(path.Components().back())
                                 : pattern.MatchesPath(path);
    });
  }
  [[nodiscard]] bool MatchesName(const char* name) const {
    return std::ranges::any_of(m_patterns,
                               [&](const PathPattern& pattern) { return pattern.MatchesName(name); });
  }
  [[nodiscard]] bool IsOfNames() const { return std::ranges::all_of(m_patterns, &PathPattern::IsOfNames); }

 private:
  std::vector<PathPattern> m_patterns;
  NamesInPaths m_namesInPaths;
};

zym::result_t Answer(bool matches) {
  return matches ? zym::ZYM_OK : zym::ZYM_FALSE;
}

class PatternMatcher : public zym::object::Ifaces<IPathMatcher> {
 public:
  PatternMatcher(PatternSet patterns, PatternSet exceptions)
      : m_patterns(std::move(patterns)), m_exceptions(std::move(exceptions)) {}

  zym::result_t Match(const NativePath& path) override try {
    const PathText text(path);
    return Answer(m_patterns.MatchesPath(text) && !m_exceptions.MatchesPath(text));
  } catch (...) {
    return zym::ExceptionToResult(nullptr);
  }
  zym::result_t MatchName(const NativePath& name) override {
    if (name.find_first_of(std::string_view("/\0", 2)) != NativePath::npos) return zym::ZYM_FALSE;  // no name
    return Answer(m_patterns.MatchesName(name.c_str()) && !m_exceptions.MatchesName(name.c_str()));
  }

 private:
  const PatternSet m_patterns;
  const PatternSet m_exceptions;
};

class ExactMatcher : public zym::object::Ifaces<IPathMatcher> {
 public:
  explicit ExactMatcher(const PathList& texts) : m_texts(texts.begin(), texts.end()) {}

  zym::result_t Match(const NativePath& path) override { return Answer(m_texts.contains(path)); }
  zym::result_t MatchName(const NativePath& name) override { return Match(name); }

 private:
  const std::set<NativePath> m_texts;
};

class TreeMatcher : public zym::object::Ifaces<IPathMatcher> {
 public:
  explicit TreeMatcher(const PathList& directories) {
    for (std::string_view directory : directories) {
      if (!directory.starts_with('/')) throw std::invalid_argument("a directory that doesn't begin with '/'");
      while (directory.ends_with('/')) directory.remove_suffix(1);  // the root becomes ""
      m_directories.emplace_back(directory);
    }
  }

  zym::result_t Match(const NativePath& path) override {
    return Answer(std::ranges::any_of(m_directories, [&](const std::string& directory) {
      return path.starts_with(directory) &&
             (path.size() == directory.size() ? !path.empty() : path[directory.size()] == '/');
    }));
  }
  zym::result_t MatchName(const NativePath&) override { return zym::ZYM_FALSE; }

 private:
  std::vector<std::string> m_directories;
};

void Hand(zym::intrusive_ptr<IPathMatcher> made, IPathMatcher** out) {
  *out = made.Detach();
}

void MakePatternMatcher(const PathList& patterns, const PathList& exceptions, NamesInPaths namesInPaths,
                        IPathMatcher** out) {
  Hand(zym::CreateObject<PatternMatcher>(PatternSet(patterns, namesInPaths),
                                         PatternSet(exceptions, namesInPaths)),
       out);
}

}  // namespace

zym::result_t PathMatcherFactory::CheckPattern(const NativePath& pattern) try {
  static_cast<void>(Parse({pattern}));
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreateExactMatcher(const PathList& texts, IPathMatcher** matcher) try {
  Hand(zym::CreateObject<ExactMatcher>(texts), matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreateTreeMatcher(const PathList& directories, IPathMatcher** matcher) try {
  Hand(zym::CreateObject<TreeMatcher>(directories), matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreateExceptingMatcher(const PathList& patterns, const PathList& exceptions,
                                                         IPathMatcher** matcher) try {
  MakePatternMatcher(patterns, exceptions, NamesInPaths::kLastComponent, matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreateMountMatcher(const PathList& excluded, const PathList& exceptions,
                                                     IPathMatcher** matcher) try {
  MakePatternMatcher(excluded, exceptions, NamesInPaths::kNone, matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreateNameMatcher(const PathList& patterns, IPathMatcher** matcher) try {
  PatternSet names(patterns, NamesInPaths::kLastComponent);
  if (!names.IsOfNames()) throw std::invalid_argument("a pattern of names with a '/' in it");
  Hand(zym::CreateObject<PatternMatcher>(std::move(names), PatternSet({}, NamesInPaths::kNone)), matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreatePatternMatcher(const NativePath& pattern,
                                                       IPathMatcher** matcher) try {
  MakePatternMatcher({pattern}, {}, NamesInPaths::kLastComponent, matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

zym::result_t PathMatcherFactory::CreatePathMatcher(const PathList& patterns, IPathMatcher** matcher) try {
  MakePatternMatcher(patterns, {}, NamesInPaths::kLastComponent, matcher);
  return zym::ZYM_OK;
} catch (...) {
  return zym::ExceptionInFunctionToResult(m_tracer.get(), __func__);
}

}  // namespace pmhost
