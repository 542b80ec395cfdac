// Lines of JSON, read back by another's parser.
#include "host/output/json.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <limits>
#include <string>

namespace pmhost {
namespace {

using rapidjson::Document;

Document Parse(std::string_view text) {
  Document document;
  document.Parse(text.data(), text.size());
  EXPECT_FALSE(document.HasParseError()) << text;
  return document;
}

// What comes back of a text of one member.
template <class Text>
std::string ThroughJson(Text text) {
  JsonLine line;
  line.Begin();
  line.Text("text", text);
  const Document document = Parse(line.End());
  return {document["text"].GetString(), document["text"].GetStringLength()};
}

template <class Text>
std::string LineOf(Text text) {
  JsonLine line;
  line.Begin();
  line.Text("text", text);
  return std::string(line.End());
}

TEST(JsonLine, AnEmptyObjectIsOne) {
  JsonLine line;
  line.Begin();
  EXPECT_EQ(line.End(), "{}");
}

TEST(JsonLine, AnObjectMayHoldAnother) {
  JsonLine line;
  line.Begin();
  line.BeginObject("inner");
  line.Number("most", 9'007'199'254'740'991);
  line.EndObject();
  line.Null("behind");
  EXPECT_EQ(line.End(), R"({"inner":{"most":9007199254740991},"behind":null})");
}

TEST(JsonLine, MembersComeInTheirOrder) {
  JsonLine line;
  line.Begin();
  line.Text("text", std::string_view("one"));
  line.Number("number", 4294967295);
  line.Number("no number", std::nullopt);
  line.LongNumber("long", std::numeric_limits<std::uint64_t>::max());
  line.LongNumber("no long", std::nullopt);
  line.Boolean("yes", true);
  line.Boolean("no", false);
  line.Null("nothing");
  line.Text("no text", std::optional<std::u16string_view>());
  EXPECT_EQ(line.End(), R"({"text":"one","number":4294967295,"no number":null,"long":"18446744073709551615",)"
                        R"("no long":null,"yes":true,"no":false,"nothing":null,"no text":null})");
}

TEST(JsonLine, ListsStandBetweenMembers) {
  JsonLine line;
  line.Begin();
  line.BeginList("empty");
  line.EndList();
  line.BeginList("two");
  line.Item("[");
  line.Item("{");
  line.EndList();
  line.Null("after");
  EXPECT_EQ(line.End(), R"({"empty":[],"two":["[","{"],"after":null})");
}

TEST(JsonLine, ASecondObjectHasNothingOfTheFirst) {
  JsonLine line;
  line.Begin();
  line.Text("first", std::string_view("a long text that is not to be seen again"));
  line.End();
  line.Begin();
  line.Null("second");
  EXPECT_EQ(line.End(), R"({"second":null})");
}

TEST(JsonLine, TextOfEveryKindComesBackAsItWas) {
  for (const std::string text :
       {"", "plain", "\"", "\\", "\"quoted\" and \\escaped\\", "a\nb\r\tc", "\x01\x1f\x7f", "end\\",
        "\u00fc\u20ac\U0001f600", "before \u00fc after", "[{,:}]"})
    EXPECT_EQ(ThroughJson(std::string_view(text)), text);
  EXPECT_EQ(ThroughJson(std::string_view("a\0b", 3)), std::string("a\0b", 3));
}

TEST(JsonLine, WideTextOfEveryKindComesBackAsUtf8) {
  const std::u16string text = u"plain \" \\ \n \x7f \u00fc\u20ac\U0001f600 end";
  EXPECT_EQ(ThroughJson(std::optional<std::u16string_view>(text)),
            "plain \" \\ \n \x7f \u00fc\u20ac\U0001f600 end");
}

TEST(JsonLine, ControlCharactersAreEscaped) {
  EXPECT_EQ(LineOf(std::string_view("\x1b[2J\x7f")), R"({"text":"\u001b[2J\u007f"})");
}

TEST(JsonLine, WhatIsNoTextIsEscapedAndNeverDropped) {
  EXPECT_EQ(LineOf(std::string_view("a\xff\xc3z")), R"({"text":"a\udcff\udcc3z"})");
  const char16_t lone[] = {u'a', 0xd800, u'z', 0xdc00};
  EXPECT_EQ(LineOf(std::optional(std::u16string_view(lone, 4))), R"({"text":"a\ud800z\udc00"})");
}

}  // namespace
}  // namespace pmhost
