// The command check, and what run has in common with it: inputs, faults and how they are reported.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/agent/command_support.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Check : public Commands {
 protected:
  // What is said of each fault of a document that is named "c".
  std::string faultsOf(std::string_view text) const {
    const auto path = file("c", text);
    const auto result = vnagent({"check", path});
    EXPECT_EQ(result.status, 3) << text;
    EXPECT_THAT(result.out, IsEmpty());
    return withoutFolder(result.err);
  }

  std::string withoutFolder(std::string text) const {
    const std::string prefix = folder_.string() + "/";
    for (auto at = text.find(prefix); at != text.npos; at = text.find(prefix)) {
      text.erase(at, prefix.size());
    }
    return text;
  }
};

// Faults.

TEST_F(Check, ManyFlawsBelowALongKeyAreCounted) {
  std::string text = "{\"" + std::string(200000, 'k') + "\": [1e999";
  for (int i = 0; i < 5000; ++i) text += ",1e999";
  const std::string faults = faultsOf(text + "]}");
  // A place takes as much as the key, so that only a few are given.
  EXPECT_THAT(faults, HasSubstr(" more like this\n"));
  EXPECT_LT(faults.size(), 4U << 20);
}

TEST_F(Check, EveryFaultIsReported) {
  const auto result = vnagent({"check", file("cloud.json", kBadCloud)});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("cloud.json:5: /region/R/portBinding/q: "),
                                HasSubstr("cloud.json:5: /region/R/portBinding/r: ")));
}

TEST_F(Check, FollowsTheStreamAndSkipsWhatIsRefused) {
  const auto cloud = file("cloud.json", kCloud);
  EXPECT_EQ(vnagent({"check", cloud}).status, 0);
  const auto result = vnagent(
      {"check", cloud, "--events",
       file("events.jsonl",
            "{\"patch\": {\"region\": {\"R\": {\"port\": {\"p\": null}}}}}\n"
            "{\"patch\": {\"region\": {\"R\": {\"portBinding\": {\"p\": null}}}}}\n"
            "{\"patch\": {\"region\": {\"R\": {\"port\": {\"p\": null}}}}}\n{\"advance\": -1}\n")});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, AllOf(HasSubstr("events.jsonl:1: /region/R/portBinding/p: no port"),
                                Not(HasSubstr("events.jsonl:2")), Not(HasSubstr("events.jsonl:3")),
                                HasSubstr("events.jsonl:4: /advance: ")));
}

TEST_F(Check, FaultsComeInTheOrderOfTheText) {
  EXPECT_EQ(
      faultsOf("{\n\"x\": 1, \"a\": 1,\n\"region\": {\"R\": {\n\"portBinding\": {\"q\": {}},\n"
               "\"port\": {\"p\": {\"vlanType\": 256}}}},\n\"config\": {\"enabled\": 1}}"),
      "vnagent: error: c:2: /x: a cloud document has no member \"x\"\n"
      "vnagent: error: c:2: /a: a cloud document has no member \"a\"\n"
      "vnagent: error: c:4: /region/R/portBinding/q: no port \"q\" in region \"R\"\n"
      "vnagent: error: c:5: /region/R/port/p/vlanType: 256 is not an integer 0 to 255\n"
      "vnagent: error: c:6: /config/enabled: 1 is not true or false\n");
}

TEST_F(Check, ARepeatedKeyHasTheLineOfItsRepetition) {
  EXPECT_EQ(faultsOf("{\"region\": {\n\"R\": {},\n\"R\": {},\n\"S\": {\"x\": 1},\n\"R\": {}}}"),
            "vnagent: error: c:3: /region/R: the key \"R\" is repeated in its object\n"
            "vnagent: error: c:4: /region/S/x: a region has no member \"x\"\n"
            "vnagent: error: c:5: /region/R: the key \"R\" is repeated in its object\n");
}

TEST_F(Check, ANumberOutOfRangeIsOneFaultAmongOthers) {
  EXPECT_EQ(
      faultsOf("{\"region\": {\"R\": {\n\"x\": 1,\n\"syncInterval\": 1e999,\n\"port\": {\"p\": "
               "{\"vlanType\": -1e999}}}},\n\"y\": 1}"),
      "vnagent: error: c:2: /region/R/x: a region has no member \"x\"\n"
      "vnagent: error: c:3: /region/R/syncInterval: the number 1e999 is too large\n"
      "vnagent: error: c:4: /region/R/port/p/vlanType: the number -1e999 is too large\n"
      "vnagent: error: c:5: /y: a cloud document has no member \"y\"\n");
}

TEST_F(Check, ALevelThatIsNoUnicodeIsOneFaultAndNoMissingSegment) {
  EXPECT_EQ(faultsOf(R"({"region": {"R": {"port": {"p": {}}, "portBinding": {"p": )"
                     R"({"portToHostBinding": {"h": {"segment": {"0": "\ud800"}}}}}}}})"),
            "vnagent: error: c:1: /region/R/portBinding/p/portToHostBinding/h/segment/0: the "
            "string is not valid Unicode: it has half of a surrogate pair\n");
}

TEST_F(Check, ControlCharactersDoNotReachTheTerminal) {
  EXPECT_EQ(faultsOf(R"({"region": {"a\u001b[31m\n": {}}, "\u009b\u007f": 1})"),
            "vnagent: error: c:1: /region/a\\u001b[31m\\u000a: \"a\\u001b[31m\\u000a\" is no name: "
            "it has a control character\n"
            "vnagent: error: c:1: /\\u009b\\u007f: a cloud document has no member "
            "\"\\u009b\\u007f\"\n");
  const auto result = vnagent({"check", "a\nb\x1b"});
  EXPECT_EQ(result.err, "vnagent: error: a\\u000ab\\u001b: No such file or directory\n");
}

TEST_F(Check, APlaceInTheOutputOfRunIsExact) {
  const auto events = file("e", R"({"patch": {"a\u001b\u007f\\": 1}})");
  const auto result = vnagent({"run", "--events", events, "--each", "--keep-going"});
  EXPECT_THAT(result.out, HasSubstr(R"("error": "/a\u001b\u007f\\: a cloud document has no)"));
}

std::string documentOf(size_t faults) {
  std::string text = "{\"region\": {\"R\": {";
  for (size_t i = 0; i < faults; ++i) {
    text += (i > 0 ? ",\n\"x" : "\n\"x") + std::to_string(1000 + i).substr(1) + "\": 1";
  }
  return text + "}}}";
}

TEST_F(Check, TheFirstHundredFaultsArePrintedAndThenTheirCount) {
  const std::string hundred = faultsOf(documentOf(100));
  EXPECT_EQ(std::ranges::count(hundred, '\n'), 100);
  EXPECT_THAT(hundred, Not(HasSubstr("faults")));
  const std::string more = faultsOf(documentOf(101));
  EXPECT_EQ(std::ranges::count(more, '\n'), 101);
  EXPECT_THAT(more,
              AllOf(HasSubstr("/region/R/x099: "), Not(HasSubstr("x100")),
                    testing::EndsWith("vnagent: error: 101 faults; the first 100 are shown\n")));
}

TEST_F(Check, FaultsOfEventsCountLikeThoseOfTheDocument) {
  const auto cloud = file("cloud.json", documentOf(99));
  const auto events = file("events.jsonl", "{\"x\": 1}\n{\"y\": 1}\n");
  const auto result = vnagent({"check", cloud, "--events", events});
  EXPECT_THAT(result.err, AllOf(HasSubstr("events.jsonl:1: /x: "), Not(HasSubstr("events.jsonl:2")),
                                HasSubstr("error: 101 faults; the first 100 are shown\n")));
}

TEST_F(Check, TheFirstFaultOfTheTextIsTheOneThatRunReports) {
  const auto cloud = file("cloud.json", "{\n\"y\": 1, \"region\": {\"R\": {}, \"R\": {}}}");
  const auto result = vnagent({"run", cloud, "--each"});
  EXPECT_EQ(withoutFolder(result.err),
            "vnagent: error: cloud.json:2: /y: a cloud document has no member \"y\"\n");
  EXPECT_THAT(result.out, HasSubstr(R"("error": "/y: a cloud)"));
}

// A refused document.

TEST_F(Check, ARefusedDocumentLeavesTheFormOfEventsToBeChecked) {
  const auto cloud = file("cloud.json", kBadCloud);
  const auto events = file("events.jsonl",
                           "{\"patch\": {\"region\": {\"R\": {\"portBinding\": {\"z\": {}}}}}}\n"
                           "{\"patch\": 7}\n{\"advance\": -1}\nnonsense\n"
                           "{\"patch\": {\"a\": 1e999, \"b\": 1, \"b\": 2}}\n");
  const auto result = vnagent({"check", cloud, "--events", events});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(
      withoutFolder(result.err),
      "vnagent: error: cloud.json:5: /region/R/portBinding/q: no port \"q\" in region \"R\"\n"
      "vnagent: error: cloud.json:5: /region/R/portBinding/r: no port \"r\" in region \"R\"\n"
      "vnagent: error: events.jsonl:2: : 7 is not an object: a patch\n"
      "vnagent: error: events.jsonl:3: /advance: -1 is not a number of seconds (0 to "
      "1000000000)\n"
      "vnagent: error: events.jsonl:4: : not JSON: column 2: syntax error while parsing value - "
      "invalid literal; last read: 'no'\n"
      "vnagent: error: events.jsonl:5: /a: the number 1e999 is too large\n"
      "vnagent: error: events.jsonl:5: /b: the key \"b\" is repeated in its object\n"
      "vnagent: warning: cloud.json: refused, so that only the form of the events in "
      "events.jsonl was checked\n");
}

TEST_F(Check, ARefusedDocumentIsRefusedAlsoWhenItsEventsAreFine) {
  const auto cloud = file("cloud.json", kBadCloud);
  const auto result = vnagent({"check", cloud, "--events", file("e", "{\"advance\": 1}\n")});
  EXPECT_EQ(result.status, 3);
  // Without events nothing is said about them.
  EXPECT_THAT(vnagent({"check", cloud}).err, Not(HasSubstr("warning")));
}

TEST_F(Check, ADocumentThatIsTakenIsSilent) {
  const auto result =
      vnagent({"check", file("cloud.json", kCloud), "--events", file("e", "# nothing\n\n")});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out + result.err, IsEmpty());
}

// Inputs.

TEST_F(Check, StandardInputIsRead) {
  EXPECT_EQ(vnagentReading(kCloud, {"check", "-"}).status, 0);
  EXPECT_THAT(vnagentReading(kCloud, {"run", "-", "--format", "json"}).out, HasSubstr("\"R\": {"));
  auto result = vnagentReading(kBadCloud, {"check", "-"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("error: <stdin>:5: /region/R/portBinding/q: "));
  EXPECT_THAT(vnagentReading(kBadCloud, {"run", "-"}).err, HasSubstr("error: <stdin>:5: /region"));
  EXPECT_THAT(vnagentReading("{", {"check", "-"}).err, HasSubstr("error: <stdin>:1: not JSON: "));
  const auto cloud = file("cloud.json", kCloud);
  result = vnagentReading("{\"advance\": 1}\n{\"x\": 1}", {"check", cloud, "--events", "-"});
  EXPECT_EQ(result.err, "vnagent: error: <stdin>:2: /x: an event has no member \"x\"\n");
  result = vnagentReading("{\"advance\": 1}", {"run", cloud, "--events", "-", "--each"});
  EXPECT_THAT(result.out, HasSubstr("{\"step\": 1, \"ok\": true, \"time\": 1, "));
  EXPECT_THAT(vnagentReading("{\"x\": 1}", {"run", "--events", "-"}).err,
              HasSubstr("error: <stdin>:1: /x: "));
}

TEST_F(Check, InputsAreReadUpToTheirLimit) {
  const std::string text = R"({"region": {"R": {}}})";
  const auto size = std::to_string(text.size());
  const auto less = std::to_string(text.size() - 1);
  const auto cloud = file("cloud.json", text);
  for (const auto* command : {"check", "run"}) {
    EXPECT_EQ(vnagent({command, cloud, "--max-input", size}).status, 0);
    auto result = vnagent({command, cloud, "--max-input", less});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(withoutFolder(result.err),
              "vnagent: error: cloud.json: it has more than 20 bytes (--max-input)\n");
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_EQ(vnagentReading(text, {command, "-", "--max-input", size}).status, 0);
    result = vnagentReading(text, {command, "-", "--max-input", less});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err, "vnagent: error: <stdin>: it has more than 20 bytes (--max-input)\n");
  }
}

TEST_F(Check, TheLimitOfAStreamIsThatOfALine) {
  const auto cloud = file("cloud.json", "{}");
  std::string lines;
  for (int i = 0; i < 10; ++i) lines += "{\"advance\": 1}\n";
  const auto events = file("events.jsonl", lines + "{\"advance\": 10}\n{\"advance\": 1}\n");
  for (const auto* command : {"check", "run"}) {
    EXPECT_EQ(vnagent({command, cloud, "--events", events, "--max-input", "15"}).status, 0);
    const auto result = vnagent({command, cloud, "--events", events, "--max-input", "14"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(withoutFolder(result.err),
              "vnagent: error: events.jsonl:11: the line has more than 14 bytes (--max-input)\n");
  }
}

TEST_F(Check, LinesOfAnyLengthAreRead) {
  const std::string filler(200000, ' ');
  const std::string lines = "{\"advance\": 1}" + filler + "\n#" + filler + "\n" + filler +
                            "{\"advance\": 2}\n\n{\"advance\":" + filler + "4}";
  const auto result = vnagentReading(lines, {"run", "--events", "-", "--each"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("{\"step\": 3, \"ok\": true, \"time\": 7, "));
  EXPECT_THAT(result.out, Not(HasSubstr("\"step\": 4")));
}

TEST_F(Check, AnInputThatCannotBeReadIsNamed) {
  const auto missing = (folder_ / "none").string();
  const auto locked = (folder_ / "loop").string();
  std::filesystem::create_symlink("loop", folder_ / "loop");
  const auto empty = file("empty", "");
  const auto cloud = file("cloud.json", "{}");
  for (const auto* command : {"check", "run"}) {
    const auto messageOf = [&](std::vector<std::string> arguments) {
      arguments.insert(arguments.begin(), command);
      const auto result = vnagent(arguments);
      EXPECT_EQ(result.status, 4) << testing::PrintToString(arguments);
      EXPECT_THAT(result.out, IsEmpty());
      return withoutFolder(result.err);
    };
    const std::string folderName = folder_.string();
    EXPECT_EQ(messageOf({missing}), "vnagent: error: none: No such file or directory\n");
    EXPECT_EQ(messageOf({locked}), "vnagent: error: loop: Too many levels of symbolic links\n");
    EXPECT_EQ(messageOf({folderName}), "vnagent: error: " + folderName + ": Is a directory\n");
    EXPECT_EQ(messageOf({empty}),
              "vnagent: error: empty:1: not JSON: column 1: syntax error while parsing value - "
              "unexpected end of input; expected '[', '{', or a literal\n");
    EXPECT_EQ(messageOf({cloud, "--events", missing}),
              "vnagent: error: none: No such file or directory\n");
    EXPECT_EQ(messageOf({cloud, "--events", folderName}),
              "vnagent: error: " + folderName + ": Is a directory\n");
    // The events are opened before the document is read.
    EXPECT_EQ(messageOf({empty, "--events", missing}),
              "vnagent: error: none: No such file or directory\n");
    EXPECT_EQ(vnagent({command, cloud, "--events", empty}).status, 0);
  }
}

TEST_F(Check, AUtf16FileIsNamedAsOne) {
  using namespace std::string_view_literals;
  const auto cloud = file("cloud.json", "\xff\xfe{\0}\0"sv);
  const auto result = vnagent({"check", cloud});
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(withoutFolder(result.err),
            "vnagent: error: cloud.json:1: not JSON: the text is UTF-16, and must be UTF-8\n");
  const auto events = file("e", "{\0}\0"sv);
  EXPECT_THAT(vnagent({"run", "--events", events}).err,
              HasSubstr("e:1: : not JSON: the text is UTF-16"));
}

}  // namespace
}  // namespace vnagent
