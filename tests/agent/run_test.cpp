// The output of `vnagent run`: what is printed, where, in which order, and what happens if it
// cannot be written.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "agent/cli/command_line.h"
#include "agent/output/trace_lines.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class Run : public ::testing::Test {
 protected:
  struct Result {
    int status;
    std::string out;
    std::string err;
  };

  Run() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vnagent-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
  }
  ~Run() override { std::filesystem::remove_all(folder_); }

  std::string path(const char* name) const { return (folder_ / name).string(); }
  std::string file(const char* name, std::string_view content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  static std::string content(const std::string& name) {
    std::ifstream stream(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  // Runs the command with standard output and standard error in these files.
  static int runInto(const std::string& out, const std::string& err,
                     std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"vnagent", "run"});
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    const Redirection toOut(stdout, STDOUT_FILENO, out);
    const Redirection toErr(stderr, STDERR_FILENO, err);
    return runCommandLine(static_cast<int>(argv.size()), argv.data());
  }
  Result run(std::vector<std::string> arguments) const {
    const int status = runInto(path("out"), path("err"), std::move(arguments));
    return {status, content(path("out")), content(path("err"))};
  }

 private:
  class Redirection {
   public:
    Redirection(std::FILE* stream, int descriptor, const std::string& name)
        : stream_(stream), descriptor_(descriptor), saved_(dup(descriptor)) {
      std::fflush(stream);
      const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
      EXPECT_GE(file, 0) << name;
      dup2(file, descriptor);
      close(file);
    }
    ~Redirection() {
      std::fflush(stream_);
      std::clearerr(stream_);
      dup2(saved_, descriptor_);
      close(saved_);
    }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

   private:
    std::FILE* stream_;
    int descriptor_;
    int saved_;
  };

  std::filesystem::path folder_;
};

constexpr std::string_view kCloud = R"({"region": {"R": {
  "segment": {"a": {"segmentationType": "vlan", "segmentationId": 9},
              "b": {"segmentationType": "vlan", "segmentationId": 10},
              "c": {"segmentationType": "vlan", "segmentationId": 100}}}}})";

// Changes.

TEST_F(Run, ChangesNeedEach) {
  const auto result = run({"--changes"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("--each"));
}

TEST_F(Run, ChangesShowTheWholeFirstAndThenWhatEachStepChanged) {
  const auto events = file("events.jsonl",
                           "{\"patch\": {\"region\": {\"R\": {\"requester\": \"a\"}}}}\n"
                           "{\"patch\": {\"region\": {\"R\": {\"requestId\": \"1\"}}}}\n"
                           "nonsense\n{\"advance\": 1}\n{\"patch\": {\"region\": null}}\n");
  const auto result = run({file("cloud.json", R"({"region": {"R": {}}})"), "--events", events,
                           "--each", "--changes", "--keep-going"});
  EXPECT_EQ(result.status, 3);
  std::istringstream stream(result.out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  EXPECT_THAT(
      lines,
      ElementsAre(
          AllOf(StartsWith(R"({"step": 0, "ok": true, "time": 0, "change": {"regionStatus": )"
                           R"({"R": {"syncStatus": "syncUnknown", )"),
                HasSubstr(R"("resourcesForSwitchport": {}}, "networkElement": {}}})")),
          R"({"step": 1, "ok": true, "time": 0, "change": {}})",
          R"({"step": 2, "ok": true, "time": 0, "change": {"regionStatus": {"R": {"owner": "a", )"
          R"("requestId": "1"}}}})",
          StartsWith(R"({"step": 3, "ok": false, "error": )"),
          R"({"step": 4, "ok": true, "time": 1, "change": {}})",
          R"({"step": 5, "ok": true, "time": 1, "change": {"regionStatus": {"R": null}}})"));
}

TEST_F(Run, ChangesStartWithTheFirstStepThatIsApplied) {
  const auto events = file("events.jsonl", "{\"advance\": 1}\n{\"advance\": 1}\n");
  const auto result = run({file("cloud.json", R"({"else": 1})"), "--events", events, "--each",
                           "--changes", "--keep-going"});
  EXPECT_THAT(result.out, HasSubstr(R"({"step": 1, "ok": true, "time": 1, "change": )"
                                    R"({"regionStatus": {}, "requestedResources")"));
  EXPECT_THAT(result.out, HasSubstr(R"({"step": 2, "ok": true, "time": 2, "change": {}})"));
}

// Inspection.

TEST_F(Run, AnInspectionPathThatLeadsNowhereIsStatusTwoAndSaysWhichPart) {
  const auto cloud = file("cloud.json", kCloud);
  for (const auto& [path, part] : std::vector<std::pair<std::string, std::string>>{
           {"openStackSm", "not a path"},
           {"/else", "\"else\""},
           {"/openStackSm/nothing", "\"nothing\""},
           {"/openStackSm/regionConfigSm/Q", "\"Q\""},
           {"/openStackSm/regionConfigSm/R/portBindingSm/p", "\"p\""},
           {"/openStackSm/initialized/x", "\"x\""}}) {
    const auto result = run({cloud, "--inspect", path});
    EXPECT_EQ(result.status, 2) << path;
    EXPECT_THAT(result.err, AllOf(HasSubstr(path + ": "), HasSubstr(part))) << path;
    EXPECT_THAT(result.out, IsEmpty()) << path;
    std::filesystem::remove(this->path("err"));
  }
  EXPECT_EQ(run({cloud, "--inspect", "/openStackSm/regionConfigSm/R"}).status, 0);
}

TEST_F(Run, ARefusedEventOutweighsAnInspectionPathThatLeadsNowhere) {
  const auto events = file("events.jsonl", "nonsense\n");
  EXPECT_EQ(run({"--events", events, "--keep-going", "--inspect", "/else"}).status, 3);
}

TEST_F(Run, NumericKeysOfAnInspectionAreInNumericOrder) {
  const auto result = run({file("cloud.json", kCloud), "--inspect",
                           "/openStackSm/openstackStatus/regionStatus/R/vlanPool/allocatedVlan"});
  EXPECT_EQ(result.out, "{\n  \"9\": true,\n  \"10\": true,\n  \"100\": true\n}\n");
}

// Traces.

TEST_F(Run, TheTraceLinesOfAStepComeBeforeItsOutputLine) {
  const auto events = file("events.jsonl",
                           "{\"patch\": {\"region\": {\"S\": {}}}}\nnonsense\n{\"advance\": 1}\n"
                           "{\"patch\": {\"region\": {\"S\": null}}}\n");
  ASSERT_EQ(runInto(path("both"), path("both"),
                    {"--events", events, "--each", "--keep-going", "--trace", "9"}),
            3);
  std::istringstream stream(content(path("both")));
  size_t step = 0;      // whose lines are expected
  bool traced = false;  // whether it has had any
  std::vector<size_t> tracedSteps;
  for (std::string line; std::getline(stream, line);) {
    const std::string start = "{\"step\": " + std::to_string(step) + ", ";
    if (line.starts_with(start + "\"level\"")) {
      traced = true;
    } else if (line.starts_with(start + "\"ok\"")) {
      if (traced) tracedSteps.push_back(step);
      traced = false;
      ++step;
    } else {
      EXPECT_THAT(line, StartsWith("vnagent: error: "));
    }
  }
  EXPECT_EQ(step, 5U);
  EXPECT_THAT(tracedSteps, ElementsAre(0, 1, 4));
}

TEST_F(Run, TheTraceLinesOfAStepAreInTheFileAfterAnAbort) {
  const std::string name = path("trace");
  const auto traceAndAbort = [&] {
    std::FILE* file = std::fopen(name.c_str(), "wb");
    TraceLines lines(9, TraceLines::Style::kText, file);
    lines.stepIs(3);
    Kiv::_defaultTraceHandle().write({1, "F", 1, "f", "the last words"});
    std::abort();
  };
  EXPECT_EXIT(traceAndAbort(), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(content(name), "1 F:1 f the last words\n");
}

// Devices that are full.

TEST_F(Run, AFullStandardOutputIsSaidAndIsStatusOne) {
  const auto cloud = file("cloud.json", kCloud);
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{cloud, "--format", "json"},
                                             {cloud, "--format", "tree"},
                                             {cloud, "--each"},
                                             {cloud, "--each", "--changes"},
                                             {cloud, "--inspect", "/openStackSm"}}) {
    EXPECT_EQ(runInto("/dev/full", path("err"), arguments), 1)
        << ::testing::PrintToString(arguments);
    EXPECT_THAT(content(path("err")), HasSubstr("cannot write to standard output"));
    std::filesystem::remove(path("err"));
  }
}

TEST_F(Run, ALongDocumentOnAFullStandardOutputIsSaidToo) {
  std::string cloud = R"({"region": {"R": {)";
  for (const char* collection : {"\"port\": {", "}, \"portBinding\": {"}) {
    cloud += collection;
    for (int i = 0; i < 3000; ++i) {
      const std::string id = std::to_string(i);
      const bool binding = collection[0] == '}';
      if (i > 0) cloud += ',';
      cloud += "\"" + id +
               "\": " + (binding ? "{\"portToHostBinding\": {\"host-" + id + "\": {}}}" : "{}");
    }
  }
  cloud += "}}}}";
  EXPECT_EQ(runInto("/dev/full", path("err"), {file("cloud.json", cloud), "--format", "json"}), 1);
  EXPECT_THAT(content(path("err")), HasSubstr("cannot write to standard output"));
}

TEST_F(Run, AFullTraceFileIsSaidAtTheEndAndTheRunIsDone) {
  const auto result =
      run({file("cloud.json", kCloud), "--each", "--trace", "9", "--trace-file", "/dev/full"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot write the trace lines"));
  EXPECT_THAT(result.out, StartsWith("{\"step\": 0, \"ok\": true"));
}

TEST_F(Run, ATraceFileThatCannotBeOpenedIsSaidBeforeAnythingIsDone) {
  const auto result = run({"--each", "--trace", "9", "--trace-file", path("no-folder") + "/trace"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("no-folder/trace: cannot be written"));
  EXPECT_THAT(result.out, Not(HasSubstr("step")));
}

}  // namespace
}  // namespace vnagent
