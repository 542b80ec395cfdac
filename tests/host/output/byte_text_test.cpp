// Bytes that should be text.
#include "host/output/byte_text.h"

#include <gtest/gtest.h>

#include "host/output/json.h"

namespace pmhost {
namespace {

TEST(ByteText, TextIsWhatItIs) {
  EXPECT_EQ(DecodeBytes(""), u"");
  EXPECT_EQ(DecodeBytes("plain \u00fc \u20ac \U0001f600"), u"plain \u00fc \u20ac \U0001f600");
}

TEST(ByteText, JsonShowsItAsItShowsTheBytes) {
  for (const std::string_view bytes : {std::string_view("a\xff"
                                                        "b"),
                                       std::string_view("\xc3"), std::string_view("\xed\xa0\x80"),
                                       std::string_view("\xf0\x9f\x98"), std::string_view("\0\x1b\x7f", 3)}) {
    JsonLine ofBytes;
    ofBytes.Begin();
    ofBytes.Text("text", bytes);
    const zym::types::string16_t decoded = DecodeBytes(bytes);
    JsonLine ofText;
    ofText.Begin();
    ofText.Text("text", std::optional<std::u16string_view>(decoded));
    EXPECT_EQ(ofText.End(), ofBytes.End());
  }
}

}  // namespace
}  // namespace pmhost
