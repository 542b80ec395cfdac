#include "qor_common/ini.h"

#include <gtest/gtest.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace qor::tools {
namespace {

using boost::property_tree::ini_parser_error;
using boost::property_tree::ptree;

ptree Read(const std::string& text) {
  std::istringstream stream(text);
  ptree tree;
  ReadIni(stream, tree);
  return tree;
}

std::string ValueOf(const ptree& tree, const std::string& key) {
  const auto found = tree.find(key);
  return found != tree.not_found() ? found->second.data() : "(absent)";
}

TEST(Ini, KeysAndValuesLoseTheBlanksAroundThem) {
  const ptree tree = Read(" a = 1 2 \r\n\tb\t=\t\nc=\n\n  \nd=e=f");
  EXPECT_EQ(tree.size(), 4U);
  EXPECT_EQ(ValueOf(tree, "a"), "1 2");
  EXPECT_EQ(ValueOf(tree, "b"), "");
  EXPECT_EQ(ValueOf(tree, "c"), "");
  EXPECT_EQ(ValueOf(tree, "d"), "e=f");
}

TEST(Ini, QuotesStay) {
  EXPECT_EQ(ValueOf(Read("a=\" x \""), "a"), "\" x \"");
}

TEST(Ini, ADotInAKeyMeansNothing) {
  const ptree tree = Read("a.b=1\n[c.d]\ne.f=2\n");
  EXPECT_EQ(ValueOf(tree, "a.b"), "1");
  EXPECT_EQ(ValueOf(tree.find("c.d")->second, "e.f"), "2");
}

TEST(Ini, KeysBelongToTheSectionBeforeThem) {
  const ptree tree = Read("k=0\n[ one ]\nk=1\n[two] behind\nk=2\n[three]\n");
  EXPECT_EQ(tree.size(), 4U);
  EXPECT_EQ(ValueOf(tree, "k"), "0");
  EXPECT_EQ(ValueOf(tree.find("one")->second, "k"), "1");
  EXPECT_EQ(ValueOf(tree.find("two")->second, "k"), "2");
  EXPECT_TRUE(tree.find("three")->second.empty());
}

TEST(Ini, LinesThatBeginWithASemicolonOrAHashAreComments) {
  const ptree tree = Read("; a=1\n#b=2\n  # c=3\nd=4 # 5\n");
  EXPECT_EQ(tree.size(), 1U);
  EXPECT_EQ(ValueOf(tree, "d"), "4 # 5");
}

TEST(Ini, AKeyThatComesAgainReplacesTheValue) {
  const ptree tree = Read("a=1\na=2\n[s]\na=3\n");
  EXPECT_EQ(tree.count("a"), 1U);
  EXPECT_EQ(ValueOf(tree, "a"), "2");
  EXPECT_EQ(ValueOf(tree.find("s")->second, "a"), "3");
}

TEST(Ini, AnEmptyTextGivesAnEmptyTree) {
  EXPECT_TRUE(Read("").empty());
  std::istringstream stream("");
  ptree tree;
  tree.put("old", 1);
  ReadIni(stream, tree);
  EXPECT_TRUE(tree.empty()) << "what was in the tree goes";
}

// A stream that breaks after one line, as a file on a failing disk does.
class BreakingBuffer : public std::streambuf {
 protected:
  int_type underflow() override {
    if (m_given) throw std::runtime_error("the disk is gone");
    m_given = true;
    setg(m_line, m_line, m_line + sizeof(m_line) - 1);
    return traits_type::to_int_type(*gptr());
  }

 private:
  bool m_given = false;
  char m_line[5] = "a=1\n";
};

struct Failure {
  const char* text;
  const char* message;
  unsigned long line;
};

TEST(Ini, EachFailureHasItsMessageAndLineAndLeavesTheTreeAlone) {
  const Failure failures[] = {
      {"a=1\n\nb\n", "'=' character not found in line", 3},
      {"[s\n", "unmatched '['", 1},
      {"[\n", "unmatched '['", 1},
      {"[s]\na=1\n[s]\n", "duplicate section name", 3},
      {"[s]\n[ s ]\n", "duplicate section name", 2},
      {"s=1\n[s]\n", "duplicate section name", 2},
      {"=1\n", "key expected", 1},
      {"a=1\n  =1\n", "key expected", 2},
  };
  for (const Failure& failure : failures) {
    SCOPED_TRACE(failure.text);
    std::istringstream stream(failure.text);
    ptree tree;
    tree.put("old", 1);
    try {
      ReadIni(stream, tree);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const ini_parser_error& error) {
      EXPECT_EQ(error.message(), failure.message);
      EXPECT_EQ(error.line(), failure.line);
    }
    EXPECT_EQ(tree.size(), 1U);
    EXPECT_EQ(ValueOf(tree, "old"), "1");
  }
}

TEST(Ini, AStreamThatBreaksIsAReadError) {
  BreakingBuffer buffer;
  std::istream stream(&buffer);
  ptree tree;
  try {
    ReadIni(stream, tree);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const ini_parser_error& error) {
    EXPECT_EQ(error.message(), "read error");
  }
  EXPECT_TRUE(tree.empty());
}

TEST(Ini, NulAndBytesThatAreNotUtf8ArePartOfAValue) {
  using namespace std::string_literals;
  EXPECT_EQ(ValueOf(Read("a=x\0y\xff\n"s), "a"), "x\0y\xff"s);
}

}  // namespace
}  // namespace qor::tools
