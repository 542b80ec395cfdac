#include "process_manager/process/file_name_normalization.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/temp_directory.h"

namespace {

using zym::types::string16_t;

std::u16string Normalized(std::u16string_view name) {
  string16_t text(name);
  qor::process_manager::NormalizeFileName(text);
  return {text.begin(), text.end()};
}

std::string Normalized(std::string_view name) {
  const std::u16string text = Normalized(std::u16string(name.begin(), name.end()));
  return {text.begin(), text.end()};
}

// --- the cases by name ---

TEST(NormalizeFileName, AnAbsolutePathLosesItsDotsAndTheComponentBeforeTheTwoDots) {
  EXPECT_EQ(Normalized("/usr/./lib/../bin/tool"), "/usr/bin/tool");
}

TEST(NormalizeFileName, ARelativePathThatStartsWithTwoDotDotsKeepsThem) {
  EXPECT_EQ(Normalized("../../lib/x"), "../../lib/x");
}

TEST(NormalizeFileName, TheRootFollowedByADotDotIsTheRoot) {
  EXPECT_EQ(Normalized("/.."), "/");
}

TEST(NormalizeFileName, AnEmptyTextIsADot) {
  EXPECT_EQ(Normalized(""), ".");
}

// Each ".." that is left becomes a "../", slash and all. That is meant: the names that follow it may be none.
TEST(NormalizeFileName, DotDotsThatNothingFollowsKeepTheirSlash) {
  EXPECT_EQ(Normalized(".."), "../");
  EXPECT_EQ(Normalized("../.."), "../../");
  EXPECT_EQ(Normalized("a/../.."), "../");
}

struct Case {
  const char* name;
  const char* normalized;
};

constexpr Case kAbsolute[] = {
    {"/", "/"},
    {"//", "/"},
    {"///", "/"},
    {"/.", "/"},
    {"/./", "/"},
    {"/../", "/"},
    {"/../..", "/"},
    {"/../../a", "/a"},
    {"/a", "/a"},
    {"/a/", "/a"},
    {"//a", "/a"},
    {"/a//b", "/a/b"},
    {"/a/./b", "/a/b"},
    {"/a/b/.", "/a/b"},
    {"/a/b/..", "/a"},
    {"/a/..", "/"},
    {"/a/../b", "/b"},
    {"/a/b/../../c", "/c"},
    {"/a/b/../../../c", "/c"},
    {"/a/../b/../c", "/c"},
    {"/a/b/c/../../d", "/a/d"},
    {"/a/.../b", "/a/.../b"},
    {"/a/..b", "/a/..b"},
    {"/a/b..", "/a/b.."},
    {"/.a/.b", "/.a/.b"},
    {"/..a/../b", "/b"},
    {"/a/ /b", "/a/ /b"},
    {"/very/long/name/of/a/file.txt", "/very/long/name/of/a/file.txt"},
    {"/a/./../b/.//..///c/", "/c"},
    {"/a/b/c/../..//../..", "/"},
};

constexpr Case kRelative[] = {
    {".", "."},
    {"./", "."},
    {"./.", "."},
    {"a", "a"},
    {"a/", "a"},
    {"./a", "a"},
    {"a/.", "a"},
    {"a//b", "a/b"},
    {"a/./b", "a/b"},
    {"a/..", "."},
    {"a/../", "."},
    {"a/../b", "b"},
    {"a/b/..", "a"},
    {"../a", "../a"},
    {"../a/..", "../"},
    {"a/../../b", "../b"},
    {"a/b/../../../../c", "../../c"},
    {"./../a", "../a"},
    {"..//..//a//", "../../a"},
    {"...", "..."},
    {"..a", "..a"},
    {"a..", "a.."},
};

static_assert(std::size(kAbsolute) + std::size(kRelative) >= 50);

TEST(NormalizeFileName, ATableOfPaths) {
  for (const Case& c : kAbsolute) EXPECT_EQ(Normalized(c.name), c.normalized) << c.name;
  for (const Case& c : kRelative) EXPECT_EQ(Normalized(c.name), c.normalized) << c.name;
}

TEST(NormalizeFileName, AnyUnitsAreNames) {
  const std::u16string lone{u'/', char16_t{0xd800}, u'/', u'.', u'.', u'/', char16_t{0xdfff}, u'\0', u'b'};
  EXPECT_EQ(Normalized(lone), (std::u16string{u'/', char16_t{0xdfff}, u'\0', u'b'}));
  EXPECT_EQ(Normalized(u"/домой/../файл"), u"/файл");
}

TEST(NormalizeFileName, ALongPathIsOneWalk) {
  std::string down;
  std::string up;
  for (int i = 0; i < 200'000; ++i) {
    down += "/a";
    up += "/..";
  }
  EXPECT_EQ(Normalized(down), down);
  EXPECT_EQ(Normalized(down + up), "/");
  EXPECT_EQ(Normalized(down + up + "/b"), "/b");
  EXPECT_EQ(Normalized(up), "/");
  EXPECT_EQ(Normalized(up.substr(1)), up.substr(1) + "/");
}

// --- beside the shell's own tool ---

// What `realpath -m -s` says of each path, run in `directory`. It reads no link and minds no missing file, so
// that it too goes by the text. Where the two rules part: it knows absolute paths alone, so a relative one is
// put behind the directory first; and it refuses an empty text, which is "." here.
std::vector<std::string> RealpathOf(const std::string& directory, const std::vector<std::string>& paths) {
  const test_support::TempDirectory temporary;
  std::string arguments;
  for (const std::string& path : paths) arguments.append(path).push_back('\0');
  const std::string file = temporary.Write("arguments", arguments);
  const std::string command = "cd '" + directory + "' && xargs -0 realpath -z -m -s -- <'" + file + "'";
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {};
  std::vector<std::string> results(1);
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) {
    if (c == '\0')
      results.emplace_back();
    else
      results.back().push_back(static_cast<char>(c));
  }
  results.pop_back();
  EXPECT_EQ(::pclose(pipe), 0);
  return results;
}

bool HasRealpath() {
  return ::access("/usr/bin/realpath", X_OK) == 0 || ::access("/bin/realpath", X_OK) == 0;
}

void ExpectTheSame(const std::string& directory, const std::vector<std::string>& paths) {
  const std::vector<std::string> expected = RealpathOf(directory, paths);
  ASSERT_EQ(expected.size(), paths.size());
  for (std::size_t i = 0; i != paths.size(); ++i) {
    const std::string& path = paths[i];
    if (path.starts_with('/')) {
      EXPECT_EQ(Normalized(path), expected[i]) << path;
    } else {
      EXPECT_EQ(Normalized(directory + "/" + path), expected[i]) << path;
      EXPECT_EQ(Normalized(directory + "/" + Normalized(path)), expected[i]) << path << ", normalised before";
    }
  }
}

TEST(NormalizeFileName, TheTableIsWhatRealpathSays) {
  if (!HasRealpath()) GTEST_SKIP() << "there is no realpath (coreutils)";
  std::vector<std::string> paths;
  for (const Case& c : kAbsolute) paths.emplace_back(c.name);
  for (const Case& c : kRelative) paths.emplace_back(c.name);
  const test_support::TempDirectory directory;
  const std::string deep = std::filesystem::canonical(directory.Path()).string() + "/x/y/z";
  std::filesystem::create_directories(deep);
  ExpectTheSame(deep, paths);
}

TEST(NormalizeFileName, RandomPathsAreWhatRealpathSays) {
  if (!HasRealpath()) GTEST_SKIP() << "there is no realpath (coreutils)";
  constexpr const char* kPieces[] = {"/", "/", "/", ".", "..", "a", "b1", "..c", "...", "//", "/../", "/./"};
  std::mt19937 random(20240607);  // the same paths each time
  std::vector<std::string> paths;
  for (int i = 0; i < 5000; ++i) {
    std::string path = i % 2 == 0 ? "/nowhere-of-this-test/" : "";
    for (std::size_t length = 1 + random() % 12; length != 0; --length)
      path += kPieces[random() % std::size(kPieces)];
    paths.push_back(path);
  }
  const test_support::TempDirectory directory;
  const std::string deep = std::filesystem::canonical(directory.Path()).string() + "/x/y/z";
  std::filesystem::create_directories(deep);
  ExpectTheSame(deep, paths);
}

TEST(NormalizeFileName, ANormalisedNameStaysAsItIs) {
  constexpr const char* kPieces[] = {"/", ".", "..", "a", "bc"};
  std::mt19937 random(7);
  for (int i = 0; i < 5000; ++i) {
    std::string path;
    for (std::size_t length = random() % 12; length != 0; --length)
      path += kPieces[random() % std::size(kPieces)];
    const std::string once = Normalized(path);
    EXPECT_EQ(Normalized(once), once) << path;
  }
}

}  // namespace
