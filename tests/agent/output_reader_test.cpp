#include "agent/export/output_reader.h"

#include <gtest/gtest.h>

namespace vnagent {
namespace {

using nlohmann::json;

TEST(OutputReaderTest, KeepsAllButTheContentsOfLists) {
  EXPECT_EQ(readOutput(R"({"a": {"b": 1, "c": -2, "d": 0.5, "e": null, "f": "x", "g": false},
                           "h": {}, "i": {"j": {"k": "l"}}})"),
            json::parse(R"({"a": {"b": 1, "c": -2, "d": 0.5, "e": null, "f": "x", "g": false},
                            "h": {}, "i": {"j": {"k": "l"}}})"));
  EXPECT_EQ(readOutput(R"({"a": ["p", {"q": [1]}, []], "b": [], "c": {"d": [[]], "e": 1}})"),
            json::parse(R"({"a": true, "b": true, "c": {"d": true, "e": 1}})"));
  EXPECT_EQ(readOutput("[{}]"), json(true));
  EXPECT_EQ(readOutput(R"({"a": 1, "a": {"b": 2}})"), json::parse(R"({"a": {"b": 2}})"));
}

TEST(OutputReaderTest, DiscardsWhatIsNotJson) {
  for (const char* text : {"", "{", R"({"a")", R"({"a": [)", "{} {}", "{]", R"({"a": [1}})"}) {
    EXPECT_TRUE(readOutput(text).is_discarded()) << text;
  }
}

}  // namespace
}  // namespace vnagent
