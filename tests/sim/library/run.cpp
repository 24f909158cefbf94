#include "tests/sim/library/run.h"

#include <exception>

#include "tests/sim/library/compare.h"
#include "tests/sim/library/invariants.h"
#include "tests/sim/library/model.h"
#include "tests/sim/library/plan.h"
#include "tests/sim/library/subject.h"

namespace sim {
namespace {

std::string leftBehind(const std::string& before, const std::string& after) {
  return before == after ? "" : "objects left behind\nbefore:\n" + before + "after:\n" + after;
}

class Runner {
 public:
  Runner(const Stream& stream, const Witness& witness)
      : witness_(witness),
        toggleOn_(stream.toggleOn),
        model_(stream.toggleOn, stream.timeout),
        invariants_(stream.toggleOn),
        subject_(stream.toggleOn, stream.timeout) {}

  // What is wrong after an event; empty when nothing is.
  std::string step(const Event& event, bool rebuild) {
    model_.beginEvent();
    const std::string misused = apply(event);
    if (!misused.empty()) return misused + "\n";
    const Picture picture = subject_.picture();
    if (witness_) witness_(taken_, picture);
    std::string found = difference(model_.facts(), picture.facts);
    found += nativeDifference(model_, picture);
    found += uuids_.check(model_, picture);
    found += invariants_.check(cloud_, picture);
    if (found.empty() && cloud_.regions.empty() && cloud_.assignments.empty()) {
      found = leftBehind(atRest_, liveObjectsThatGo());
    }
    if (found.empty() && rebuild) found = rebuildDifference();
    return found;
  }

 private:
  std::string apply(const Event& event) {
    taken_ = event.kind != Event::misuse;
    switch (event.kind) {
      case Event::patch:
        patch(event.edits);
        return {};
      case Event::advance:
        model_.advance(event.seconds);
        subject_.advance(event.seconds);
        return {};
      case Event::timeout:
        model_.timeoutIs(event.seconds);
        subject_.timeoutIs(event.seconds);
        return {};
      case Event::misuse:
        return subject_.misuse(event.value);
    }
    return {};
  }

  // Applied whole, or refused whole.
  void patch(const std::vector<Edit>& edits) {
    Cloud after = patched(cloud_, edits);
    taken_ = keepsRules(after);
    if (!taken_) return;
    for (const Phase& phase : planOf(cloud_, after, edits, toggleOn_)) {
      for (const Operation& operation : phase) {
        subject_.apply(operation);
        model_.apply(operation);
      }
      subject_.idle();
      model_.idle();
    }
    cloud_ = std::move(after);
  }

  // Machines made anew must publish the same, but for what depends on the past. The sync status
  // does: it is left out.
  std::string rebuildDifference() {
    Model fresh(toggleOn_, 1);
    fresh.apply({.kind = Operation::driverIs, .value = cloud_.driver});
    fresh.idle();
    for (const Phase& phase : planOf({}, cloud_, {}, toggleOn_)) {
      for (const Operation& operation : phase) fresh.apply(operation);
      fresh.idle();
    }
    Picture picture = subject_.rebuilt();
    auto expected = fresh.facts();
    for (auto* facts : {&expected, &picture.facts}) {
      std::erase_if(*facts, [](const Fact& fact) { return fact.kind >= Fact::syncStatus; });
    }
    const std::string found =
        difference(expected, picture.facts) + nativeDifference(fresh, picture);
    return found.empty() ? found : "built anew:\n" + found;
  }

  const Witness& witness_;
  bool toggleOn_;
  bool taken_ = true;  // the last event
  Cloud cloud_;
  Model model_;
  Invariants invariants_;
  Uuids uuids_;
  Subject subject_;
  const std::string atRest_ = liveObjectsThatGo();  // with nothing in the cloud
};

}  // namespace

std::optional<Failure> run(const Stream& stream, std::atomic<std::uint64_t>& done,
                           std::size_t rebuildEvery, const Witness& witness) {
  const std::string before = liveObjects();
  {
    Runner runner(stream, witness);
    for (std::size_t i = 0; i < stream.events.size(); ++i) {
      std::string found;
      try {
        found = runner.step(stream.events[i], (i + 1) % rebuildEvery == 0);
      } catch (const std::exception& e) {
        found = std::string("exception: ") + e.what() + "\n";
      }
      if (!found.empty()) return Failure{i + 1, found};
      ++done;
    }
  }
  if (const std::string left = leftBehind(before, liveObjects()); !left.empty()) {
    return Failure{stream.events.size(), left};
  }
  return std::nullopt;
}

}  // namespace sim
