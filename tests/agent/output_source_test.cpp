// What an export reads from a file of outputs.
#include "agent/export/output_source.h"

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// "document 1 {...}" of each event; `most` ends the reading.
std::vector<std::string> events(const std::string& text, size_t most = SIZE_MAX) {
  std::istringstream in(text);
  std::vector<std::string> found;
  readOutputs(in, [&](const OutputEvent& event) {
    switch (event.kind) {
      case OutputEvent::Kind::kDocument:
        found.push_back("document " + event.id + " " + simdjson::minify(event.data));
        break;
      case OutputEvent::Kind::kPatch:
        found.push_back("patch " + event.id + " " + simdjson::minify(event.data));
        break;
      case OutputEvent::Kind::kBookmark:
        found.push_back("bookmark " + event.id);
        break;
      case OutputEvent::Kind::kEnd:
        found.push_back("end");
        break;
      default:
        found.push_back("fault: " + event.text);
    }
    return found.size() < most;
  });
  return found;
}

TEST(OutputSource, ReadsDocumentsAndTheLinesOfARun) {
  EXPECT_THAT(events("{\"a\": 1}\n\n{\"b\": []}\r\n"),
              ElementsAre(R"(document 1 {"a":1})", R"(document 3 {"b":[]})", "end"));
  EXPECT_THAT(
      events("{\"step\": 0, \"output\": {\"a\": 1}}\n{\"step\": 1, \"change\": {\"a\": 2}}\n"
             "{\"step\": 2, \"ok\": false}"),
      ElementsAre(R"(document 1 {"a":1})", R"(patch 2 {"a":2})", "bookmark 3", "end"));
  EXPECT_THAT(events(""), ElementsAre("end"));
}

TEST(OutputSource, ReadsOneDocumentOverSeveralLines) {
  EXPECT_THAT(events("{\n  \"a\": {\n    \"b\": 1\n  }\n}\n"),
              ElementsAre(R"(document 1 {"a":{"b":1}})", "end"));
}

TEST(OutputSource, EndsWhereItIsToldTo) {
  EXPECT_THAT(events("{}\n{}\n", 1), ElementsAre("document 1 {}"));
}

TEST(OutputSource, EndsAtAFault) {
  EXPECT_THAT(events("{}\n{\"a\": \n{}\n"),
              ElementsAre("document 1 {}", HasSubstr("fault: line 2 is not JSON: ")));
  EXPECT_THAT(events("{}\n[]\n{}\n"),
              ElementsAre("document 1 {}", "fault: line 2 is no JSON object"));
  for (const std::string& text :
       {std::string("{"), std::string("{} {}"), std::string("{\"a\": \"\xff\"}"),
        std::string("{\"a\": 1e999}"), std::string(5000, '[')}) {
    EXPECT_THAT(events(text), ElementsAre(HasSubstr("fault: line 1 is not JSON: "))) << text;
  }
}

}  // namespace
}  // namespace vnagent
