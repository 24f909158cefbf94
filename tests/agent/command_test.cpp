// The commands: what they read, what they print where, their exit status.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/command_support.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// run.

TEST_F(Commands, RunWithoutAnythingPrintsTheEmptyOutput) {
  const auto result = vnagent({"run"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, StartsWith("{\n  \"regionStatus\": {},\n"));
  EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(Commands, RunPrintsTheOutputAsJsonOrAsATree) {
  const auto cloud = file("cloud.json", kCloud);
  EXPECT_THAT(vnagent({"run", cloud, "--format", "json"}).out, HasSubstr("\"R\": {"));
  EXPECT_THAT(vnagent({"run", cloud, "--format=tree"}).out, HasSubstr("Regions\n  R\n"));
}

TEST_F(Commands, EachStepIsALineAndNoFinalDocumentFollows) {
  const auto events =
      file("events.jsonl",
           "# a comment\n\n{\"advance\": 1.5}\r\n{\"patch\": {\"region\": {\"S\": {}}}}\n"
           "{\"regionSyncTimeout\": 30}");
  const auto result = vnagent({"run", file("cloud.json", kCloud), "--events", events, "--each"});
  EXPECT_EQ(result.status, 0);
  std::istringstream lines(result.out);
  std::vector<std::string> starts;
  for (std::string line; std::getline(lines, line);) starts.push_back(line.substr(0, 44));
  EXPECT_THAT(starts,
              testing::ElementsAre(StartsWith("{\"step\": 0, \"ok\": true, \"time\": 0, \"out"),
                                   StartsWith("{\"step\": 1, \"ok\": true, \"time\": 1.5, "),
                                   StartsWith("{\"step\": 2, \"ok\": true, \"time\": 1.5, "),
                                   StartsWith("{\"step\": 3, \"ok\": true, \"time\": 1.5, ")));
}

TEST_F(Commands, ARunStopsAtARefusedEvent) {
  const auto events =
      file("events.jsonl", "{\"advance\": 1}\n\n{\"patch\": {\"x\": 1}}\n{\"advance\": 2}\n");
  auto result = vnagent({"run", "--events", events});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, HasSubstr("events.jsonl:3: /x: "));
  result = vnagent({"run", "--events", events, "--each"});
  EXPECT_THAT(result.out, AllOf(HasSubstr("{\"step\": 2, \"ok\": false, \"error\": \"/x: "),
                                Not(HasSubstr("\"step\": 3"))));
}

TEST_F(Commands, ARunThatKeepsGoingSkipsWhatIsRefused) {
  const auto events = file("events.jsonl", "{\"patch\": {\"x\": 1}}\nnonsense\n{\"advance\": 2}\n");
  const auto result = vnagent({"run", "--events", events, "--each", "--keep-going"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.out, HasSubstr("{\"step\": 2, \"ok\": false, \"error\": \": not JSON: "));
  EXPECT_THAT(result.out, HasSubstr("{\"step\": 3, \"ok\": true, \"time\": 2, "));
  EXPECT_THAT(result.err, AllOf(HasSubstr("events.jsonl:1: "), HasSubstr("events.jsonl:2: ")));
}

TEST_F(Commands, ARefusedDocumentIsReportedWithItsLine) {
  const auto cloud = file("cloud.json", kBadCloud);
  auto result = vnagent({"run", cloud});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, HasSubstr("cloud.json:5: /region/R/portBinding/q: no port \"q\""));
  const auto events = file("events.jsonl", "{\"advance\": 2}\n");
  result = vnagent({"run", cloud, "--events", events, "--each", "--keep-going"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.out, AllOf(StartsWith("{\"step\": 0, \"ok\": false, \"error\": \"/region/R"),
                                HasSubstr("{\"step\": 1, \"ok\": true")));
}

TEST_F(Commands, UnreadableFilesAndBadJsonAreStatusFour) {
  EXPECT_EQ(vnagent({"run", (folder_ / "none.json").string()}).status, 4);
  EXPECT_EQ(vnagent({"run", folder_.string()}).status, 4);
  EXPECT_EQ(vnagent({"run", "--events", (folder_ / "none.jsonl").string()}).status, 4);
  EXPECT_EQ(vnagent({"run", "--events", folder_.string()}).status, 4);
  EXPECT_EQ(vnagent({"check", (folder_ / "none.json").string()}).status, 4);
  const auto result = vnagent({"run", file("cloud.json", "{\n  oops}"), "--each"});
  EXPECT_EQ(result.status, 4);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, HasSubstr("cloud.json:2: not JSON: "));
}

TEST_F(Commands, TraceLinesGoToTheirFileWithTheStepAndNothingAfterTheLast) {
  const auto trace = (folder_ / "trace").string();
  const auto events = file("events.jsonl", "{\"patch\": {\"region\": {\"S\": {}}}}\n");
  EXPECT_EQ(vnagent({"run", file("cloud.json", kCloud), "--events", events, "--trace", "9",
                     "--trace-file", trace})
                .status,
            0);
  std::ifstream stream(trace);
  const std::string lines{std::istreambuf_iterator<char>(stream), {}};
  EXPECT_THAT(lines,
              StartsWith("{\"step\": 0, \"level\": 9, \"file\": \"OpenStackSm\", \"line\": "));
  EXPECT_THAT(lines, HasSubstr("{\"step\": 1, \"level\": 9, "));
  EXPECT_THAT(lines, Not(HasSubstr("doCleanup")));
  EXPECT_THAT(vnagent({"run", "--trace", "9", "--trace-text"}).err, StartsWith("9 OpenStackSm:"));
}

// import-neutron.

TEST_F(Commands, ImportReadsAFolderAndReportsWhatItLeavesOut) {
  file("networks.json", R"({"networks": []})");
  file("segments.json",
       R"({"segments": [{"id": "s", "network_type": "vlan", "segmentation_id": 0}]})");
  file("ports.json", R"({"ports": [{"id": "p", "binding:vif_type": "unbound"}]})");
  const auto result = vnagent({"import-neutron", "--region", "Region/One", folder_.string()});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, AllOf(HasSubstr("\"Region/One\": {"), HasSubstr("\"p\": {"),
                                testing::EndsWith("}\n")));
  EXPECT_THAT(result.err, HasSubstr("segment s left out: "));
}

TEST_F(Commands, ImportNamesTheFileThatIsMissingOrWrong) {
  const auto import = [&] {
    return vnagent({"import-neutron", "--region", "R", folder_.string()});
  };
  EXPECT_EQ(vnagent({"import-neutron", "--region", "R", (folder_ / "none").string()}).status, 4);
  EXPECT_THAT(import().err, HasSubstr("networks.json"));
  file("networks.json", R"({"networks": []})");
  file("segments.json", "{\n");
  EXPECT_EQ(import().status, 4);
  EXPECT_THAT(import().err, HasSubstr("segments.json:2: not JSON"));
  file("segments.json", R"({"segments": {}})");
  file("ports.json", R"({"ports": []})");
  EXPECT_EQ(import().status, 3);
  EXPECT_THAT(import().err,
              HasSubstr("segments.json:1: /segments: there is no list of segments\n"));
  file("segments.json", R"({"segments": []})");
  file("db_binding_levels.json", "[7]");
  EXPECT_EQ(import().status, 3);
  EXPECT_THAT(import().err, HasSubstr("db_binding_levels.json:1: /0: 7 is not an object\n"));
  file("db_binding_levels.json", "[]");
  EXPECT_EQ(import().status, 0);
  file("ports.json", "{\n\"ports\": [],\n\"ports\": []}");
  EXPECT_EQ(import().status, 3);
  EXPECT_THAT(import().err, HasSubstr("ports.json:3: /ports: the key \"ports\" is repeated"));
  EXPECT_THAT(import().out, IsEmpty());
}

TEST_F(Commands, ImportReadsEachFileUpToTheLimit) {
  file("networks.json", R"({"networks": []})");
  file("segments.json", R"({"segments": []})");
  file("ports.json", R"({"ports": []     })");
  const auto import = [&](const char* limit) {
    return vnagent({"import-neutron", "--region", "R", folder_.string(), "--max-input", limit});
  };
  EXPECT_EQ(import("18").status, 0);
  EXPECT_EQ(import("17").status, 4);
  EXPECT_THAT(import("17").err, HasSubstr("ports.json: it has more than 17 bytes (--max-input)"));
}

TEST_F(Commands, AnImportThatCannotBeWrittenIsAnError) {
  file("networks.json", R"({"networks": []})");
  file("segments.json", R"({"segments": []})");
  file("ports.json", R"({"ports": []})");
  const auto result = vnagentOnFullDevice({"import-neutron", "--region", "R", folder_.string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("vnagent: error: internal error: cannot write to standard "
                                    "output: No space left on device\n"));
}

}  // namespace
}  // namespace vnagent
