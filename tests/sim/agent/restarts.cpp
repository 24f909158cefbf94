// Runs streams of events through sessions that are restarted: after each cut a new session takes
// over what the one before was, and must go on exactly as that would have.
//
//   restarts --toggle on|off --cuts N <STREAMS
//
// Each line of standard input is a stream, an object with `name`, `timeout`, `cloud`, the text of
// a document, and `events`, an array of lines. A stream is run without a restart first. Each change
// in it is held to the difference of the documents, there and back. Then it is cut after each step,
// or after N steps at random, 0 for each: the documents and the state are given to a new session,
// which is compared with the first run, there and after each step that remains. Every second one
// has a clock that counts from another time. The UUIDs of a run are numbered, so that texts compare
// as they are.
#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "OpenStackSm/Uuid.h"
#include "agent/document/write_change.h"
#include "agent/document/write_cloud.h"
#include "agent/output/output_json.h"
#include "agent/session/session.h"
#include "tests/agent/merge_patch.h"

namespace vnagent {
namespace {

using nlohmann::json;

constexpr double kOtherTime = 4096;  // sums with it are exact

struct Stream {
  std::string name;
  double timeout = 60;
  std::vector<SourceEvent (*)(std::string_view)> readers;
  std::vector<std::string> lines;

  explicit Stream(const json& line) : name(line.at("name")), timeout(line.at("timeout")) {
    readers.push_back(&SourceEvent::ofDocument);
    lines.push_back(line.at("cloud"));
    for (const auto& event : line.at("events")) {
      readers.push_back(&SourceEvent::ofLine);
      lines.push_back(event);
    }
  }
  size_t steps() const { return lines.size(); }
  SourceEvent event(size_t step) const { return readers[step](lines[step]); }
};

std::string written(const OutputDocument& output) {
  return jsonText([&](JsonWriter& writer) { writeOutput(output, writer); });
}

// All that can be seen of a session after a step.
struct Seen {
  bool applied = true;
  double time = 0;
  std::string cloud;
  std::string output;
  std::string state;
  std::string cloudChange = "{}";
  std::string cloudBack = "{}";
  std::string outputChange = "{}";
  std::string outputBack = "{}";
  unsigned uuids = 0;  // drawn so far

  friend bool operator==(const Seen&, const Seen&) = default;
};

// A session with its clock and its UUIDs.
class Agent {
 public:
  Agent(double timeout, double time, unsigned uuids) : uuids_(uuids) {
    clock_.nowIs(time);
    OpenStack::uuidSourceIs([this] { return fmt::format("uuid-{}", ++uuids_); });
    session_.emplace(
        SessionSettings{
            .toggle = toggle, .regionSyncTimeout = timeout, .changes = true, .changesBack = true},
        clock_);
  }
  ~Agent() { OpenStack::uuidSourceIs(nullptr); }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  void restore(const Seen& from) { session_->restore(from.cloud, from.output, from.state); }

  Seen take(SourceEvent event) {
    const StepOutcome outcome = session_->take(std::move(event));
    Seen seen = look();
    seen.applied = outcome.applied();
    seen.outputChange = written(outcome.output);
    seen.outputBack = written(outcome.outputBefore);
    if (outcome.cloud == nullptr) return seen;
    const auto change = [&](Direction direction) {
      return jsonText([&](JsonWriter& writer) {
        writeChange(session_->document(), *outcome.cloud, writer, direction);
      });
    };
    seen.cloudChange = change(Direction::kForward);
    seen.cloudBack = change(Direction::kBack);
    return seen;
  }

  // As after a step that has changed nothing.
  Seen look() const {
    Seen seen;
    seen.time = clock_.now();
    seen.cloud = jsonText([&](JsonWriter& writer) { writeCloud(session_->document(), writer); });
    seen.output = written(session_->output());
    seen.state = session_->state();
    seen.uuids = uuids_;
    return seen;
  }

  static inline bool toggle = true;

 private:
  unsigned uuids_;
  VirtualClock clock_;
  std::optional<Session> session_;
};

class Check {
 public:
  Check(const Stream& stream, size_t cuts) : stream_(stream), cuts_(cuts) {}

  bool run() {
    runWhole();
    for (const size_t cut : cutsOf()) runCut(cut);
    return passed_;
  }

 private:
  void fault(size_t step, const std::string& what) {
    if (passed_) std::cout << "FAILED  " << stream_.name << '\n';
    std::cout << "        step " << step << ": " << what << '\n';
    passed_ = false;
  }

  void runWhole() {
    Agent agent(stream_.timeout, 0, 0);
    Seen before = agent.look();
    for (size_t step = 0; step < stream_.steps(); ++step) {
      Seen after = agent.take(stream_.event(step));
      compare(step, "output", before.output, after.output, after.outputChange, after.outputBack);
      compare(step, "cloud", before.cloud, after.cloud, after.cloudChange, after.cloudBack);
      whole_.push_back(after);
      before = std::move(after);
    }
  }

  // Holds a change, there and back, to the difference of the documents.
  void compare(size_t step, std::string_view what, const std::string& before,
               const std::string& after, const std::string& change, const std::string& back) {
    const json from = json::parse(before);
    const json to = json::parse(after);
    if (const json wanted = difference(from, to); json::parse(change) != wanted) {
      fault(step, fmt::format("{}: the change is {}, not {}", what, change, wanted.dump()));
    }
    if (const json wanted = difference(to, from); json::parse(back) != wanted) {
      fault(step, fmt::format("{}: the change back is {}, not {}", what, back, wanted.dump()));
    }
    json applied = from;
    applied.merge_patch(json::parse(change));
    if (applied != to) fault(step, fmt::format("{}: {} does not lead there", what, change));
    applied.merge_patch(json::parse(back));
    if (applied != from) fault(step, fmt::format("{}: {} does not lead back", what, back));
  }

  std::vector<size_t> cutsOf() const {
    std::vector<size_t> all(stream_.steps());
    std::iota(all.begin(), all.end(), size_t{0});
    if (cuts_ == 0 || all.size() <= cuts_) return all;
    std::vector<size_t> some;
    std::mt19937 random(static_cast<unsigned>(stream_.steps()));
    std::sample(all.begin(), all.end(), std::back_inserter(some), cuts_, random);
    return some;
  }

  void runCut(size_t cut) {
    const Seen& from = whole_[cut];
    const double moved = cut % 2 == 0 ? 0 : kOtherTime;
    Agent agent(stream_.timeout, from.time + moved, from.uuids);
    agent.restore(from);
    const std::string after = fmt::format("after a restart at {}", cut);
    compare(cut, after + ", at once", agent.look(), quiet(from), moved);
    for (size_t step = cut + 1; step < stream_.steps(); ++step) {
      compare(step, after, agent.take(stream_.event(step)), whole_[step], moved);
    }
  }

  // What is seen where no step was made.
  static Seen quiet(Seen seen) {
    seen.applied = true;
    seen.cloudChange = seen.cloudBack = seen.outputChange = seen.outputBack = "{}";
    return seen;
  }

  void compare(size_t step, std::string_view when, Seen seen, const Seen& wanted, double moved) {
    if (moved != 0) {
      seen.time -= moved;
      json state = json::parse(seen.state);
      state["time"] = state["time"].get<double>() - moved;
      for (auto& due : state["timers"]) due = due.get<double>() - moved;
      if (state == json::parse(wanted.state)) seen.state = wanted.state;
    }
    if (seen == wanted) return;
    const auto differ = [&](std::string_view what, const auto& is, const auto& should) {
      if (is == should) return;
      fault(step, fmt::format("{}: {} is {}, not {}", when, what, is, should));
    };
    differ("applied", seen.applied, wanted.applied);
    differ("time", seen.time, wanted.time);
    differ("cloud", seen.cloud, wanted.cloud);
    differ("output", seen.output, wanted.output);
    differ("state", seen.state, wanted.state);
    differ("cloud change", seen.cloudChange, wanted.cloudChange);
    differ("cloud change back", seen.cloudBack, wanted.cloudBack);
    differ("output change", seen.outputChange, wanted.outputChange);
    differ("output change back", seen.outputBack, wanted.outputBack);
    differ("UUIDs drawn", seen.uuids, wanted.uuids);
  }

  const Stream& stream_;
  const size_t cuts_;
  std::vector<Seen> whole_;
  bool passed_ = true;
};

int main(const std::vector<std::string_view>& arguments) {
  if (arguments.size() != 4 || arguments[0] != "--toggle" || arguments[2] != "--cuts") {
    std::cerr << "restarts --toggle on|off --cuts N <STREAMS\n";
    return 2;
  }
  Agent::toggle = arguments[1] == "on";
  const size_t cuts = std::stoul(std::string(arguments[3]));
  size_t passed = 0;
  size_t failed = 0;
  for (std::string line; std::getline(std::cin, line);) {
    const Stream stream(json::parse(line));
    ++(Check(stream, cuts).run() ? passed : failed);
  }
  std::cout << fmt::format("{} passed, {} failed\n", passed, failed);
  return failed == 0 && passed > 0 ? 0 : 1;
}

}  // namespace
}  // namespace vnagent

int main(int count, char** words) {
  return vnagent::main({words + 1, words + count});
}
