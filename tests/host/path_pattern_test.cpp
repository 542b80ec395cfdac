// The host's language of patterns.
#include "host/services/path_pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;
using pmhost::PathPattern;
using pmhost::PathText;

bool Matches(std::string_view pattern, std::string_view path) {
  return PathPattern(pattern).MatchesPath(PathText(path));
}

// What is wrong with `text`; empty if it is a pattern.
std::string Complaint(std::string_view text) {
  try {
    static_cast<void>(PathPattern(text));
    return {};
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

struct Case {
  std::string_view pattern;
  std::vector<std::string_view> matched;
  std::vector<std::string_view> others;
};

void Check(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    for (const std::string_view path : c.matched)
      EXPECT_TRUE(Matches(c.pattern, path)) << c.pattern << " " << path;
    for (const std::string_view path : c.others)
      EXPECT_FALSE(Matches(c.pattern, path)) << c.pattern << " " << path;
  }
}

TEST(PathPattern, APathStandsForItselfAlone) {
  Check({
      {"/usr/bin/sh",
       {"/usr/bin/sh"},
       {"/usr/bin/sh/", "/usr/bin/s", "/usr/bin/shx", "usr/bin/sh", "", "/", "//usr/bin/sh"}},
      {"/", {"/"}, {"", "//", "/a"}},
      {"/usr", {"/usr"}, {"/usr/bin", "/us", "/USR"}},
  });
}

TEST(PathPattern, AStarIsAnyNumberOfCharactersOfOneComponent) {
  Check({
      {"/usr/*/sh", {"/usr/bin/sh", "/usr//sh"}, {"/usr/sh", "/usr/local/bin/sh"}},
      {"/usr/bin/*", {"/usr/bin/sh", "/usr/bin/.hidden"}, {"/usr/bin", "/usr/bin/a/b"}},
      {"/usr/bin/py*3", {"/usr/bin/python3", "/usr/bin/py3"}, {"/usr/bin/python3.11", "/usr/bin/py/3"}},
      {"/a*b*c", {"/abc", "/axbxc", "/abcbc"}, {"/ab", "/acb", "/a/bc"}},
      {"/*", {"/a", "/"}, {"/a/b"}},
  });
}

TEST(PathPattern, AQuestionMarkIsOneByte) {
  Check({
      {"/a?c",
       {"/abc", "/a.c",
        "/a\xff"
        "c"},
       {"/ac", "/abbc", "/a/c"}},
      {"/?", {"/x"}, {"/", "/\xc3\xa9"}},  // a letter of two bytes
      {"/??", {"/\xc3\xa9"}, {"/x"}},
  });
}

TEST(PathPattern, AClassIsOneByteOfASet) {
  Check({
      {"/[abc]", {"/a", "/c"}, {"/d", "/ab", "/"}},
      {"/[a-c]x", {"/bx"}, {"/dx", "/Bx"}},
      {"/[!a-c]", {"/d", "/-"}, {"/a", "/"}},
      {"/[^a]", {"/b"}, {"/a"}},
      {"/[]a]", {"/]", "/a"}, {"/b"}},
      {"/[!]a]", {"/b"}, {"/]", "/a"}},
      {"/[a-]", {"/a", "/-"}, {"/b"}},
      {"/lib[[:digit:]]", {"/lib4"}, {"/libx", "/lib"}},
      {"/[[:alpha:]_]", {"/a", "/_"}, {"/1"}},
      {"/[\\]]", {"/]"}, {"/\\"}},
      {"/[[]", {"/["}, {"/]"}},
  });
}

TEST(PathPattern, ABackslashTakesTheMeaningAway) {
  Check({
      {"/a\\*b", {"/a*b"}, {"/axb", "/a\\*b"}},
      {"/\\[x\\]", {"/[x]"}, {"/x"}},
      {"/a\\\\b", {"/a\\b"}, {"/ab"}},
      {"/\\a*", {"/abc"}, {"/\\abc"}},
      {"/\\*\\*", {"/**"}, {"/a", "/a/b"}},
  });
}

TEST(PathPattern, TwoStarsAreAnyNumberOfComponents) {
  Check({
      {"/usr/**/sh",
       {"/usr/sh", "/usr/bin/sh", "/usr/local/bin/sh"},
       {"/usr", "/sh", "/usr/bin/sh/x", "/usr/xsh"}},
      {"**/sh", {"sh", "/sh", "/bin/sh", "/usr/bin/sh"}, {"/bin/bash", "/sh/x"}},
      {"/**/b/**/d", {"/b/d", "/a/b/c/d", "/b/b/d/d", "/a/b/b/x/y/d"}, {"/b", "/d/b", "/a/b/c"}},
      {"/**/a/b/**/a/c", {"/a/b/a/c", "/a/a/b/x/a/a/c"}, {"/a/b/c", "/a/c/a/b"}},
  });
}

TEST(PathPattern, TwoStarsAtTheEndAreEverythingBelow) {
  Check({
      {"/opt/**", {"/opt/a", "/opt/a/b/c"}, {"/opt", "/optional", "/"}},
      {"/**", {"/", "/a", "/a/b"}, {"", "a"}},
      {"/opt/**/**", {"/opt/a", "/opt/a/b"}, {"/opt"}},
  });
}

TEST(PathPattern, ASlashAtTheEndIsEverythingBelow) {
  Check({{"/opt/", {"/opt/a", "/opt/a/b"}, {"/opt", "/optional/a"}},
         {"/opt/*/", {"/opt/a/b"}, {"/opt/a", "/opt"}}});
}

TEST(PathPattern, TwoStarsWithinAComponentAreOne) {
  Check({{"/usr/**x", {"/usr/x", "/usr/abx"}, {"/usr/a/x"}}, {"/a**", {"/a", "/abc"}, {"/a/b"}}});
}

TEST(PathPattern, WithoutASlashItIsOfNames) {
  for (const char* text : {"sh", "*.so", "**", "[ab]?", "\\*"})
    EXPECT_TRUE(PathPattern(text).IsOfNames()) << text;
  for (const char* text : {"/sh", "/", "**/sh", "/a/"}) EXPECT_FALSE(PathPattern(text).IsOfNames()) << text;
  EXPECT_TRUE(PathPattern("py*").MatchesName("python3"));
  EXPECT_FALSE(PathPattern("py*").MatchesName("cpython"));
  EXPECT_TRUE(PathPattern("**").MatchesName("anything"));
  EXPECT_FALSE(PathPattern("sh").MatchesPath(PathText("sh"))) << "a pattern of names has no say in paths";
  EXPECT_FALSE(PathPattern("**/sh").MatchesName("sh")) << "nor the other way round";
}

TEST(PathPattern, WhatIsNoPatternIsSaid) {
  const std::vector<std::pair<std::string_view, std::string_view>> complaints = {
      {"", "an empty pattern"},
      {"/a\0b"sv, "a NUL in a pattern"},
      {"bin/sh", "a pattern with a '/' in it begins with '/' or with '**/'"},
      {"*/sh", "a pattern with a '/' in it begins with '/' or with '**/'"},
      {"/a//b", "'//' is in no path"},
      {"//a", "'//' is in no path"},
      {"//", "'//' is in no path"},
      {"/a//", "'//' is in no path"},
      {"/./a", "'.' and '..' are in no path that the kernel reports"},
      {"/a/..", "'.' and '..' are in no path that the kernel reports"},
      {"..", "'.' and '..' are in no path that the kernel reports"},
      {"/a\\", "a '\\' with nothing behind it"},
      {"/a\\/b", "a '\\' with nothing behind it"},
      {"/[ab", "a '[' without its ']'"},
      {"/[a/b]", "a '[' without its ']'"},
      {"[", "a '[' without its ']'"},
      {"[]", "a '[' without its ']'"},
      {"[!]", "a '[' without its ']'"},
      {"[a\\", "a '\\' with nothing behind it"},
      {"[[:alpha:]", "a '[' without its ']'"},
      {"[[:letters:]]", "a '[:' that names no class of characters"},
      {"[[:alpha]", "a '[:' that names no class of characters"},
      {"[[.a.]]", "'[.' and '[=' are not known here"},
      {"[[=a=]]", "'[.' and '[=' are not known here"},
  };
  for (const auto& [text, complaint] : complaints) EXPECT_EQ(Complaint(text), complaint) << text;
  for (const std::string_view text : {"a]", "]", "/a/...", "/ ", "!", "/[!!]", "/a:b"})
    EXPECT_EQ(Complaint(text), "") << text;
}

TEST(PathPattern, APathMayBeAnyBytes) {
  EXPECT_TRUE(Matches("/tmp/*", "/tmp/\xff\xfe\n\x01"));
  EXPECT_TRUE(Matches("/tmp/*", "/tmp/[*?\\"));
  EXPECT_TRUE(Matches("/tmp/\xff*", "/tmp/\xff\xfe"));
  EXPECT_TRUE(Matches("/tmp/*", "/tmp/gone (deleted)"));
}

TEST(PathPattern, ATextWithANulIsNoPath) {
  EXPECT_FALSE(Matches("/**", "/tmp/a\0b"sv));
  EXPECT_FALSE(Matches("/tmp/a", "/tmp/a\0"sv));
  EXPECT_TRUE(PathText("/tmp/a\0"sv).Components().empty());
}

// Patterns that make a naive matcher try every way to cut the text: each of these would take years.
TEST(PathPattern, WhatIsHardForANaiveMatcherEnds) {
  std::string stars = "/";
  for (int i = 0; i < 100; ++i) stars += "*a";
  EXPECT_FALSE(Matches(stars + "*b", "/" + std::string(255, 'a')));
  EXPECT_TRUE(Matches(stars + "*", "/" + std::string(255, 'a')));
  EXPECT_FALSE(Matches(stars + "[b]", "/" + std::string(254, 'a') + "c"));

  std::string depths = "/";
  std::string deep;
  for (int i = 0; i < 100; ++i) depths += "**/a/";
  for (int i = 0; i < 2000; ++i) deep += "/a";
  EXPECT_FALSE(Matches(depths + "b", deep));
  EXPECT_TRUE(Matches(depths + "*", deep));
}

}  // namespace
