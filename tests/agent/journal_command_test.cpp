// vnagent journal: what it prints, its exit status, and what is wrong with its command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tests/agent/command_support.h"
#include "tests/agent/journal_support.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class JournalCommands : public Commands {
 protected:
  JournalCommands() : directory_((folder_ / "state").string()) {
    JournalHistory history;
    Owner owner(directory_);
    owner.append(history, 4);
    owner.store(history.snapshot());
  }

  void damage() const {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open((directory_ + "/journal.db").c_str(), &database), SQLITE_OK);
    sqlite3_exec(database, "UPDATE record SET event = '{}' WHERE sequence = 3", nullptr, nullptr,
                 nullptr);
    sqlite3_exec(database, "DELETE FROM snapshot", nullptr, nullptr, nullptr);
    sqlite3_close(database);
  }

  std::string directory_;
};

TEST_F(JournalCommands, CheckSaysWhatThereIsWhenNothingIsWrong) {
  const Result result = vnagent({"journal", "check", directory_});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out,
              MatchesRegex("4 records, revisions 1 to 4, 1 snapshot, [0-9]+ bytes: no fault\n"));
  EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(JournalCommands, CheckNamesEachFault) {
  damage();
  const Result result = vnagent({"journal", "check", directory_});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "1 fault\n");
  EXPECT_EQ(result.err,
            "vnagent: error: record 3 (revision 3) has a wrong checksum of its event or its "
            "patches\n");
}

TEST_F(JournalCommands, CheckSaysThatThereIsNoJournal) {
  const Result result = vnagent({"journal", "check", folder_.string()});
  EXPECT_EQ(result.status, 4);
  EXPECT_THAT(result.err, HasSubstr("has no journal.db"));
}

TEST_F(JournalCommands, ShowPrintsALineForEachRecord) {
  const Result result = vnagent({"journal", "show", directory_, "--from", "2", "--until", "2"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "revision 2 record 2 1970-01-01T00:16:40.002Z patch +0.5s " +
                            patchOf(2).check + " by driver key key-2 {\"region\":{\"R2\":{}}}\n");
}

TEST_F(JournalCommands, ShowPrintsJson) {
  const Result result = vnagent({"journal", "show", directory_, "--from", "3", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out,
              StartsWith(R"({"sequence": 3, "revision": 3, "kind": "patch", )"
                         R"("time": "1970-01-01T00:16:40.003Z", "advance": 0.75, "check": ")" +
                         patchOf(3).check + R"(", "drawn": ["uuid-3", "uuid-b-3"], )" +
                         R"("event": {"region":{"R3":{}}}, "cloud": {"c":3}, "output": {"o":3}})"
                         "\n"));
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 2);
}

TEST_F(JournalCommands, RepairSaysWhatIsGone) {
  damage();
  const Result result = vnagent({"journal", "repair", directory_});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, AllOf(StartsWith("repaired: the state is that of revision 2\n"
                                           "revisions 3 to 4 are gone (records 3 to 4)\n"),
                                HasSubstr("the damaged file is " + directory_ + "/journal.db.d")));
  EXPECT_EQ(vnagent({"journal", "check", directory_}).status, 0);
  EXPECT_EQ(vnagent({"journal", "repair", directory_}).out, "no fault; nothing was changed\n");
}

TEST_F(JournalCommands, CompactSaysWhatItRemoved) {
  const Result result = vnagent({"journal", "compact", directory_, "--keep-days", "0"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, MatchesRegex("0 records removed; [0-9]+ bytes before, [0-9]+ after\n"));
}

TEST_F(JournalCommands, ChangeNothingThatAnAgentHolds) {
  const Owner owner(directory_);
  for (const char* action : {"repair", "compact"}) {
    const Result result = vnagent({"journal", action, directory_});
    EXPECT_EQ(result.status, 4) << action;
    EXPECT_THAT(result.err, HasSubstr("is in use by process " + std::to_string(getpid())));
  }
  EXPECT_EQ(vnagent({"journal", "check", directory_}).status, 0);
}

TEST_F(JournalCommands, HaveHelpAndNameWhatIsWrong) {
  EXPECT_THAT(vnagent({"journal", "--help"}).out, HasSubstr("repair"));
  EXPECT_THAT(vnagent({"journal", "repair", "--help"}).out, HasSubstr("which revisions are gone"));
  const auto fault = [](std::vector<std::string> arguments) {
    const Result result = vnagent(std::move(arguments));
    EXPECT_EQ(result.status, 2);
    return result.err;
  };
  EXPECT_EQ(fault({"journal"}),
            "vnagent: error: a command is needed: check, show, compact, repair; see vnagent "
            "journal --help\n");
  EXPECT_THAT(fault({"journal", "chek", "d"}),
              HasSubstr("there is no command 'chek'; did you mean 'check'"));
  EXPECT_THAT(fault({"journal", "show", "d", "--form", "1"}),
              HasSubstr("there is no option '--form'; did you mean '--from'"));
  EXPECT_THAT(fault({"journal", "check"}), HasSubstr("see vnagent journal check --help"));
}

}  // namespace
}  // namespace vnagent
