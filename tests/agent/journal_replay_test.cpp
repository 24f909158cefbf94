// vnagent run --journal: the history of a live agent, played back offline.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include <sqlite3.h>

#include "OpenStackSm/Uuid.h"
#include "agent/document/write_cloud.h"
#include "agent/json/json_writer.h"
#include "agent/live/replay.h"
#include "agent/output/output_json.h"
#include "tests/agent/command_support.h"
#include "tests/agent/journal_support.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;

// Writes the history of a session into a journal, as a live agent does.
class Recorder {
 public:
  explicit Recorder(const std::string& directory) : owner_(directory) {
    OpenStack::uuidSourceIs([this] {
      drawn_.push_back("00000000-0000-4000-8000-" + std::to_string(100'000'000'000 + ++uuids_));
      return drawn_.back();
    });
    session_ = std::make_unique<Session>(settings(), clock_);
  }
  ~Recorder() { OpenStack::uuidSourceIs(nullptr); }

  void pass(double seconds) { clock_.nowIs(clock_.now() + seconds); }

  void patch(const std::string& patch) {
    drawn_.clear();
    const StepOutcome outcome = session_->take(SourceEvent::ofDocument(patch));
    ASSERT_TRUE(outcome.applied()) << outcome.faults.front().message();
    append(Record::Kind::kPatch, patch, outcome.output);
  }

  // As if an agent with other settings had made it, which changed nothing.
  void patchOfAnother(const std::string& patch) {
    drawn_.clear();
    session_->take(SourceEvent::ofDocument(patch));
    append(Record::Kind::kPatch, patch, {});
  }

  void expire() {
    ASSERT_TRUE(std::isfinite(session_->nextTimer()));
    clock_.nowIs(std::max(clock_.now(), session_->nextTimer()));
    drawn_.clear();
    const auto outcome = session_->expire();
    ASSERT_TRUE(outcome);
    append(Record::Kind::kExpiry, "", outcome->output);
  }

  void restart() {
    const Snapshot before = snapshot();
    const std::string state = session_->state();
    session_.reset();
    session_ = std::make_unique<Session>(settings(), clock_);
    session_->restore(before.cloud, before.output, state);
    session_->restartTimers();
    drawn_.clear();
    append(Record::Kind::kRestart, "", {});
  }

  void store() { owner_.store(snapshot()); }
  void close() { owner_.journal().flush(); }

  std::string output() const {
    std::string text;
    JsonWriter json(text, JsonWriter::Style::kIndented);
    writeOutput(session_->output(), json);
    return text + '\n';
  }
  uint64_t revision() const { return revision_; }

 private:
  static SessionSettings settings() { return {.changes = true}; }

  Snapshot snapshot() const {
    Snapshot snapshot;
    snapshot.sequence = sequence_;
    snapshot.revision = revision_;
    snapshot.check = check_;
    snapshot.cloud = jsonText([&](JsonWriter& json) { writeCloud(session_->document(), json); });
    snapshot.output = jsonText([&](JsonWriter& json) { writeOutput(session_->output(), json); });
    snapshot.state = jsonText([&](JsonWriter& json) {
      json.open('{').key("session").text(session_->state()).close('}');
    });
    return snapshot;
  }

  void append(Record::Kind kind, const std::string& event, const OutputDocument& change) {
    auto record = std::make_shared<Record>();
    record->sequence = ++sequence_;
    record->kind = kind;
    record->event = event;
    if (kind != Record::Kind::kRestart) {
      record->output = jsonText([&](JsonWriter& json) { writeOutput(change, json); });
      if (record->output == "{}") record->output.clear();
    }
    const bool isChange = kind == Record::Kind::kPatch || !record->output.empty();
    record->revision = revision_ += isChange ? 1 : 0;
    record->advance = clock_.now() - last_;
    last_ = clock_.now();
    record->drawn = drawn_;
    record->check = check_ = nextCheck(check_, *record);
    owner_.storage().append(record);
    owner_.journal().flush();
  }

  Owner owner_;
  VirtualClock clock_;
  std::unique_ptr<Session> session_;
  std::vector<std::string> drawn_;
  uint64_t uuids_ = 0;
  uint64_t sequence_ = 0;
  uint64_t revision_ = 0;
  double last_ = 0;
  std::string check_{kFirstCheck};
};

constexpr const char* kRegion = R"({"region": {"R": {
    "segment": {"s": {"segmentationType": "vlan", "segmentationId": 100}},
    "port": {"p": {}},
    "portBinding": {"p": {"portToHostBinding": {"compute-1": {"segment": {"0": "s"}}}}}}}})";
constexpr const char* kStart = R"({"region": {"R": {"syncStatus": "syncInProgress"}}})";

class JournalReplay : public Commands {
 protected:
  // A history with UUIDs, times, an expiry and a restart. The output after each revision.
  std::vector<std::string> record(bool withSnapshot) const {
    std::vector<std::string> outputs{"unused"};
    Recorder recorder(directory());
    const auto note = [&] { outputs.resize(recorder.revision() + 1, recorder.output()); };
    recorder.patch(kRegion);
    note();
    recorder.pass(1.7);
    recorder.patch(
        R"({"config": {"vlanAssignment": {"R": {"vlan": {"100": true, "101": true}}}}})");
    note();
    recorder.pass(0.1);
    recorder.patch(kStart);
    note();
    if (withSnapshot) recorder.store();
    recorder.pass(7.3);
    recorder.restart();
    recorder.pass(0.3);
    recorder.patch(R"({"region": {"R": {"syncHeartbeat": 1}}})");
    note();
    recorder.expire();
    note();
    recorder.pass(100);
    recorder.patch(R"({"region": {"R": {"portBinding": {"p": null}}}})");
    note();
    return outputs;
  }

  std::string directory() const { return (folder_ / "state").string(); }

  Result replay(std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments{"run", "--journal", directory(), "--format", "json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return vnagent(arguments);
  }
};

TEST_F(JournalReplay, EndsInTheSameOutputAtEachRevision) {
  const auto outputs = record(true);
  ASSERT_EQ(outputs.size(), 7U);
  for (size_t revision = 1; revision < outputs.size(); ++revision) {
    const Result result = replay({"--until", std::to_string(revision)});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, outputs[revision]) << revision;
  }
  EXPECT_EQ(replay().out, outputs.back());
}

TEST_F(JournalReplay, SaysWhichRevisionsItHas) {
  record(false);
  const Result result = replay({"--until", "7"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("the last revision is 6"));
}

TEST_F(JournalReplay, BeginsWithASnapshotWhenTheFirstRecordsAreGone) {
  const auto outputs = record(true);
  {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open((directory() + "/journal.db").c_str(), &database), SQLITE_OK);
    sqlite3_exec(database, "DELETE FROM record WHERE sequence <= 2", nullptr, nullptr, nullptr);
    sqlite3_close(database);
  }
  EXPECT_EQ(replay().out, outputs.back());
  EXPECT_EQ(replay({"--until", "3"}).out, outputs[3]);
  const Result result = replay({"--until", "2"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("the oldest revision that can be replayed is 3"));
}

TEST_F(JournalReplay, NoticesAnotherOutcomeThanTheRecorded) {
  {
    Recorder recorder(directory());
    recorder.patchOfAnother(kRegion);
  }
  const Result result = replay();
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("record 1 (revision 1) changes the output otherwise"));
}

TEST_F(JournalReplay, IsRefusedWhereThereIsNoJournalOrTwoSources) {
  EXPECT_EQ(replay().status, 4);
  EXPECT_EQ(vnagent({"run", "cloud.json", "--journal", "d"}).status, 2);
  EXPECT_EQ(vnagent({"run", "--until", "3"}).status, 2);
}

}  // namespace
}  // namespace vnagent
