// Journals that are damaged, cut, or of another format: they are found, and repaired.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <random>

#include "agent/journal/journal_tools.h"
#include "tests/agent/fault_disk.h"
#include "tests/agent/journal_support.h"

namespace vnagent {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Kind = JournalError::Kind;

std::vector<std::string> faultsOf(const std::string& directory) {
  std::vector<std::string> faults;
  checkJournal(directory, [&](const JournalFault& fault) {
    faults.push_back(fault.text);
    return true;
  });
  return faults;
}

// Changes a journal that nobody has open.
void change(const std::string& directory, const std::string& sql) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open((directory + "/journal.db").c_str(), &database), SQLITE_OK);
  char* error = nullptr;
  sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &error);
  EXPECT_EQ(error, nullptr) << error;
  sqlite3_close(database);
}

// A journal of some records with snapshots after the given ones.
JournalHistory make(const std::string& directory, uint64_t records,
                    const std::vector<uint64_t>& snapshots) {
  JournalHistory history;
  Owner owner(directory);
  while (history.sequence() < records) {
    owner.append(history, 1);
    if (std::ranges::find(snapshots, history.sequence()) != snapshots.end()) {
      owner.store(history.snapshot());
    }
  }
  return history;
}

std::vector<uint64_t> sequencesIn(const std::string& directory) {
  std::vector<uint64_t> sequences;
  readJournal(directory, 0, UINT64_MAX, [&](const Record& record) {
    sequences.push_back(record.sequence);
    return true;
  });
  return sequences;
}

TEST(DamagedJournal, IsNamedByRecordAndRevision) {
  const Folder folder;
  make(folder.path(), 6, {3});
  EXPECT_THAT(faultsOf(folder.path()), IsEmpty());
  change(folder.path(), "UPDATE record SET status = 500 WHERE sequence = 2");
  change(folder.path(), "UPDATE record SET output = '{}' WHERE sequence = 4");
  EXPECT_THAT(faultsOf(folder.path()),
              ElementsAre("record 2 (revision 2) has a wrong checksum",
                          "record 4 (revision 4) has a wrong checksum of its event or its "
                          "patches"));
  const JournalError error = errorOf([&] { Owner owner(folder.path()); });
  EXPECT_EQ(error.kind(), Kind::kDamaged);
  EXPECT_THAT(error.what(), HasSubstr("record 2 (revision 2) has a wrong checksum"));
  EXPECT_THAT(error.what(), HasSubstr("vnagent journal repair"));
}

TEST(DamagedJournal, IsFoundWhenRecordsSnapshotsOrRepliesAreMissing) {
  const Folder folder;
  const auto faultsAfter = [&](const char* name, const std::string& sql) {
    make(folder.path(name), 6, {3});
    change(folder.path(name), sql);
    EXPECT_EQ(errorOf([&] { Owner owner(folder.path(name)); }).kind(), Kind::kDamaged);
    return faultsOf(folder.path(name));
  };
  EXPECT_THAT(faultsAfter("a", "DELETE FROM record WHERE sequence = 5"),
              ElementsAre("record 5 is missing"));
  EXPECT_THAT(faultsAfter("b", "DELETE FROM record WHERE sequence > 5"),
              ElementsAre(HasSubstr("record 6 (revision 6) was acknowledged and is missing")));
  EXPECT_THAT(faultsAfter("c", "DELETE FROM snapshot_part WHERE member = 2"),
              ElementsAre("the snapshot of record 3 (revision 3) is not whole"));
  EXPECT_THAT(faultsAfter("d", "UPDATE snapshot SET revision = 4"),
              ElementsAre("the snapshot of record 3 (revision 4) has a wrong checksum"));
  EXPECT_THAT(faultsAfter("e", "INSERT INTO reply VALUES(1, 1, 1, '', 'k', '', 200, '', 7)"),
              ElementsAre("the reply of record 1 (revision 1) has a wrong checksum"));
  EXPECT_THAT(faultsAfter("f", "DELETE FROM meta"),
              ElementsAre("the UUID of the instance is missing or wrong"));
}

TEST(DamagedJournal, IsFoundWhenARecordDoesNotFollowFromTheOneBefore) {
  const Folder folder;
  const std::string directory = folder.path();
  {
    JournalHistory history;
    Owner owner(directory);
    owner.append(history, 3);
    JournalHistory other(3, 3, "1234567890123456");
    owner.append(other, 1);
  }
  EXPECT_THAT(faultsOf(directory), ElementsAre("record 4 (revision 4) has a check value that does "
                                               "not follow from the record before"));
}

TEST(DamagedJournal, IsNotCheckedAsAWholeWhenItIsLarge) {
  const Folder folder;
  make(folder.path(), 6, {2, 4});
  // The older snapshot is none that a restart needs.
  change(folder.path(), "UPDATE snapshot_part SET text = 'x' WHERE snapshot = 2");
  JournalSettings settings;
  settings.wholeCheckBytes = 1;
  EXPECT_EQ(Owner(folder.path(), settings).recovered().records.size(), 2U);
  EXPECT_EQ(errorOf([&] { Owner owner(folder.path()); }).kind(), Kind::kDamaged);
  change(folder.path(), "UPDATE record SET status = 500 WHERE sequence = 3");
  EXPECT_EQ(errorOf([&] { Owner owner(folder.path(), settings); }).kind(), Kind::kDamaged);
}

TEST(ForeignJournal, OfAnotherVersionIsRefused) {
  const Folder folder;
  make(folder.path(), 2, {});
  change(folder.path(), "PRAGMA user_version = 2");
  const JournalError error = errorOf([&] { Owner owner(folder.path()); });
  EXPECT_EQ(error.kind(), Kind::kFormat);
  EXPECT_THAT(error.what(), HasSubstr("format version 2; this program reads version 1"));
  EXPECT_EQ(errorOf([&] { faultsOf(folder.path()); }).kind(), Kind::kFormat);
  EXPECT_EQ(errorOf([&] { repairJournal(folder.path()); }).kind(), Kind::kFormat);
}

TEST(ForeignJournal, OfAnotherProgramIsRefusedAndLeftAsItIs) {
  const Folder folder;
  std::filesystem::create_directory(folder.path());
  change(folder.path(), "CREATE TABLE t(a)");
  const std::string before = contentOf(folder.path() + "/journal.db");
  EXPECT_EQ(errorOf([&] { Owner owner(folder.path()); }).kind(), Kind::kFormat);
  EXPECT_EQ(contentOf(folder.path() + "/journal.db"), before);
  write(folder.path() + "/journal.db", std::string(5000, 'x'));
  EXPECT_EQ(errorOf([&] { Owner owner(folder.path()); }).kind(), Kind::kDamaged);
}

TEST(ForeignJournal, IsRefusedWhenItsDatabaseIsGone) {
  const Folder folder;
  make(folder.path(), 2, {});
  std::filesystem::remove(folder.path() + "/journal.db");
  const JournalError error = errorOf([&] { Owner owner(folder.path()); });
  EXPECT_EQ(error.kind(), Kind::kDamaged);
  EXPECT_THAT(error.what(), HasSubstr("record 2 was acknowledged"));
}

// What an agent makes of a journal, in one text.
std::string stateOf(const Recovered& recovered) {
  std::string text = recovered.instance + recovered.snapshot.cloud + recovered.snapshot.output +
                     recovered.snapshot.state + recovered.snapshot.check;
  for (const auto* records : {&recovered.history, &recovered.records}) {
    for (const Record& r : *records) {
      text += std::to_string(r.sequence) + ' ' + r.check + r.output + r.outputBefore + r.cloud +
              r.cloudBefore + r.key + r.reply + r.principal + r.fingerprint;
    }
  }
  return text;
}

// Changes bytes of a file of a journal, and expects each change to be found or to do no harm.
void flipBytes(const Folder& folder, const char* name, int count) {
  FaultDisk quick("quick");
  JournalSettings settings;
  settings.vfs = quick.name();
  const std::string good = folder.path("good");
  const std::string whole = contentOf(good + name);
  ASSERT_GT(whole.size(), 0U);
  std::filesystem::copy(good, folder.path("intact"));
  const std::string expected = stateOf(Owner(folder.path("intact"), settings).recovered());
  std::mt19937 random(7);
  int found = 0;
  for (int i = 0; i < count; ++i) {
    const size_t position = random() % whole.size();
    const auto bit = static_cast<char>(1 << random() % 8);
    SCOPED_TRACE(::testing::Message() << "position " << position << ", bit " << int{bit});
    const std::string directory = folder.path("flipped");
    std::filesystem::remove_all(directory);
    std::filesystem::copy(good, directory);
    std::string content = whole;
    content[position] = static_cast<char>(content[position] ^ bit);
    write(directory + name, content);
    try {
      EXPECT_EQ(stateOf(Owner(directory, settings).recovered()), expected);
    } catch (const JournalError& error) {
      EXPECT_THAT(error.kind(), AnyOf(Kind::kDamaged, Kind::kFormat)) << error.what();
      ++found;
    }
  }
  EXPECT_GT(found, count / 4);
}

TEST(DamagedJournal, IsFoundOrAsItWasWhereverAByteOfItsFileChanges) {
  const Folder folder;
  JournalHistory history;
  {
    Owner owner(folder.path("good"));
    history.paddingIs(300);
    owner.append(history, 20);
    owner.store(history.snapshot(3000));
    owner.append(history, 20);
  }
  flipBytes(folder, "/journal.db", 150);
}

TEST(DamagedJournal, IsFoundOrAsItWasWhereverAByteOfItsLogChanges) {
  const Folder folder;
  JournalHistory history;
  history.paddingIs(300);
  Owner owner(folder.path());
  owner.append(history, 10);
  owner.store(history.snapshot(3000));
  owner.append(history, 10);
  // As after the end of the process, without a checkpoint.
  std::filesystem::copy(folder.path(), folder.path("good"));
  std::filesystem::remove(folder.path("good") + "/journal.db-shm");
  flipBytes(folder, "/journal.db-wal", 100);
}

TEST(Repair, ChangesNothingWhereNothingIsWrong) {
  const Folder folder;
  make(folder.path(), 3, {2});
  const std::string before = contentOf(folder.path() + "/journal.db");
  EXPECT_FALSE(repairJournal(folder.path()).isDamaged);
  EXPECT_EQ(contentOf(folder.path() + "/journal.db"), before);
}

TEST(Repair, IsRefusedWhileAnAgentHoldsTheJournal) {
  const Folder folder;
  Owner owner(folder.path());
  EXPECT_EQ(errorOf([&] { repairJournal(folder.path()); }).kind(), Kind::kHeld);
  EXPECT_EQ(errorOf([&] { compactJournal(folder.path(), {}); }).kind(), Kind::kHeld);
}

TEST(Repair, KeepsTheRecordsBeforeADamagedOne) {
  const Folder folder;
  make(folder.path(), 9, {3});
  const std::string instance = readContents(folder.path()).instance;
  change(folder.path(), "UPDATE record SET event = '{}' WHERE sequence = 6");
  const std::string damaged = contentOf(folder.path() + "/journal.db");
  const RepairReport report = repairJournal(folder.path());
  EXPECT_TRUE(report.isDamaged);
  EXPECT_EQ(report.lastRevision, 5U);
  EXPECT_THAT(report.gone, ElementsAre("revisions 6 to 9 are gone (records 6 to 9)"));
  ASSERT_THAT(report.copies, Contains(HasSubstr("journal.db.damaged-")));
  EXPECT_EQ(contentOf(report.copies.front()), damaged);
  EXPECT_THAT(faultsOf(folder.path()), IsEmpty());
  JournalHistory history;
  for (int i = 0; i < 5; ++i) history.next();
  {
    Owner owner(folder.path());
    EXPECT_EQ(owner.recovered().instance, instance);
    EXPECT_EQ(owner.recovered().snapshot.sequence, 3U);
    EXPECT_THAT(owner.recovered().history, SizeIs(3));
    ASSERT_THAT(owner.recovered().records, SizeIs(2));
    expectEqual(owner.recovered().records[1], patchOf(5));
    owner.append(history, 1);
  }
  EXPECT_THAT(sequencesIn(folder.path()), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(Repair, KeepsALaterStateThatASnapshotLeadsTo) {
  const Folder folder;
  make(folder.path(), 9, {2, 6});
  change(folder.path(), "DELETE FROM record WHERE sequence = 4");
  const RepairReport report = repairJournal(folder.path());
  EXPECT_EQ(report.lastRevision, 9U);
  EXPECT_THAT(report.gone, ElementsAre("revisions up to 4 can be neither replayed nor resumed from "
                                       "any more (records 1 to 4)"));
  EXPECT_THAT(sequencesIn(folder.path()), ElementsAre(5, 6, 7, 8, 9));
  const Owner owner(folder.path());
  EXPECT_EQ(owner.recovered().snapshot.sequence, 6U);
  EXPECT_THAT(owner.recovered().history, SizeIs(2));
  EXPECT_THAT(owner.recovered().records, SizeIs(3));
}

TEST(Repair, GoesBackToAnOlderSnapshotWhenTheNewestIsDamaged) {
  const Folder folder;
  make(folder.path(), 9, {2, 6});
  change(folder.path(), "UPDATE snapshot_part SET text = '' WHERE snapshot = 6 AND member = 1");
  const RepairReport report = repairJournal(folder.path());
  EXPECT_EQ(report.lastRevision, 9U);
  EXPECT_THAT(report.gone, IsEmpty());
  const Owner owner(folder.path());
  EXPECT_EQ(owner.recovered().snapshot.sequence, 2U);
  EXPECT_THAT(owner.recovered().records, SizeIs(7));
}

TEST(Repair, OfATornLogKeepsWhatIsBeforeTheTear) {
  const Folder folder;
  JournalHistory history;
  Owner owner(folder.path());
  owner.append(history, 3);
  const auto sizeOf = [&] { return std::filesystem::file_size(folder.path() + "/journal.db-wal"); };
  const auto before = sizeOf();
  owner.append(history, 1);
  const std::string directory = folder.path("torn");
  std::filesystem::copy(folder.path(), directory);
  std::filesystem::remove(directory + "/journal.db-shm");
  std::filesystem::resize_file(directory + "/journal.db-wal", before + (sizeOf() - before) / 2);
  // The last record was acknowledged: this is no end that a crash leaves.
  const JournalError error = errorOf([&] { Owner torn(directory); });
  EXPECT_EQ(error.kind(), Kind::kDamaged);
  EXPECT_THAT(error.what(), HasSubstr("record 4 (revision 4) was acknowledged and is missing"));
  EXPECT_THAT(repairJournal(directory).gone, ElementsAre("revision 4 is gone (record 4)"));
  EXPECT_THAT(Owner(directory).recovered().records, SizeIs(3));
  EXPECT_THAT(faultsOf(directory), IsEmpty());
}

TEST(Compact, RemovesOldRecordsAndGivesSpaceBack) {
  const Folder folder;
  JournalHistory history;
  history.paddingIs(5000);
  {
    Owner owner(folder.path());
    for (int i = 0; i < 4; ++i) {
      owner.append(history, 25);
      owner.store(history.snapshot());
    }
  }
  JournalSettings settings;
  settings.keepSeconds = 0;
  settings.keepRevisions = 20;
  const CompactReport report = compactJournal(folder.path(), settings);
  EXPECT_EQ(report.recordsRemoved, 75U);
  EXPECT_LT(report.bytesAfter, report.bytesBefore / 2);
  EXPECT_THAT(faultsOf(folder.path()), IsEmpty());
  const JournalContents contents = readContents(folder.path());
  EXPECT_EQ(contents.records, 25U);
  EXPECT_EQ(contents.firstRevision, 76U);
  EXPECT_EQ(contents.lastRevision, 100U);
  EXPECT_EQ(contents.lastCheck, history.check());
  EXPECT_THAT(contents.snapshots, ElementsAre(75, 100));
}

TEST(Tools, MayReadWhileAnAgentWrites) {
  const Folder folder;
  JournalHistory history;
  Owner owner(folder.path());
  for (int i = 0; i < 20; ++i) {
    for (int j = 0; j < 20; ++j) owner.storage().append(history.next());
    EXPECT_THAT(faultsOf(folder.path()), IsEmpty());
  }
  owner.journal().flush();
  EXPECT_THAT(sequencesIn(folder.path()), SizeIs(400));
}

TEST(Tools, MakeNothingWhereThereIsNoJournal) {
  const Folder folder;
  EXPECT_EQ(errorOf([&] { faultsOf(folder.path()); }).kind(), Kind::kIo);
  EXPECT_EQ(errorOf([&] { repairJournal(folder.path()); }).kind(), Kind::kIo);
  EXPECT_EQ(errorOf([&] { compactJournal(folder.path(), {}); }).kind(), Kind::kIo);
  EXPECT_FALSE(std::filesystem::exists(folder.path()));
}

// Appends until it is killed, and reports over a pipe what was acknowledged.
[[noreturn]] void writeUntilKilled(const std::string& directory, int pipe) {
  Journal journal(directory, {},
                  {.committed =
                       [pipe](uint64_t sequence, double) {
                         if (::write(pipe, &sequence, sizeof sequence) != sizeof sequence) _exit(1);
                       },
                   .failed = {},
                   .writable = {}});
  const Recovered recovered = journal.recover();
  const Snapshot& snapshot = recovered.snapshot;
  JournalHistory history(snapshot.sequence, snapshot.revision, snapshot.check);
  for (size_t i = 0; i < recovered.records.size(); ++i) history.next();
  for (uint64_t i = 1;; ++i) {
    journal.storage().append(history.next());
    if (i % 5 == 0) journal.flush();
    if (i % 50 == 0) journal.storage().snapshot(history.snapshot(300'000));
  }
}

TEST(KilledProcess, LosesNothingThatItAcknowledged) {
  const Folder folder;
  std::mt19937 random(11);
  uint64_t acknowledged = 0;
  for (int round = 0; round < 12; ++round) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(ends[0]);
      writeUntilKilled(folder.path(), ends[1]);
    }
    close(ends[1]);
    // Killed after some acknowledgements, at any moment of what follows them.
    uint64_t sequence = 0;
    for (auto i = random() % 60; i > 0; --i) {
      ASSERT_EQ(read(ends[0], &sequence, sizeof sequence), ssize_t{sizeof sequence});
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    while (read(ends[0], &sequence, sizeof sequence) == ssize_t{sizeof sequence}) {
    }
    close(ends[0]);
    acknowledged = std::max(acknowledged, sequence);
    EXPECT_THAT(faultsOf(folder.path()), IsEmpty());
    EXPECT_GE(readContents(folder.path()).records, acknowledged);
  }
  EXPECT_GT(acknowledged, 100U);
}

}  // namespace
}  // namespace vnagent
