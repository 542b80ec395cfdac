#include "process_manager/process_cache/shared_texts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qor::process_manager::process_cache {
namespace {

using Text = SharedTexts::Text;
using Use = SharedTexts::Use;
using String = zym::types::string16_t;

Text MakeText(const char16_t* text) {
  return std::make_shared<const String>(text);
}

TEST(SharedTexts, KeepsEqualTextsOnce) {
  SharedTexts texts;
  const Use copied = texts.Share(String(u"/bin/program"));
  const Use kept = texts.Share(MakeText(u"/bin/program"));
  EXPECT_EQ(copied->get(), kept->get());
  EXPECT_EQ(**kept, u"/bin/program");
  EXPECT_EQ(texts.Size(), 1U);
}

TEST(SharedTexts, KeepsATextThatIsNewWithoutACopy) {
  SharedTexts texts;
  const Text text = MakeText(u"program --option");
  EXPECT_EQ(texts.Share(text)->get(), text.get());
}

TEST(SharedTexts, ForgetsATextWithItsLastUse) {
  SharedTexts texts;
  Use first = texts.Share(String(u"a"));
  Use second = texts.Share(String(u"a"));
  const Use other = texts.Share(String(u"b"));
  first.reset();
  EXPECT_EQ(texts.Size(), 2U);
  second.reset();
  EXPECT_EQ(texts.Size(), 1U);
  EXPECT_EQ(**texts.Share(String(u"a")), u"a");
}

TEST(SharedTexts, ATextOutlivesItsUseWhereOthersShareIt) {
  SharedTexts texts;
  const Text text = *texts.Share(String(u"shared with an answer"));
  EXPECT_EQ(texts.Size(), 0U);
  EXPECT_EQ(*text, u"shared with an answer");
}

TEST(SharedTexts, AnEmptyTextIsATextAndNullIsNone) {
  SharedTexts texts;
  const Use empty = texts.Share(String());
  EXPECT_TRUE((*empty)->empty());
  EXPECT_EQ(texts.Share(Text()), nullptr);
  EXPECT_EQ(texts.Size(), 1U);
}

TEST(SharedTexts, FindsEachOfManyTexts) {
  SharedTexts texts;
  std::vector<Use> uses;
  for (char16_t letter = u'a'; letter <= u'z'; ++letter)
    for (std::size_t length = 1; length <= 100; ++length) uses.push_back(texts.Share(String(length, letter)));
  EXPECT_EQ(texts.Size(), uses.size());
  for (const Use& use : uses) EXPECT_EQ(texts.Share(String(**use)), use);
}

}  // namespace
}  // namespace qor::process_manager::process_cache
