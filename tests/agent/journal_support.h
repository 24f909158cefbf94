// What the tests of the journal share: a directory, records that follow from each other, and a user
// of the journal that waits for its callbacks.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/journal/journal.h"

namespace vnagent {

// A directory of its own for a test.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "journal-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string path(const std::string& name = "state") const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// Makes records that follow from each other. Everything in them depends on their sequence alone.
class JournalHistory {
 public:
  JournalHistory() = default;
  // Goes on after a record.
  JournalHistory(uint64_t sequence, uint64_t revision, std::string check)
      : sequence_(sequence), revision_(revision), check_(std::move(check)) {}

  // How many bytes of padding each patch has from now on.
  void paddingIs(size_t bytes) { padding_ = bytes; }

  std::shared_ptr<const Record> next(Record::Kind kind = Record::Kind::kPatch) {
    auto record = std::make_shared<Record>();
    Record& r = *record;
    r.sequence = ++sequence_;
    const bool isChange = kind == Record::Kind::kPatch || kind == Record::Kind::kExpiry;
    r.revision = isChange ? ++revision_ : revision_;
    r.kind = kind;
    const std::string number = std::to_string(sequence_);
    r.advance = 0.25 * static_cast<double>(sequence_ % 7);
    r.wallTime = static_cast<int64_t>(1'000'000 + sequence_);
    r.event = R"({"region":{"R)" + number + R"(":{}}})";
    if (sequence_ % 3 == 0) r.drawn = {"uuid-" + number, "uuid-b-" + number};
    r.output = R"({"o":)" + number + "}" + std::string(padding_, ' ');
    r.outputBefore = R"({"o":null})";
    r.cloud = R"({"c":)" + number + "}";
    r.cloudBefore = R"({"c":null})";
    if (sequence_ % 2 == 0) {
      r.principal = "driver";
      r.key = "key-" + number;
      r.fingerprint = "PATCH " + number;
      r.status = 200;
      r.reply = R"({"revision":)" + std::to_string(r.revision) + "}";
    }
    r.check = nextCheck(check_, r);
    check_ = r.check;
    return record;
  }

  // The state after the last record.
  Snapshot snapshot(size_t bytes = 100) const {
    Snapshot snapshot;
    snapshot.sequence = sequence_;
    snapshot.revision = revision_;
    snapshot.check = check_;
    snapshot.cloud = "cloud " + std::to_string(sequence_) + std::string(bytes, 'c');
    snapshot.output = "output " + std::to_string(sequence_) + std::string(bytes, 'o');
    snapshot.state = "state " + std::to_string(sequence_);
    return snapshot;
  }

  uint64_t sequence() const { return sequence_; }
  uint64_t revision() const { return revision_; }
  const std::string& check() const { return check_; }

 private:
  uint64_t sequence_ = 0;
  uint64_t revision_ = 0;
  std::string check_{kFirstCheck};
  size_t padding_ = 0;
};

// The record of a sequence, all of kind patch before it.
inline Record patchOf(uint64_t sequence, size_t padding = 0) {
  JournalHistory history;
  history.paddingIs(padding);
  while (history.sequence() + 1 < sequence) history.next();
  return *history.next();
}

inline void expectEqual(const Record& is, const Record& expected) {
  EXPECT_EQ(is.sequence, expected.sequence);
  EXPECT_EQ(is.revision, expected.revision);
  EXPECT_EQ(is.kind, expected.kind);
  EXPECT_EQ(is.advance, expected.advance);
  EXPECT_EQ(is.wallTime, expected.wallTime);
  EXPECT_EQ(is.event, expected.event);
  EXPECT_EQ(is.drawn, expected.drawn);
  EXPECT_EQ(is.check, expected.check);
  EXPECT_EQ(is.output, expected.output);
  EXPECT_EQ(is.outputBefore, expected.outputBefore);
  EXPECT_EQ(is.cloud, expected.cloud);
  EXPECT_EQ(is.cloudBefore, expected.cloudBefore);
  EXPECT_EQ(is.principal, expected.principal);
  EXPECT_EQ(is.key, expected.key);
  EXPECT_EQ(is.fingerprint, expected.fingerprint);
  EXPECT_EQ(is.status, expected.status);
  EXPECT_EQ(is.reply, expected.reply);
  EXPECT_EQ(is.onDisk, expected.onDisk);
}

// Opens a journal and remembers what it calls back.
class Owner {
 public:
  explicit Owner(const std::string& directory, JournalSettings settings = {})
      : journal_(directory, quick(std::move(settings)),
                 {.committed =
                      [this](uint64_t sequence, double) {
                        change([&] {
                          committed_ = sequence;
                          ++commits_;
                        });
                      },
                  .failed =
                      [this](uint64_t sequence, const std::string& reason, bool isNoSpace) {
                        change([&] {
                          ++failures_;
                          failedAfter_ = sequence;
                          reason_ = reason;
                          isNoSpace_ = isNoSpace;
                          isWritable_ = false;
                        });
                      },
                  .writable = [this] { change([&] { isWritable_ = true; }); }}),
        recovered_(journal_.recover()) {}

  Journal& journal() { return journal_; }
  Storage& storage() { return journal_.storage(); }
  const Recovered& recovered() const { return recovered_; }

  // Appends records, and waits until they are committed or have failed.
  void append(JournalHistory& history, int count) {
    for (int i = 0; i < count; ++i) storage().append(history.next());
    journal_.flush();
  }

  // Stores a snapshot, and waits until it is complete.
  void store(Snapshot snapshot) {
    const uint64_t before = journal_.figures().snapshots;
    storage().snapshot(std::move(snapshot));
    until([&] { return journal_.figures().snapshots > before; }, "the snapshot is complete");
  }

  // Waits until the journal can be written again.
  void awaitWritable() {
    until([this] { return isWritable(); }, "the journal is writable");
  }

  template <class Condition>
  static void until(Condition&& condition, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "not in time: " << what;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  uint64_t committed() const { return get(committed_); }
  uint64_t commits() const { return get(commits_); }
  uint64_t failures() const { return get(failures_); }
  uint64_t failedAfter() const { return get(failedAfter_); }
  std::string reason() const { return get(reason_); }
  bool isNoSpace() const { return get(isNoSpace_); }
  bool isWritable() const { return get(isWritable_); }

 private:
  static JournalSettings quick(JournalSettings settings) {
    settings.probeInterval = std::chrono::milliseconds(5);
    return settings;
  }
  template <class Action>
  void change(Action&& action) {
    const std::scoped_lock lock(mutex_);
    action();
  }
  template <class Value>
  Value get(const Value& value) const {
    const std::scoped_lock lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  uint64_t committed_ = 0;
  uint64_t commits_ = 0;
  uint64_t failures_ = 0;
  uint64_t failedAfter_ = 0;
  std::string reason_;
  bool isNoSpace_ = false;
  bool isWritable_ = true;
  Journal journal_;
  Recovered recovered_;
};

// The error that an action throws.
template <class Action>
JournalError errorOf(Action&& action) {
  try {
    action();
  } catch (const JournalError& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return JournalError(JournalError::Kind::kIo, "");
}

}  // namespace vnagent
