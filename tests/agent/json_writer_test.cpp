// What the writer of JSON prints, read by another program's parser.
#include "agent/json/json_writer.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace vnagent {
namespace {

std::string arrayOf(const std::vector<std::string_view>& values) {
  std::string text;
  JsonWriter(text, JsonWriter::Style::kOneLine).texts(values);
  return text;
}

TEST(JsonWriterTest, EscapesWhatNeedsItAtEachPlace) {
  for (const char c : {'"', '\\', '\n', '\x1f', '\x7f', '\0'}) {
    for (size_t size = 1; size <= 40; ++size) {
      for (size_t at = 0; at < size; ++at) {
        std::string value(size, 'x');
        value[at] = c;
        std::string text;
        appendJsonString(text, value);
        ASSERT_EQ(nlohmann::json::parse(text), value) << "byte " << at << " of " << size;
      }
    }
  }
}

TEST(JsonWriterTest, ArrayOfTextsIsThatOfItsStrings) {
  EXPECT_EQ(arrayOf({}), "[]");
  EXPECT_EQ(arrayOf({"a"}), R"(["a"])");
  EXPECT_EQ(arrayOf({"a", "", "b\"c"}), R"(["a", "", "b\"c"])");
}

TEST(JsonWriterTest, ArrayOfTextsIsAValueAmongOthers) {
  const std::vector<std::string_view> values{"p", "q"};
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{').key("a").texts(values).key("b").texts({}).close('}');
  EXPECT_EQ(text, R"({"a": ["p", "q"], "b": []})");
}

}  // namespace
}  // namespace vnagent
