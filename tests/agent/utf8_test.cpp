// UTF-8, and what may be written to a terminal.
#include "agent/json/utf8.h"

#include <gtest/gtest.h>

namespace vnagent {
namespace {

TEST(Utf8, ControlCharactersAreEscaped) {
  EXPECT_EQ(escapeControls("a\tb\n\x1b[31m\x7f"), "a\\u0009b\\u000a\\u001b[31m\\u007f");
  EXPECT_EQ(escapeControls("\xc2\x80\xc2\x9b\xc2\x9f"), "\\u0080\\u009b\\u009f");
  EXPECT_EQ(escapeControls(std::string_view("\0", 1)), "\\u0000");
}

TEST(Utf8, OtherCharactersStayAsTheyAre) {
  const std::string text = " ~\\\"\xc2\xa0\xc3\xa4\xdf\xbf\xe2\x82\xac\xf0\x9f\x98\x80";
  EXPECT_EQ(escapeControls(text), text);
}

TEST(Utf8, BytesThatAreNoUtf8AreEscapedOneByOne) {
  EXPECT_EQ(escapeControls("a\xff\xc3(\x9b"), "a\\xff\\xc3(\\x9b");
  EXPECT_EQ(escapeControls("\xed\xa0\x80"), "\\xed\\xa0\\x80");
}

TEST(Utf8, ACharacterHasOneToFourBytes) {
  EXPECT_EQ(utf8Length(""), 0U);
  EXPECT_EQ(utf8Length("ab"), 1U);
  EXPECT_EQ(utf8Length("\xc3\xa4\xc3\xa4"), 2U);
  EXPECT_EQ(utf8Length("\xe2\x82\xac"), 3U);
  EXPECT_EQ(utf8Length("\xf0\x9f\x98\x80"), 4U);
}

}  // namespace
}  // namespace vnagent
