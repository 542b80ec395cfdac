// The host's matchers of every kind, over patterns and texts of any bytes; each beside what its interface
// says of it in terms of the simpler ones.
#include "host/services/path_matching.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "zym/module_counter.h"

namespace {

using pmhost::PathMatcherFactory;
using qor::IPathMatcher;
using qor::NativePath;
using qor::PathList;
using MatcherPtr = zym::intrusive_ptr<IPathMatcher>;

void Require(bool condition) {
  if (!condition) std::abort();
}

// There are two answers, and each is given again.
bool Yes(IPathMatcher& matcher, zym::result_t (IPathMatcher::*test)(const NativePath&),
         const NativePath& text) {
  const zym::result_t result = (matcher.*test)(text);
  Require(result == zym::ZYM_OK || result == zym::ZYM_FALSE);
  Require((matcher.*test)(text) == result);
  return result == zym::ZYM_OK;
}
bool Matches(const MatcherPtr& matcher, const NativePath& path) {
  return Yes(*matcher, &IPathMatcher::Match, path);
}
bool MatchesName(const MatcherPtr& matcher, const NativePath& name) {
  return Yes(*matcher, &IPathMatcher::MatchName, name);
}

// Null, with the pointer left alone, where a pattern is none.
template <class Create, class... Lists>
MatcherPtr Make(PathMatcherFactory& factory, Create create, const Lists&... lists) {
  int nothing = 0;
  auto* const untouched = reinterpret_cast<IPathMatcher*>(&nothing);
  IPathMatcher* matcher = untouched;
  const zym::result_t result = (factory.*create)(lists..., &matcher);
  Require(result == zym::ZYM_OK || result == zym::ZYM_E_INVALID_ARGUMENT);
  Require((matcher == untouched) == (result != zym::ZYM_OK));
  return result == zym::ZYM_OK ? MatcherPtr::Attach(matcher) : MatcherPtr();
}

bool IsOfPaths(const NativePath& pattern) {
  return pattern.find('/') != NativePath::npos;
}
PathList OfPaths(const PathList& patterns) {
  PathList paths;
  std::ranges::copy_if(patterns, std::back_inserter(paths), IsOfPaths);
  return paths;
}

// The texts, cut where a line ends; those behind the first few would only take time.
PathList Lines(std::string_view text) {
  constexpr std::size_t kMost = 8;
  PathList lines;
  while (!text.empty() && lines.size() != kMost) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}
std::string_view TakeSection(std::string_view& input) {
  const std::size_t end = std::min(input.find("\n\n"), input.size());
  const std::string_view section = input.substr(0, end);
  input.remove_prefix(std::min(end + 2, input.size()));
  return section;
}

struct Case {
  PathMatcherFactory& factory;
  PathList patterns;
  PathList exceptions;
  PathList texts;
};

void CheckTextsThatStandForThemselves(const Case& it) {
  const MatcherPtr exact = Make(it.factory, &PathMatcherFactory::CreateExactMatcher, it.patterns);
  Require(bool(exact));
  for (const NativePath& pattern : it.patterns)
    Require(Matches(exact, pattern) && MatchesName(exact, pattern));
  for (const NativePath& text : it.texts) {
    const bool isListed = std::ranges::find(it.patterns, text) != it.patterns.end();
    Require(Matches(exact, text) == isListed && MatchesName(exact, text) == isListed);
  }

  const MatcherPtr tree = Make(it.factory, &PathMatcherFactory::CreateTreeMatcher, it.patterns);
  Require(bool(tree) ==
          std::ranges::all_of(it.patterns, [](const NativePath& text) { return text.starts_with('/'); }));
  if (!tree) return;
  for (const NativePath& directory : it.patterns)
    Require(Matches(tree, directory) && Matches(tree, directory + "/x"));
  for (const NativePath& text : it.texts) {
    Require(!MatchesName(tree, text));
    Require(Matches(tree, text) == std::ranges::any_of(it.patterns, [&](NativePath directory) {
              while (directory.ends_with('/')) directory.pop_back();
              return !text.empty() && (text + "/").starts_with(directory + "/");
            }));
  }
}

// A list of patterns is its single ones, and names alone make a matcher of names.
void CheckLists(const Case& it, const MatcherPtr& list) {
  PathList good;
  for (const NativePath& pattern : it.patterns) {
    const MatcherPtr one = Make(it.factory, &PathMatcherFactory::CreatePatternMatcher, pattern);
    const zym::result_t check = it.factory.CheckPattern(pattern);
    Require(check == (one ? zym::ZYM_OK : zym::ZYM_E_INVALID_ARGUMENT));
    if (one) good.push_back(pattern);
  }
  Require(bool(list) == (good.size() == it.patterns.size()));
  const MatcherPtr names = Make(it.factory, &PathMatcherFactory::CreateNameMatcher, it.patterns);
  Require(bool(names) == (list && std::ranges::none_of(it.patterns, IsOfPaths)));
  if (!list) return;
  for (const NativePath& text : it.texts) {
    const auto anyOfThem = [&](bool (*test)(const MatcherPtr&, const NativePath&)) {
      return std::ranges::any_of(it.patterns, [&](const NativePath& pattern) {
        return test(Make(it.factory, &PathMatcherFactory::CreatePatternMatcher, pattern), text);
      });
    };
    Require(Matches(list, text) == anyOfThem(Matches));
    Require(MatchesName(list, text) == anyOfThem(MatchesName));
    if (text.find('\0') != NativePath::npos) Require(!Matches(list, text) && !MatchesName(list, text));
    if (text.find('/') != NativePath::npos) Require(!MatchesName(list, text));
    if (!names) continue;
    Require(MatchesName(names, text) == MatchesName(list, text));
    if (text.find('\0') == NativePath::npos)
      Require(Matches(names, text) == MatchesName(names, text.substr(text.rfind('/') + 1)));
  }
}

// What matches a pattern and no exception; of a mount, paths and names by their own patterns alone.
void CheckExceptions(const Case& it, const MatcherPtr& patterns, const MatcherPtr& exceptions) {
  const MatcherPtr excepting =
      Make(it.factory, &PathMatcherFactory::CreateExceptingMatcher, it.patterns, it.exceptions);
  const MatcherPtr mount =
      Make(it.factory, &PathMatcherFactory::CreateMountMatcher, it.patterns, it.exceptions);
  Require(bool(excepting) == (patterns && exceptions));
  Require(bool(mount) == bool(excepting));
  if (!excepting) return;
  const MatcherPtr points = Make(it.factory, &PathMatcherFactory::CreatePathMatcher, OfPaths(it.patterns));
  const MatcherPtr others = Make(it.factory, &PathMatcherFactory::CreatePathMatcher, OfPaths(it.exceptions));
  for (const NativePath& text : it.texts) {
    Require(Matches(excepting, text) == (Matches(patterns, text) && !Matches(exceptions, text)));
    Require(MatchesName(excepting, text) == (MatchesName(patterns, text) && !MatchesName(exceptions, text)));
    Require(Matches(mount, text) == (Matches(points, text) && !Matches(others, text)));
    Require(MatchesName(mount, text) == MatchesName(excepting, text));
  }
}

}  // namespace

// The patterns, a line for each; behind an empty line the exceptions; behind another one the text that is
// tested, beside all the patterns themselves.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::int32_t objects = zym::ModuleObjectCounter::Value();
  {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto factory = zym::CreateObject<PathMatcherFactory>(zym::intrusive_ptr<zym::ITracer>());
    Case it{.factory = *factory,
            .patterns = Lines(TakeSection(input)),
            .exceptions = Lines(TakeSection(input)),
            .texts = {}};
    it.texts = it.patterns;
    it.texts.insert(it.texts.end(), it.exceptions.begin(), it.exceptions.end());
    it.texts.emplace_back(input);
    const MatcherPtr patterns = Make(*factory, &PathMatcherFactory::CreatePathMatcher, it.patterns);
    const MatcherPtr exceptions = Make(*factory, &PathMatcherFactory::CreatePathMatcher, it.exceptions);
    CheckTextsThatStandForThemselves(it);
    CheckLists(it, patterns);
    CheckExceptions(it, patterns, exceptions);
  }
  Require(zym::ModuleObjectCounter::Value() == objects);
  return 0;
}
