// Replays a graph of the protocol's model on the region machine: every transition, in virtual time,
// by nothing but what drivers write and the clock. After each the region's status, its lock and its
// timer must be what the model says.
//
//   protocol_conformance GRAPH
//
// The graph's lines are what switch.pml prints: "STEP from event value to". Other lines are passed
// over. Also looked at: that in the model a completion can be reached from every state.
#include <array>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "OpenStackSm/RegionConfigSm.h"
#include "framework/Activity.h"

namespace {

constexpr Kiv::Seconds kTick = 1;
constexpr Kiv::Seconds kTimeout = 2 * kTick;  // TIMEOUT of switch.pml

// A state of the model, as far as it can be seen on the machine: the numbers that switch.pml
// prints, and how many notifications wait.
using View = std::array<int, 9>;
constexpr std::size_t kStatus = 3;

struct Step {
  std::string event;
  int value;
  std::size_t to;
  bool taken = false;
};

struct State {
  std::string name;
  View view;
  std::vector<Step> steps;
  std::size_t untaken = 0;  // of the steps
};

[[noreturn]] void fail(const std::string& why) {
  std::cout << why << '\n';
  std::exit(EXIT_FAILURE);
}

// The states and steps that the model has; the first state is the initial one.
class Graph {
 public:
  explicit Graph(std::istream& lines) {
    intern("0,0,0,0,0,0,0,0,");
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("STEP ")) add(line);
    }
    for (const State& state : states_) {
      if (steps_ > 0 && state.steps.empty()) fail("the model has no step from " + state.name);
    }
  }

  std::vector<State>& states() { return states_; }
  std::size_t steps() const { return steps_; }

 private:
  std::size_t intern(const std::string& name) {
    const auto [at, isNew] = index_.emplace(name, states_.size());
    if (isNew) states_.push_back({name, viewOf(name), {}, 0});
    return at->second;
  }

  static View viewOf(const std::string& name) {
    View view{};
    std::size_t begin = 0;
    for (std::size_t i = 0; i + 1 < view.size(); ++i) {
      const std::size_t end = name.find(',', begin);
      if (end == std::string::npos) fail("cannot read the state " + name);
      view[i] = std::stoi(name.substr(begin, end - begin));
      begin = end + 1;
    }
    view.back() = static_cast<int>(name.size() - begin);
    return view;
  }

  // Steps that both drivers can make come twice.
  void add(const std::string& line) {
    std::istringstream words(line);
    std::string keyword, from, event, to;
    int value = 0;
    if (!(words >> keyword >> from >> event >> value >> to)) fail("cannot read: " + line);
    const std::size_t target = intern(to);
    const std::size_t source = intern(from);
    auto& steps = states_[source].steps;
    for (const Step& step : steps) {
      if (step.event != event || step.value != value) continue;
      if (step.to != target) fail("the model has two answers to: " + line);
      return;
    }
    steps.push_back({event, value, target});
    ++states_[source].untaken;
    ++steps_;
  }

  std::vector<State> states_;
  std::unordered_map<std::string, std::size_t> index_;
  std::size_t steps_ = 0;
};

// A region with its machine, and the loop and clock that drive it.
class Machine {
 public:
  Machine() {
    Kiv::System::timeSourceIs(&time_);
    sm_ = OpenStack::regionConfigSmFactory(
        "R", region_, status_, Kiv::make<VirtualNetwork::RequestedResourcesCollection>(), kTimeout,
        Kiv::make<VirtualNetwork::NetworkElementCollection>());
    loop_.run();
  }
  ~Machine() {
    sm_ = nullptr;
    Kiv::System::timeSourceIs(nullptr);
  }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  void take(const Step& step) {
    const std::string text = step.value == 0 ? "" : std::to_string(step.value);
    if (step.event == "requesterIs") {
      region_->requesterIs(text);
    } else if (step.event == "requestIdIs") {
      region_->requestIdIs(text);
    } else if (step.event == "syncStatusIs") {
      region_->syncStatusIs(static_cast<OpenStack::SyncStatus>(step.value));
    } else if (step.event == "heartbeat") {
      region_->syncHeartbeatIs(1);
    } else if (step.event == "tick") {
      time_.nowIs(time_.now() + kTick);
      loop_.fireNextTimer();
    } else if (step.event == "deliver") {
      loop_.run();
    } else {
      fail("the model has an unknown event: " + step.event);
    }
  }

  View view() const {
    const Kiv::Seconds timer = loop_.nextTimer();
    return {number(region_->requester()),
            number(region_->requestId()),
            static_cast<int>(region_->syncStatus()),
            static_cast<int>(status_->syncStatus()),
            static_cast<int>(status_->oldSyncStatus()),
            number(status_->owner()),
            number(status_->requestId()),
            timer == Kiv::Clock::kNever ? 0 : static_cast<int>((timer - time_.now()) / kTick),
            static_cast<int>(loop_.waiting())};
  }

 private:
  static int number(const Kiv::String& text) { return text.empty() ? 0 : std::stoi(text.str()); }

  Kiv::ActivityManager loop_;
  Kiv::VirtualTime time_;
  Kiv::Ptr<OpenStack::Region> region_ = Kiv::make<OpenStack::Region>("R");
  Kiv::Ptr<OpenStack::RegionStatus> status_ = Kiv::make<OpenStack::RegionStatus>("R");
  Kiv::Ptr<OpenStack::RegionConfigSm> sm_;
};

std::string textOf(const View& view) {
  std::string text;
  for (const int number : view) text += std::to_string(number) + ' ';
  return text;
}

// Walks the graph with the machine until every step has been taken.
class Walk {
 public:
  explicit Walk(Graph& graph)
      : states_(graph.states()), untaken_(graph.steps()), wayTo_(states_.size()) {
    findWays();
    begin();
  }

  void everyStep() {
    while (untaken_ > 0) {
      for (Step* step = untakenStep(at_); step != nullptr; step = untakenStep(at_)) take(*step);
      if (untaken_ > 0) goToUntaken();
    }
  }
  std::size_t length() const { return length_; }

 private:
  // A step not taken yet, better one that leads to further such steps; null when there is none.
  Step* untakenStep(std::size_t state) {
    Step* found = nullptr;
    for (Step& step : states_[state].steps) {
      if (step.taken) continue;
      found = &step;
      if (states_[step.to].untaken > 0) break;
    }
    return found;
  }

  void take(Step& step) {
    const std::string what =
        "after " + step.event + ' ' + std::to_string(step.value) + " in " + states_[at_].name;
    recent_.push_back(what);
    if (recent_.size() > 12) recent_.pop_front();
    machine_->take(step);
    const std::size_t from = at_;
    at_ = step.to;
    ++length_;
    compare(what);
    if (!step.taken) {
      --untaken_;
      --states_[from].untaken;
    }
    step.taken = true;
  }

  void compare(const std::string& what) {
    const View view = machine_->view();
    if (view == states_[at_].view) return;
    std::cout << "requester, requestId, syncStatus; status: syncStatus, oldSyncStatus, owner, "
                 "requestId; ticks of the timer; notifications that wait\n";
    for (const std::string& step : recent_) std::cout << step << '\n';
    fail(what + "\n  the model has   " + textOf(states_[at_].view) + "\n  the machine has " +
         textOf(view));
  }

  // The step on a shortest way from the initial state to each other.
  void findWays() {
    std::vector<std::size_t> seen{0};
    for (std::size_t i = 0; i < seen.size(); ++i) {
      for (Step& step : states_[seen[i]].steps) {
        if (step.to == 0 || wayTo_[step.to].by != nullptr) continue;
        wayTo_[step.to] = {seen[i], &step};
        seen.push_back(step.to);
      }
    }
    if (seen.size() < states_.size()) fail("states of the model that cannot be reached");
  }

  // Begins anew, and goes the shortest way to a state with a step that has not been taken.
  void goToUntaken() {
    while (states_[next_].untaken == 0) ++next_;
    std::deque<Step*> way;
    for (std::size_t state = next_; state != 0; state = wayTo_[state].from) {
      way.push_front(wayTo_[state].by);
    }
    begin();
    for (Step* step : way) take(*step);
  }

  void begin() {
    machine_ = nullptr;  // the process has one activity loop at a time
    machine_ = std::make_unique<Machine>();
    at_ = 0;
    recent_.clear();
    compare("at the beginning");
  }

  struct Way {
    std::size_t from = 0;
    Step* by = nullptr;
  };

  std::vector<State>& states_;
  std::size_t untaken_;
  std::vector<Way> wayTo_;
  std::size_t next_ = 0;  // no state before this one has a step that has not been taken
  std::unique_ptr<Machine> machine_;
  std::size_t at_ = 0;
  std::size_t length_ = 0;
  std::deque<std::string> recent_;
};

// That from every state some steps lead to a completion.
void completionIsAlwaysInReach(const std::vector<State>& states) {
  const int complete = static_cast<int>(OpenStack::SyncStatus::syncComplete);
  std::vector<std::vector<std::size_t>> comesFrom(states.size());
  std::vector<bool> leadsThere(states.size());
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < states.size(); ++i) {
    for (const Step& step : states[i].steps) {
      comesFrom[step.to].push_back(i);
      const bool completes =
          states[i].view[kStatus] != complete && states[step.to].view[kStatus] == complete;
      if (!completes || leadsThere[i]) continue;
      leadsThere[i] = true;
      found.push_back(i);
    }
  }
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (const std::size_t from : comesFrom[found[i]]) {
      if (leadsThere[from]) continue;
      leadsThere[from] = true;
      found.push_back(from);
    }
  }
  for (std::size_t i = 0; i < states.size(); ++i) {
    if (!leadsThere[i]) fail("no sync can complete from " + states[i].name);
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) fail("protocol_conformance GRAPH");
  std::ifstream lines(arguments[1]);
  Graph graph(lines);
  if (graph.steps() == 0) fail("there is no graph in " + std::string(arguments[1]));
  completionIsAlwaysInReach(graph.states());
  Walk walk(graph);
  walk.everyStep();
  std::cout << graph.states().size() << " states, from each of which a sync can complete; "
            << graph.steps() << " transitions, all taken by the machine, in a walk of "
            << walk.length() << " steps\n";
}
