// The simulation with faults: foreign notifiees that misbehave while the machines work.
//
// Streams as in the simulation of the library, with foreign watchers on inputs and outputs. Each
// stream is of one kind:
//
//   disturbing         watchers unregister, deactivate, disconnect and destroy themselves and each
//                      other during active iterations: the outputs must be as without them;
//   throwing           one throws: removing the cloud and adding it again must repair everything,
//                      and nothing may be left when it is removed for good;
//   interfering        one removes a port binding, or one of its bindings, from the loop: the
//                      outputs must be those of new machines over the same inputs, and nothing may
//                      be left;
//   interfering inside the same inside a mutator.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "framework/Exceptions.h"
#include "tests/sim/library/child.h"
#include "tests/sim/library/compare.h"
#include "tests/sim/library/foreign_notifiees.h"
#include "tests/sim/library/generator.h"
#include "tests/sim/library/heal.h"
#include "tests/sim/library/model.h"
#include "tests/sim/library/subject.h"

namespace sim {
namespace {

constexpr int kLength = 60;  // events in a stream
constexpr const char* kKinds[] = {"disturbing", "throwing", "interfering", "interfering inside"};

enum Kind { disturbing, throwing, interfering, interferingInside };

class Life {
 public:
  Life(const Stream& stream, Kind kind)
      : kind_(kind),
        toggleOn_(stream.toggleOn),
        foreign_(stream.seed),
        model_(stream.toggleOn, stream.timeout),
        subject_(stream.toggleOn, stream.timeout) {}

  // What is wrong after an event; nothing more is to come after a disturbance.
  std::string step(const Event& event) {
    subject_.visitedBy(foreign_);
    model_.beginEvent();
    if (event.kind == Event::patch) {
      patch(event.edits);
    } else if (event.kind == Event::advance) {
      model_.advance(event.seconds);
      subject_.advance(event.seconds);
    } else if (event.kind == Event::timeout) {
      model_.timeoutIs(event.seconds);
      subject_.timeoutIs(event.seconds);
    }
    if (foreign_.threw()) return healed();
    if (foreign_.interfered()) return kind_ == interfering ? followed() : healed();
    const Picture picture = subject_.picture();
    return difference(model_.facts(), picture.facts) + nativeDifference(model_, picture);
  }
  bool isOver() const { return over_; }

 private:
  void patch(const std::vector<Edit>& edits) {
    Cloud after = patched(cloud_, edits);
    if (!keepsRules(after)) return;
    if (foreign_.below(5) == 0 && kind_ == throwing) foreign_.throwSoon();
    if (foreign_.below(5) == 0 && kind_ >= interfering) {
      // One of several bindings of a port cannot go alone where they share a host's element.
      const bool whole = !toggleOn_ || foreign_.below(2) == 0;
      foreign_.interfereSoon(kind_ == interferingInside,
                             [this, whole] { subject_.removeOne(foreign_.below(100), whole); });
    }
    for (const Phase& phase : planOf(cloud_, after, edits, toggleOn_)) {
      for (const Operation& operation : phase) {
        through([&] { subject_.applyIfThere(operation); });
        model_.apply(operation);
      }
      while (!through([&] { subject_.idle(); })) {
      }
      model_.idle();
    }
    foreign_.behave();
    cloud_ = std::move(after);
  }

  // Whether the work came through. A throw may spend the notification of a removal, and what comes
  // in its place then meets a machine that should have gone.
  template <class Work>
  bool through(Work work) {
    try {
      work();
      return true;
    } catch (const ForeignError&) {
      spent_ = true;
      return false;
    } catch (const Kiv::NameInUseException&) {
      if (!spent_) throw;
      return false;
    }
  }

  // Out, in, and out for good.
  std::string healed() {
    over_ = true;
    ++sharedProgress().faults;
    foreign_.leave();
    return healDifference(subject_, cloud_, toggleOn_);
  }

  // After interfering: what the inputs ask for, whatever they are now.
  std::string followed() {
    over_ = true;
    ++sharedProgress().faults;
    foreign_.leave();
    auto expected = present(subject_.rebuilt().facts, false);
    auto actual = present(subject_.picture().facts, false);
    if (usesLastLevel()) {
      // Whether its VXLAN meets the VLAN at level 0 depends on the past.
      for (auto* facts : {&expected, &actual}) {
        std::erase_if(*facts, [](const Fact& fact) {
          return fact.kind == Fact::vni || fact.kind == Fact::vniReferrer;
        });
      }
    }
    const std::string found = difference(expected, actual);
    if (!found.empty()) return "after interfering:\n" + found;
    return leftDifference(subject_);
  }

  bool usesLastLevel() const {
    for (const auto& [name, region] : cloud_.regions) {
      for (const auto& [port, places] : region.bindings) {
        for (const auto& [place, binding] : places) {
          if (binding.levels.contains(255)) return true;
        }
      }
    }
    return false;
  }

  Kind kind_;
  bool toggleOn_;
  bool over_ = false;
  bool spent_ = false;  // a notification, by a throw
  Cloud cloud_;
  ForeignNotifiees foreign_;
  Model model_;
  Subject subject_;
};

std::optional<Failure> run(const Stream& stream, Kind kind, Progress& progress) {
  const std::string before = liveObjects();
  {
    Life life(stream, kind);
    for (const Event& event : stream.events) {
      std::string found;
      try {
        found = life.step(event);
      } catch (const std::exception& e) {
        found = std::string("exception: ") + e.what() + "\n";
      }
      ++progress.done;
      if (!found.empty()) return Failure{progress.done, found};
      if (life.isOver()) break;
    }
  }
  const std::string after = liveObjects();
  if (after == before) return std::nullopt;
  return Failure{progress.done, "objects left behind\nbefore:\n" + before + "after:\n" + after};
}

int simulate(std::uint64_t events, std::uint64_t seed, int mostFailures) {
  Progress& progress = sharedProgress();
  int failures = 0;
  for (; progress.total < events && failures < mostFailures; progress.streams += 1) {
    const auto failure = inChild(progress, [&]() -> std::optional<Failure> {
      while (progress.total < events) {
        const std::uint64_t number = progress.streams;
        progress.seed = seed + number / 8;
        progress.toggleOn = number % 2 == 0;
        progress.done = 0;
        const Stream stream = Generator(progress.seed, progress.toggleOn).stream(kLength);
        if (auto found = run(stream, static_cast<Kind>(number / 2 % 4), progress)) return found;
        progress.total += progress.done;
        ++progress.streams;
      }
      return std::nullopt;
    });
    if (!failure) break;
    ++failures;
    std::printf("FAILED  seed %llu, toggle %s, %s, event %zu:\n%s",
                static_cast<unsigned long long>(progress.seed), progress.toggleOn ? "on" : "off",
                kKinds[progress.streams / 2 % 4], failure->events, failure->text.c_str());
  }
  std::printf("%llu streams, %llu events, %llu faults, %d failures\n",
              static_cast<unsigned long long>(progress.streams),
              static_cast<unsigned long long>(progress.total),
              static_cast<unsigned long long>(progress.faults), failures);
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace sim

int main(int count, char** arguments) {
  const auto number = [&](int at, std::uint64_t otherwise) {
    return count > at ? std::strtoull(arguments[at], nullptr, 10) : otherwise;
  };
  try {
    return sim::simulate(number(1, 100000), number(2, 1), static_cast<int>(number(3, 3)));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "library_faults: %s\nlibrary_faults [EVENTS [SEED [MOST-FAILURES]]]\n",
                 e.what());
    return 2;
  }
}
