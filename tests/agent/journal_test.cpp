// The journal: what is appended is there after a restart, and what is too old is not.
#include "agent/journal/journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/agent/journal_support.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<uint64_t> sequencesOf(const std::vector<Record>& records) {
  std::vector<uint64_t> sequences;
  for (const Record& record : records) sequences.push_back(record.sequence);
  return sequences;
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 0777;
}

TEST(Journal, IsMadeWhereThereIsNoneForItsUserAlone) {
  const Folder folder;
  Owner owner(folder.path());
  EXPECT_EQ(modeOf(folder.path()), 0700U);
  for (const char* file : {"/journal.db", "/journal.db-wal", "/lock", "/durable"}) {
    EXPECT_EQ(modeOf(folder.path() + file), 0600U) << file;
  }
  EXPECT_EQ(owner.recovered().snapshot.sequence, 0U);
  EXPECT_EQ(owner.recovered().snapshot.check, kFirstCheck);
  EXPECT_TRUE(owner.recovered().records.empty());
  EXPECT_TRUE(owner.recovered().history.empty());
}

TEST(Journal, KeepsItsUuid) {
  const Folder folder;
  const std::string instance = Owner(folder.path()).recovered().instance;
  EXPECT_EQ(instance.size(), 36U);
  EXPECT_EQ(Owner(folder.path()).recovered().instance, instance);
  EXPECT_NE(Owner(folder.path("other")).recovered().instance, instance);
}

TEST(Journal, GivesBackEveryMemberOfARecord) {
  const Folder folder;
  JournalHistory history;
  {
    Owner owner(folder.path());
    owner.append(history, 5);
    owner.storage().append(history.next(Record::Kind::kReply));
    owner.storage().append(history.next(Record::Kind::kRestart));
    owner.storage().append(history.next(Record::Kind::kExpiry));
  }
  const Owner again(folder.path());
  ASSERT_EQ(again.recovered().records.size(), 8U);
  JournalHistory expected;
  for (size_t i = 0; i < 5; ++i) expectEqual(again.recovered().records[i], *expected.next());
  expectEqual(again.recovered().records[5], *expected.next(Record::Kind::kReply));
  expectEqual(again.recovered().records[6], *expected.next(Record::Kind::kRestart));
  expectEqual(again.recovered().records[7], *expected.next(Record::Kind::kExpiry));
}

TEST(Journal, CommitsTogetherWhatArrivesDuringACommit) {
  const Folder folder;
  JournalHistory history;
  Owner owner(folder.path());
  owner.append(history, 2000);
  EXPECT_EQ(owner.committed(), 2000U);
  EXPECT_LT(owner.commits(), 2000U);
  EXPECT_EQ(owner.journal().figures().records, 2000U);
  EXPECT_EQ(owner.journal().figures().lastSequence, 2000U);
  EXPECT_EQ(owner.journal().figures().lastRevision, 2000U);
  EXPECT_GT(owner.journal().figures().bytes, 2000U * 100);
}

TEST(Journal, WritesWhatWasAppendedBeforeItIsClosed) {
  const Folder folder;
  JournalHistory history;
  {
    Owner owner(folder.path());
    for (int i = 0; i < 300; ++i) owner.storage().append(history.next());
  }
  EXPECT_EQ(Owner(folder.path()).recovered().records.size(), 300U);
}

TEST(Journal, StartsFromTheLatestSnapshotAndTheRecordsAfterIt) {
  const Folder folder;
  JournalHistory history;
  Snapshot latest;
  {
    Owner owner(folder.path());
    owner.append(history, 3);
    owner.store(history.snapshot());
    owner.append(history, 4);
    // Of several rows.
    latest = history.snapshot(1 << 20);
    owner.store(latest);
    owner.append(history, 2);
  }
  const Owner again(folder.path());
  const Recovered& recovered = again.recovered();
  EXPECT_EQ(recovered.snapshot.sequence, 7U);
  EXPECT_EQ(recovered.snapshot.revision, 7U);
  EXPECT_EQ(recovered.snapshot.check, latest.check);
  EXPECT_EQ(recovered.snapshot.cloud, latest.cloud);
  EXPECT_EQ(recovered.snapshot.output, latest.output);
  EXPECT_EQ(recovered.snapshot.state, latest.state);
  EXPECT_THAT(sequencesOf(recovered.records), ElementsAre(8, 9));
  EXPECT_THAT(sequencesOf(recovered.history), ElementsAre(1, 2, 3, 4, 5, 6, 7));
  expectEqual(recovered.history[2], patchOf(3));
}

TEST(Journal, LeavesLargeRecordsOfTheHistoryOnTheDisk) {
  const Folder folder;
  JournalHistory history;
  {
    Owner owner(folder.path());
    owner.append(history, 1);
    history.paddingIs(100'000);
    owner.append(history, 1);
    history.paddingIs(0);
    owner.append(history, 1);
    owner.store(history.snapshot());
    history.paddingIs(100'000);
    owner.append(history, 1);
  }
  Owner again(folder.path());
  const Recovered& recovered = again.recovered();
  ASSERT_THAT(sequencesOf(recovered.history), ElementsAre(1, 2, 3));
  Record small = patchOf(2, 100'000);
  small.event = small.output = small.outputBefore = small.cloud = small.cloudBefore = "";
  small.drawn = {};
  small.onDisk = true;
  expectEqual(recovered.history[0], patchOf(1));
  expectEqual(recovered.history[1], small);
  EXPECT_FALSE(recovered.history[2].onDisk);
  ASSERT_THAT(sequencesOf(recovered.records), ElementsAre(4));
  EXPECT_EQ(recovered.records[0].output.size(), 100'000 + std::string("{\"o\":4}").size());
  std::vector<Record> read;
  again.storage().read(2, 2, [&](const Record& record) {
    read.push_back(record);
    return true;
  });
  ASSERT_EQ(read.size(), 1U);
  expectEqual(read[0], patchOf(2, 100'000));
}

TEST(Journal, ReadsRecordsByRevision) {
  const Folder folder;
  JournalHistory history;
  Owner owner(folder.path());
  owner.append(history, 3);
  owner.storage().append(history.next(Record::Kind::kReply));
  owner.append(history, 3);
  const auto read = [&](uint64_t first, uint64_t last, size_t most = 100) {
    std::vector<Record> records;
    owner.storage().read(first, last, [&](const Record& record) {
      records.push_back(record);
      return records.size() < most;
    });
    return sequencesOf(records);
  };
  EXPECT_THAT(read(2, 4), ElementsAre(2, 3, 4, 5));
  EXPECT_THAT(read(1, 100), ElementsAre(1, 2, 3, 4, 5, 6, 7));
  EXPECT_THAT(read(1, 100, 2), ElementsAre(1, 2));
  EXPECT_THAT(read(7, 9), ElementsAre());
  EXPECT_THAT(read(6, 6), ElementsAre(7));
}

TEST(Journal, RemovesWhatIsTooOldButNotWhatAReplayNeeds) {
  const Folder folder;
  const JournalSettings settings{.keepSeconds = 0, .keepRevisions = 10, .keepKeys = 8};
  JournalHistory history;
  {
    Owner owner(folder.path(), settings);
    for (int i = 0; i < 6; ++i) {
      owner.append(history, 5);
      owner.store(history.snapshot());
    }
    owner.append(history, 1);
  }
  const Owner again(folder.path(), settings);
  const Recovered& recovered = again.recovered();
  EXPECT_EQ(recovered.snapshot.sequence, 30U);
  EXPECT_THAT(sequencesOf(recovered.records), ElementsAre(31));
  // The last ten revisions, and before them keyed changes until there are eight.
  EXPECT_THAT(sequencesOf(recovered.history),
              ElementsAre(16, 18, 20, 22, 23, 24, 25, 26, 27, 28, 29, 30));
  EXPECT_EQ(recovered.history[0].kind, Record::Kind::kReply);
  EXPECT_EQ(recovered.history[0].key, "key-16");
  EXPECT_EQ(recovered.history[0].reply, R"({"revision":16})");
  EXPECT_EQ(recovered.history[0].event, "");
  EXPECT_EQ(recovered.history[4].kind, Record::Kind::kPatch);
}

TEST(Journal, IsHeldByOneProcess) {
  const Folder folder;
  int ready[2];
  int done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    const Journal journal(folder.path(), {}, {});
    char byte = 1;
    if (::write(ready[1], &byte, 1) != 1 || read(done[0], &byte, 1) != 1) _exit(1);
    _exit(0);  // without the destructor: the lock ends with the process
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const JournalError error = errorOf([&] { Owner owner(folder.path()); });
  EXPECT_EQ(error.kind(), JournalError::Kind::kHeld);
  EXPECT_THAT(error.what(), HasSubstr("by process " + std::to_string(child)));
  ASSERT_EQ(::write(done[1], &byte, 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  Owner owner(folder.path());
  for (const int file : {ready[0], ready[1], done[0], done[1]}) close(file);
}

TEST(Journal, RefusesADirectoryThatCannotBeMade) {
  const Folder folder;
  const JournalError error = errorOf([&] { Owner owner(folder.path("no/such")); });
  EXPECT_EQ(error.kind(), JournalError::Kind::kIo);
  EXPECT_THAT(error.what(), HasSubstr("No such file or directory"));
}

TEST(Journal, RefusesRecordsThatLeaveAGap) {
  const Folder folder;
  JournalHistory history;
  Owner owner(folder.path());
  history.next();
  EXPECT_THROW(owner.storage().append(history.next()), std::logic_error);
}

}  // namespace
}  // namespace vnagent
