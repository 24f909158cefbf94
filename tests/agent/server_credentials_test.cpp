// Token files and the principals in them.
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/server/credentials.h"
#include "tests/agent/server_support.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// The SHA-256 of "secret".
const std::string kSecret = "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";

std::string faultOf(const std::string& text) {
  try {
    TokenTable::parse(text, "tokens");
  } catch (const BadCredentials& fault) {
    return fault.what();
  }
  return "";
}

TEST(CredentialsTest, findsThePrincipalOfAToken) {
  const auto table = TokenTable::parse(
      "# who may\n\ndriver write:B,A " + kSecret + "\r\nother admin -\n", "tokens");
  const auto driver = table.ofToken("secret");
  ASSERT_TRUE(driver);
  EXPECT_EQ(driver->name, "driver");
  EXPECT_EQ(driver->role, Role::kWriteRegions);
  EXPECT_EQ(driver->regions, (std::vector<std::string>{"A", "B"}));
  EXPECT_FALSE(table.ofToken("secret "));
  EXPECT_FALSE(table.ofToken(""));
  EXPECT_FALSE(table.ofToken("-"));
  EXPECT_FALSE(table.ofToken(kSecret));
}

TEST(CredentialsTest, aCertificateHasTheRoleOfItsNameOrMayRead) {
  const auto table = TokenTable::parse("driver write -\n", "tokens");
  EXPECT_EQ(table.ofCertificate("driver").role, Role::kWrite);
  EXPECT_EQ(table.ofCertificate("stranger").role, Role::kRead);
  EXPECT_EQ(table.ofCertificate("stranger").name, "stranger");
}

TEST(CredentialsTest, refusesBadLinesWithoutShowingThem) {
  EXPECT_THAT(faultOf("a read"), HasSubstr("tokens:1"));
  EXPECT_THAT(faultOf("\na root " + kSecret), HasSubstr("tokens:2"));
  EXPECT_THAT(faultOf("a write: " + kSecret), HasSubstr("role"));
  EXPECT_THAT(faultOf("a write:A,,B " + kSecret), HasSubstr("role"));
  EXPECT_THAT(faultOf("a read plaintext"), HasSubstr("SHA-256"));
  EXPECT_THAT(faultOf("a read plaintext"), Not(HasSubstr("plaintext")));
  EXPECT_THAT(faultOf("a read -\na write -"), HasSubstr("another role"));
  EXPECT_EQ(faultOf("a read " + kSecret + "\na read -"), "");
}

TEST(CredentialsTest, refusesATokenFileThatOthersMayRead) {
  const test::Folder folder;
  const std::string file = folder / "tokens";
  std::ofstream(file) << "a read " << kSecret << "\n";
  namespace fs = std::filesystem;
  fs::permissions(file, fs::perms::owner_read | fs::perms::others_read);
  EXPECT_THROW(TokenTable::read(file), BadCredentials);
  fs::permissions(file, fs::perms::owner_read | fs::perms::group_read);
  EXPECT_TRUE(TokenTable::read(file).ofToken("secret"));
  EXPECT_THROW(TokenTable::read(file + "x"), BadCredentials);
}

}  // namespace
}  // namespace vnagent
