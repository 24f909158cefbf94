// The command line: options, words that are wrong, help.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/cli/nearest_word.h"
#include "tests/agent/command_support.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class CommandLine : public Commands {};

// Each is one line of one form, names what is wrong, and says where there is help.
TEST_F(CommandLine, AWrongCommandLineIsNamedInOneLine) {
  struct Wrong {
    std::vector<std::string> arguments;
    std::string fault;
    std::string help = "vnagent run";
  };
  const std::string timeout = " is not a number of seconds, more than 0 and at most 1000000000";
  const std::string level = " is not a trace level, 0 or more";
  const std::string bytes = " is not a number of bytes, 1 or more";
  const std::vector<Wrong> wrong{
      {{},
       "a command is needed: run, check, import-neutron, schema, journal, "
       "show, get, patch, replace, diff, apply, watch, wait, lock, trace, load, export, serve",
       "vnagent"},
      {{"walk"},
       "there is no command 'walk'; the commands are run, check, import-neutron, schema, journal, "
       "show, get, patch, replace, diff, apply, watch, wait, lock, trace, load, export, serve",
       "vnagent"},
      {{"chekc", "file"}, "there is no command 'chekc'; did you mean 'check'", "vnagent"},
      {{"rnu", "--each"}, "there is no command 'rnu'; did you mean 'run'", "vnagent"},
      {{"import"}, "there is no command 'import'; did you mean 'import-neutron'", "vnagent"},
      {{"--verison"}, "there is no option '--verison'; did you mean '--version'", "vnagent"},
      {{"--each", "run"}, "option '--each' must follow the command"},
      {{"--what", "run"}, "there is no option '--what'"},
      {{"run", "--what"}, "there is no option '--what'"},
      {{"run", "-x"}, "there is no option '-x'"},
      {{"run", "--evnets", "x"}, "there is no option '--evnets'; did you mean '--events'"},
      {{"run", "--evnets=x"}, "there is no option '--evnets'; did you mean '--events'"},
      {{"run", "a", "b"}, "there is one argument too many: 'b'"},
      {{"run", "--toggle", "maybe"}, "--toggle: 'maybe' is neither on nor off"},
      {{"run", "--toggle"}, "--toggle needs a value"},
      {{"run", "--toggle", "on", "--toggle", "off"}, "--toggle is given more than once"},
      {{"run", "--format", "xml"}, "--format: 'xml' is neither tree nor json"},
      {{"run", "--each=no"}, "--each takes no value"},
      {{"run", "--keep-going=1"}, "--keep-going takes no value"},
      {{"run", "--trace", "1", "--trace-text=1"}, "--trace-text takes no value"},
      {{"run", "--region-sync-timeout", "0"}, "--region-sync-timeout: '0'" + timeout},
      {{"run", "--region-sync-timeout", "-1"}, "--region-sync-timeout: '-1'" + timeout},
      {{"run", "--region-sync-timeout", "nan"}, "--region-sync-timeout: 'nan'" + timeout},
      {{"run", "--region-sync-timeout", "inf"}, "--region-sync-timeout: 'inf'" + timeout},
      {{"run", "--region-sync-timeout", "0x10"}, "--region-sync-timeout: '0x10'" + timeout},
      {{"run", "--region-sync-timeout", "5s"}, "--region-sync-timeout: '5s'" + timeout},
      {{"run", "--region-sync-timeout", " 5"}, "--region-sync-timeout: ' 5'" + timeout},
      {{"run", "--region-sync-timeout", ""}, "--region-sync-timeout: ''" + timeout},
      {{"run", "--region-sync-timeout", "1000000000.5"},
       "--region-sync-timeout: '1000000000.5'" + timeout},
      {{"run", "--trace", "x"}, "--trace: 'x'" + level},
      {{"run", "--trace", "-1"}, "--trace: '-1'" + level},
      {{"run", "--trace", "0x9"}, "--trace: '0x9'" + level},
      {{"run", "--trace-text"}, "--trace-text requires --trace"},
      {{"run", "--trace-file", "f"}, "--trace-file requires --trace"},
      {{"run", "--max-input", "0"}, "--max-input: '0'" + bytes},
      {{"run", "--max-input", "-1"}, "--max-input: '-1'" + bytes},
      {{"run", "--max-input", "1k"}, "--max-input: '1k'" + bytes},
      {{"run", "-", "--events", "-"}, "--events: CLOUD is standard input already"},
      {{"check", "-", "--events", "-"},
       "--events: CLOUD is standard input already",
       "vnagent check"},
      {{"check"}, "CLOUD is required", "vnagent check"},
      {{"check", "a\nb", "--x\x1b"}, "there is no option '--x\\u001b'", "vnagent check"},
      {{"import-neutron", "dir"}, "--region is required", "vnagent import-neutron"},
      {{"import-neutron", "--region", "", "dir"},
       "--region: the empty string is no name (1 to 255 bytes)",
       "vnagent import-neutron"},
      {{"import-neutron", "--region", "R"}, "DIR is required", "vnagent import-neutron"},
      {{"schema"}, "DOCUMENT is required", "vnagent schema"},
      {{"schema", "x"}, "DOCUMENT: 'x' is neither cloud nor output", "vnagent schema"}};
  for (const auto& [arguments, fault, help] : wrong) {
    const auto result = vnagent(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(result.err, "vnagent: error: " + fault + "; see " + help + " --help\n");
    EXPECT_THAT(result.out, IsEmpty());
  }
}

TEST_F(CommandLine, NumbersAreDecimal) {
  const auto events = file("events.jsonl", "{\"advance\": 2}\n");
  const auto cloud = file("cloud.json", R"({"region": {"R": {"syncStatus": "syncInProgress"}}})");
  const auto timedOut = [&](const std::string& timeout) {
    const auto result =
        vnagent({"run", cloud, "--events", events, "--region-sync-timeout", timeout});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out.find("\"syncTimedOut\"") != std::string::npos;
  };
  EXPECT_TRUE(timedOut("0.5"));
  EXPECT_TRUE(timedOut("2"));
  EXPECT_FALSE(timedOut("2.5"));
  EXPECT_TRUE(timedOut("1.5e0"));
  EXPECT_FALSE(timedOut("1000000000"));
  // 010 is ten, not eight.
  EXPECT_THAT(vnagent({"run", "--trace", "010", "--trace-text"}).err, HasSubstr("9 OpenStackSm:"));
}

TEST_F(CommandLine, TheTimeoutIs60SecondsUnlessSaidOtherwise) {
  const auto cloud = file("cloud.json", R"({"region": {"R": {"syncStatus": "syncInProgress"}}})");
  const auto after = [&](const std::string& seconds) {
    return vnagent({"run", cloud, "--events", file("e", "{\"advance\": " + seconds + "}")}).out;
  };
  EXPECT_THAT(after("59.9"), Not(HasSubstr("syncTimedOut")));
  EXPECT_THAT(after("60"), HasSubstr("syncTimedOut"));
}

TEST_F(CommandLine, HelpSaysWhatThereIsAndTheVersionIsPrinted) {
  const auto help = vnagent({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.err, IsEmpty());
  for (const auto* command : {"run", "check", "import-neutron"}) {
    EXPECT_THAT(help.out, HasSubstr("\n  " + std::string(command) + " "));
    const auto result = vnagent({command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr(std::string("Usage: vnagent ") + command),
                                  HasSubstr("--max-input BYTES=1073741824")));
  }
  EXPECT_THAT(help.out, HasSubstr("Exit status: 0 all applied; 1 internal error; 2 wrong command"));
  EXPECT_THAT(vnagent({"run", "--help"}).out, HasSubstr("--region-sync-timeout SECONDS=60"));
  EXPECT_THAT(vnagent({"--version"}).out, AllOf(StartsWith("vnagent "), EndsWith("\n")));
  EXPECT_EQ(vnagent({"--version"}).status, 0);
}

TEST_F(CommandLine, TextThatCannotBeWrittenIsAnError) {
  const std::vector<std::vector<std::string>> commands{
      {"--help"}, {"--version"}, {"schema", "cloud"}};
  for (const auto& arguments : commands) {
    const auto result = vnagentOnFullDevice(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot write to standard output: No space left"));
  }
}

TEST(NearestWord, IsTheOneThatTakesTheFewestChanges) {
  const std::vector<std::string> words{"run", "check", "import-neutron", "--trace", "--trace-file"};
  EXPECT_EQ(nearestWord("run", words), "run");
  EXPECT_EQ(nearestWord("ru", words), "run");    // one left out
  EXPECT_EQ(nearestWord("runn", words), "run");  // one added
  EXPECT_EQ(nearestWord("rin", words), "run");   // one replaced
  EXPECT_EQ(nearestWord("rnu", words), "run");   // two swapped
  EXPECT_EQ(nearestWord("chkec", words), "");    // a swap and one left out, of five
  EXPECT_EQ(nearestWord("improt-neutrn", words), "import-neutron");
  EXPECT_EQ(nearestWord("--trcae", words), "--trace");
  EXPECT_EQ(nearestWord("--tracefile", words), "--trace-file");
}

TEST(NearestWord, IsTheOneThatBeginsSo) {
  const std::vector<std::string> words{"imp", "import-neutron"};
  EXPECT_EQ(nearestWord("import", words), "import-neutron");
  EXPECT_EQ(nearestWord("im", words), "imp");
}

TEST(NearestWord, IsNoneWhereAllAreFar) {
  const std::vector<std::string> words{"run", "check"};
  EXPECT_EQ(nearestWord("walk", words), "");
  EXPECT_EQ(nearestWord("rxx", words), "");
  EXPECT_EQ(nearestWord("", words), "");
}

}  // namespace
}  // namespace vnagent
