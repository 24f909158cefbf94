// The journal on a disk that fails, is full, or loses what was not synced.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <utility>

#include "agent/journal/journal.h"
#include "tests/agent/fault_disk.h"
#include "tests/agent/journal_support.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;
using Fault = FaultDisk::Fault;

JournalSettings on(const FaultDisk& disk) {
  JournalSettings settings;
  settings.vfs = disk.name();
  return settings;
}

// All records from the first to `last` and nothing else is in a journal, as JournalHistory made
// them.
void expectAllUpTo(uint64_t last, const Recovered& recovered) {
  JournalHistory history;
  std::vector<const Record*> all;
  for (const Record& record : recovered.history) all.push_back(&record);
  for (const Record& record : recovered.records) all.push_back(&record);
  ASSERT_EQ(all.size(), last);
  for (const Record* record : all) expectEqual(*record, *history.next());
}

TEST(JournalOnDisk, SyncsBetweenAnAppendAndItsCallback) {
  const Folder folder;
  FaultDisk disk("syncs");
  std::atomic<uint64_t> committedAtSync = 0;
  JournalHistory history;
  Owner owner(folder.path(), on(disk));
  // The first commit of a process also writes the log of the one before again.
  owner.append(history, 1);
  disk.onSyncIs([&] { committedAtSync = owner.committed(); });
  for (uint64_t i = 1; i < 20; ++i) {
    const uint64_t before = disk.syncs();
    owner.append(history, 1);
    EXPECT_EQ(owner.committed(), i + 1);
    EXPECT_EQ(committedAtSync, i);
    EXPECT_EQ(disk.syncs(), before + 1);
  }
  disk.onSyncIs({});
}

TEST(JournalOnDisk, RefusesWritesWhileFullAndGoesOnWhenThereIsSpace) {
  const Folder folder;
  FaultDisk disk("full");
  JournalHistory history;
  {
    Owner owner(folder.path(), on(disk));
    owner.append(history, 4);
    for (const Fault fault : {Fault::kFull, Fault::kTornFull}) {
      JournalHistory lost = history;
      disk.faultIs(fault);
      const uint64_t failures = owner.failures();
      owner.append(lost, 3);
      EXPECT_EQ(owner.failures(), failures + 1);
      EXPECT_EQ(owner.failedAfter(), history.sequence());
      EXPECT_TRUE(owner.isNoSpace());
      EXPECT_FALSE(owner.isWritable());
      owner.append(lost, 2);
      EXPECT_EQ(owner.committed(), history.sequence());
      disk.faultIs(Fault::kNone);
      owner.awaitWritable();
      // One that the user appended before it knew is dropped too.
      owner.append(lost, 1);
      EXPECT_EQ(owner.committed(), history.sequence());
      owner.append(history, 2);
      EXPECT_EQ(owner.committed(), history.sequence());
    }
  }
  expectAllUpTo(8, Owner(folder.path()).recovered());
}

TEST(JournalOnDisk, GoesOnAfterWritesAndSyncsThatFailed) {
  const Folder folder;
  FaultDisk disk("errors");
  JournalHistory history;
  {
    Owner owner(folder.path(), on(disk));
    for (const Fault fault : {Fault::kWriteFails, Fault::kTornWrite, Fault::kSyncFails}) {
      for (const int spared : {0, 1, 2}) {
        owner.append(history, 1);
        JournalHistory lost = history;
        lost.paddingIs(20'000);  // of several pages
        disk.faultIs(fault, fault == Fault::kSyncFails ? 0 : spared);
        owner.append(lost, 1);
        EXPECT_EQ(owner.failedAfter(), history.sequence());
        EXPECT_FALSE(owner.isNoSpace());
        EXPECT_THAT(owner.reason(), HasSubstr("disk I/O error"));
        disk.faultIs(Fault::kNone);
        owner.awaitWritable();
      }
    }
    owner.append(history, 1);
  }
  expectAllUpTo(10, Owner(folder.path()).recovered());
}

TEST(JournalOnDisk, DoesNotBringBackWhatOnlyFailedToSync) {
  const Folder folder;
  FaultDisk disk("unsynced");
  JournalHistory history;
  Owner owner(folder.path(), on(disk));
  owner.append(history, 3);
  JournalHistory lost = history;
  disk.faultIs(Fault::kSyncFails);
  owner.append(lost, 1);
  EXPECT_EQ(owner.failedAfter(), 3U);
  // The process is killed now: all that it wrote is still there.
  std::filesystem::copy(folder.path(), folder.path("killed"));
  expectAllUpTo(3, Owner(folder.path("killed"), on(disk)).recovered());
}

// Moves the write-ahead log into the database; the next transaction begins it anew.
void checkpoint(const std::string& folder, const FaultDisk& disk) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open_v2((folder + "/journal.db").c_str(), &database, SQLITE_OPEN_READWRITE,
                            disk.name().c_str()),
            SQLITE_OK);
  // A connection knows of the log when it has read something.
  EXPECT_EQ(sqlite3_exec(database, "SELECT count(*) FROM record", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(
      sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr),
      SQLITE_OK);
  sqlite3_close(database);
}

// There the header of the log is synced by itself, before anything of a transaction is written.
TEST(JournalOnDisk, DoesNotBringBackWhatFailedToSyncAtTheBeginningOfTheLog) {
  const Folder folder;
  FaultDisk disk("beginning");
  JournalHistory history;
  Owner owner(folder.path(), on(disk));
  owner.append(history, 3);
  checkpoint(folder.path(), disk);
  JournalHistory lost = history;
  disk.faultIs(Fault::kSyncFails, 1);
  owner.append(lost, 1);
  EXPECT_EQ(owner.failedAfter(), 3U);
  // The process is killed now: all that it wrote is still there.
  std::filesystem::copy(folder.path(), folder.path("killed"));
  expectAllUpTo(3, Owner(folder.path("killed"), on(disk)).recovered());
}

// The next process reads in the cache what the sync could not write, and the disk never gets it.
TEST(JournalOnDisk, LosesNothingThatFollowsWhatOnlyFailedToSync) {
  const Folder folder;
  FaultDisk disk("killed");
  JournalHistory history;
  {
    Owner owner(folder.path(), on(disk));
    owner.append(history, 3);
    disk.faultIs(Fault::kSyncFails);
    // The process is killed right after the sync that fails.
    bool isKilled = false;
    bool hasFailed = false;
    disk.onSyncIs([&] { hasFailed = true; });
    disk.onWriteIs([&] {
      if (!hasFailed || std::exchange(isKilled, true)) return;
      disk.copy(folder.path(), folder.path("killed"));
    });
    owner.append(history, 1);
    EXPECT_EQ(owner.failedAfter(), 3U);
    EXPECT_TRUE(isKilled);
    disk.onSyncIs({});
    disk.onWriteIs({});
    disk.faultIs(Fault::kNone);
  }
  std::map<std::string, std::string> left;
  {
    Owner owner(folder.path("killed"), on(disk));
    expectAllUpTo(4, owner.recovered());
    owner.append(history, 2);
    EXPECT_EQ(owner.committed(), 6U);
    left = disk.synced(folder.path("killed"));
  }
  // A crash of the whole system.
  std::filesystem::create_directory(folder.path("crashed"));
  for (const auto& [name, content] : left) write(folder.path("crashed") + '/' + name, content);
  expectAllUpTo(6, Owner(folder.path("crashed")).recovered());
}

TEST(JournalOnDisk, StartsOnADiskThatFails) {
  for (const Fault fault :
       {Fault::kFull, Fault::kWriteFails, Fault::kTornWrite, Fault::kSyncFails}) {
    SCOPED_TRACE(static_cast<int>(fault));
    const Folder folder;
    FaultDisk disk("still-failing");
    JournalHistory history;
    Owner owner(folder.path(), on(disk));
    owner.append(history, 3);
    std::filesystem::copy(folder.path(), folder.path("killed"));
    disk.faultIs(fault);
    Owner again(folder.path("killed"), on(disk));
    expectAllUpTo(3, again.recovered());
    JournalHistory lost = history;
    again.append(lost, 1);
    EXPECT_EQ(again.failedAfter(), 3U);
    EXPECT_EQ(again.isNoSpace(), fault == Fault::kFull);
    disk.faultIs(Fault::kNone);
    again.awaitWritable();
    again.append(history, 1);
    EXPECT_EQ(again.committed(), 4U);
  }
}

TEST(JournalOnDisk, GivesUpASnapshotThatCannotBeWritten) {
  const Folder folder;
  FaultDisk disk("snapshots");
  JournalHistory history;
  {
    Owner owner(folder.path(), on(disk));
    owner.append(history, 2);
    owner.store(history.snapshot());
    owner.append(history, 2);
    disk.faultIs(Fault::kFull, 70);
    owner.storage().snapshot(history.snapshot(1 << 20));
    Owner::until([&] { return owner.journal().figures().failures > 0; }, "it fails");
    EXPECT_TRUE(owner.isWritable());
    disk.faultIs(Fault::kNone);
    owner.append(history, 1);
    EXPECT_EQ(owner.committed(), 5U);
  }
  const Owner again(folder.path());
  EXPECT_EQ(again.recovered().snapshot.sequence, 2U);
  expectAllUpTo(5, again.recovered());
}

// What a crash left, and what was acknowledged by then.
struct Crash {
  std::map<std::string, std::string> files;
  std::string durable;
  uint64_t acknowledged;
};

// Uses a journal, and crashes at random moments of it.
void use(const std::string& folder, uint32_t seed, std::vector<Crash>& crashes) {
  std::mt19937 random(seed);
  FaultDisk disk("crashes");
  JournalHistory history;
  // Beside the journal's thread, as its callback runs there: no lock is needed.
  uint64_t acknowledged = 0;
  const auto crash = [&] {
    if (random() % 30 != 0) return;
    crashes.push_back({disk.afterCrash(random), contentOf(folder + "/durable"), acknowledged});
  };
  JournalSettings settings = on(disk);
  settings.keepSeconds = 0;
  settings.keepRevisions = 1000;
  Journal journal(folder, settings,
                  {.committed = [&](uint64_t sequence, double) { acknowledged = sequence; },
                   .failed = {},
                   .writable = {}});
  journal.recover();
  disk.onWriteIs(crash);
  disk.onSyncIs(crash);
  std::mt19937 user(seed + 1);
  for (int i = 0; i < 30; ++i) {
    history.paddingIs(user() % 4 == 0 ? user() % 9'000 : 0);
    for (uint32_t count = 1 + user() % 4; count > 0; --count) {
      journal.storage().append(history.next());
    }
    if (user() % 2 == 0) journal.flush();
    if (user() % 6 == 0) {
      journal.flush();
      journal.storage().snapshot(history.snapshot(user() % 2 == 0 ? 300'000 : 10));
    }
  }
  journal.flush();
}

TEST(JournalOnDisk, LosesNothingThatWasAcknowledgedInACrash) {
  FaultDisk quick("quick");
  size_t count = 0;
  for (const uint32_t seed : {1U, 2U}) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    const Folder folder;
    std::vector<Crash> crashes;
    use(folder.path(), seed, crashes);
    for (size_t i = 0; i < crashes.size(); ++i) {
      SCOPED_TRACE(::testing::Message() << "crash " << i);
      const Folder after;
      std::filesystem::create_directory(after.path());
      for (const auto& [path, content] : crashes[i].files) {
        write(after.path() + '/' + std::filesystem::path(path).filename().string(), content);
      }
      write(after.path() + "/durable", crashes[i].durable);
      const Owner owner(after.path(), on(quick));
      const Recovered& recovered = owner.recovered();
      const uint64_t last = recovered.records.empty() ? recovered.snapshot.sequence
                                                      : recovered.records.back().sequence;
      EXPECT_GE(last, crashes[i].acknowledged);
      std::string check(kFirstCheck);
      for (const auto* records : {&recovered.history, &recovered.records}) {
        for (const Record& record : *records) {
          EXPECT_EQ(record.check, nextCheck(check, record));
          check = record.check;
        }
      }
      EXPECT_EQ(recovered.history.size() + recovered.records.size(), last);
      ++count;
    }
  }
  EXPECT_GT(count, 20U);
}

}  // namespace
}  // namespace vnagent
