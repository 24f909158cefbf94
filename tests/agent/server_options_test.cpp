// The options of `vnagent serve`, from the configuration file and together.
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/server/options.h"
#include "tests/agent/server_support.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ConfigurationTest : public testing::Test {
 protected:
  ServeOptions read(const std::string& text, const std::set<std::string, std::less<>>& given = {}) {
    std::ofstream(file_) << text;
    ServeOptions options;
    readConfiguration(file_, given, options);
    return options;
  }
  std::string faultOfText(const std::string& text) {
    try {
      read(text);
    } catch (const BadConfiguration& fault) {
      return fault.what();
    }
    return "";
  }

  const test::Folder folder_;
  const std::string file_ = folder_ / "vnagent.toml";
};

TEST_F(ConfigurationTest, hasTheNamesOfTheOptions) {
  const auto options = read(
      "# all of them\n"
      "socket = \"/tmp/a\"\nsocket-role = \"write\"\nlisten = \"[::1]:80\"\n"
      "tls-cert = \"c\"\ntls-key = \"k\"\nclient-ca = \"a\"\ntokens = \"t\"\nstate-dir = \"d\"\n"
      "keep-seconds = 5\nkeep-revisions = 20000\nrequire-lock = true\nmax-body = 1\n"
      "max-bodies = 3\n"
      "max-connections = 2\nregion-sync-timeout = 0.5\ntoggle = \"off\"\ncloud = \"f\"\n");
  EXPECT_EQ(options.socket, "/tmp/a");
  EXPECT_EQ(options.socketRole, Role::kWrite);
  EXPECT_EQ(options.listen, "[::1]:80");
  EXPECT_EQ(options.tlsCertificate, "c");
  EXPECT_EQ(options.tlsKey, "k");
  EXPECT_EQ(options.clientCa, "a");
  EXPECT_EQ(options.tokens, "t");
  EXPECT_EQ(options.stateDirectory, "d");
  EXPECT_EQ(options.keepSeconds, 5);
  EXPECT_EQ(options.keepRevisions, 20000u);
  EXPECT_TRUE(options.requireLock);
  EXPECT_EQ(options.maxBody, 1u);
  EXPECT_EQ(options.maxBodies, 3u);
  EXPECT_EQ(options.maxConnections, 2u);
  EXPECT_EQ(options.regionSyncTimeout, 0.5);
  EXPECT_FALSE(options.toggle);
  EXPECT_EQ(options.cloud, "f");
}

TEST_F(ConfigurationTest, leavesWhatTheCommandLineHasSet) {
  const auto options = read("max-body = 1\nmax-connections = 2\n", {"max-body"});
  EXPECT_EQ(options.maxBody, ServeOptions().maxBody);
  EXPECT_EQ(options.maxConnections, 2u);
}

TEST_F(ConfigurationTest, refusesWhatItDoesNotKnowWithItsLine) {
  EXPECT_THAT(faultOfText("socket = \"a\"\n\nsokcet = \"b\"\n"),
              HasSubstr("vnagent.toml:3: there is no option 'sokcet'"));
  EXPECT_THAT(faultOfText("[tls]\ncert = 1\n"), HasSubstr("there is no option 'tls'"));
  EXPECT_THAT(faultOfText("\nmax-body = 0\n"), HasSubstr(":2: max-body: '0' is not"));
  EXPECT_THAT(faultOfText("require-lock = \"on\"\n"), HasSubstr(":1: require-lock"));
  EXPECT_THAT(faultOfText("listen = [\"a\"]\n"), HasSubstr("one value"));
  EXPECT_THAT(faultOfText("\n\nsocket = \n"), HasSubstr("vnagent.toml:3: "));
  EXPECT_THAT(faultOfText("socket = \n"), Not(HasSubstr("toml::")));
  ServeOptions options;
  EXPECT_THROW(readConfiguration(folder_ / "none", {}, options), BadConfiguration);
}

// What an option sets shows in the structure: none is read and forgotten.
TEST(ServeOptionsTest, refuseTextsThatAreNoValues) {
  for (const ServeOption& option : serveOptions()) {
    ServeOptions options;
    const bool isText = option.set(options, "a text\n") == "";
    EXPECT_EQ(isText, option.value == "FILE" || option.value == "DIR" || option.value == "PATH")
        << option.name;
  }
}

TEST(ServeOptionsTest, whoMayListenWhere) {
  ServeOptions options;
  EXPECT_EQ(faultOf(options), "");
  options.listen = "127.0.0.1:80";
  EXPECT_THAT(faultOf(options), HasSubstr("--tokens"));
  options.tokens = "t";
  EXPECT_EQ(faultOf(options), "");
  options.listen = "192.0.2.1:80";
  EXPECT_THAT(faultOf(options), HasSubstr("needs TLS"));
  options.tlsCertificate = "c";
  EXPECT_THAT(faultOf(options), HasSubstr("go together"));
  options.tlsKey = "k";
  EXPECT_EQ(faultOf(options), "");
  options.tokens = "";
  EXPECT_THAT(faultOf(options), HasSubstr("--client-ca"));
  options.clientCa = "a";
  EXPECT_EQ(faultOf(options), "");
  options.tlsCertificate = options.tlsKey = "";
  EXPECT_THAT(faultOf(options), HasSubstr("--client-ca needs TLS"));
  options = {};
  options.socket = "";
  EXPECT_THAT(faultOf(options), HasSubstr("neither"));
}

}  // namespace
}  // namespace vnagent
