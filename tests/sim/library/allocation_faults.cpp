// The simulation with too little memory: each allocation of a patch fails in turn.
//
// A stream runs up to one of its patches. That patch runs many times, on a new library each time:
// first its first allocation fails, then its second, until all have. It fails alone, or with all
// later ones of that patch. The patch is run to its end, whatever is thrown. Then, with memory
// available, the cloud is removed and added again: everything published must be right, and nothing
// may be left when it is removed for good.
//
// The library's allocator and the global one are replaced in this program.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>

#include "framework/Allocation.h"
#include "framework/Exceptions.h"
#include "tests/sim/library/child.h"
#include "tests/sim/library/generator.h"
#include "tests/sim/library/heal.h"
#include "tests/sim/library/names.h"

namespace {

// Which allocation fails, by how many are asked for while memory is scarce.
bool scarce = false;
bool failsOn = false;  // all that come after it, too
std::uint64_t failsAt = 0;
std::uint64_t asked = 0;

bool fails() {
  if (!scarce) return false;
  ++asked;
  return asked == failsAt || (failsOn && asked > failsAt);
}

void* allocated(std::size_t size) {
  void* memory = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

namespace Kiv {

[[gnu::visibility("default")]] void* kivMemAllocOrNull(std::size_t size) noexcept {
  return fails() ? nullptr : std::malloc(size);
}
[[gnu::visibility("default")]] void* kivMemAlloc(std::size_t size) {
  return allocated(size);
}
[[gnu::visibility("default")]] void kivMemFree(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

}  // namespace Kiv

void* operator new(std::size_t size) {
  return allocated(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace sim {
namespace {

constexpr int kLength = 40;  // events in a stream

// Does the work while memory is scarce; returns whether it came through.
template <class Work>
bool inScarcity(Work work) {
  scarce = true;
  try {
    work();
  } catch (const std::bad_alloc&) {
    scarce = false;
    return false;
  } catch (const Kiv::NameInUseException&) {
    // What comes back may meet the machine of what went unnoticed; see isBoundAnew().
    scarce = false;
    return false;
  }
  scarce = false;
  return true;
}

// The stream's cloud before an event, and after it.
struct Change {
  Cloud before, after;
  std::vector<Edit> edits;
};

// Adds a cloud. Where the notification of a region's removal was lost, its machine still exists,
// and the next region of that name meets it: the loop throws, once, until the region is removed
// again.
bool isBoundAnew(Subject& subject, const Cloud& cloud, bool toggleOn) {
  try {
    bindAnew(subject, cloud, toggleOn);
    return true;
  } catch (const Kiv::NameInUseException&) {
    return false;
  }
}

// Makes the change in scarcity, up to the first phase of which something fails; returns that.
std::size_t firstPhaseThatFails(Subject& subject, const Stream& stream, const Change& change) {
  const Plan plan = planOf(change.before, change.after, change.edits, stream.toggleOn);
  for (std::size_t i = 0; i < plan.size(); ++i) {
    bool cameThrough = true;
    for (const Operation& operation : plan[i]) {
      cameThrough &= inScarcity([&] { subject.applyIfThere(operation); });
    }
    while (!inScarcity([&] { subject.idle(); })) cameThrough = false;
    if (!cameThrough) return i;
  }
  return plan.size();
}

// Makes the change in scarcity, of which one allocation fails, or all from one on. Returns what is
// wrong once there is memory again.
std::string attempt(const Stream& stream, const Change& change) {
  Subject subject(stream.toggleOn, stream.timeout);
  for (const Phase& phase : planOf({}, change.before, {}, stream.toggleOn)) {
    for (const Operation& operation : phase) subject.apply(operation);
    subject.idle();
  }
  // A host that went on with additions now might bind to another region what was not withdrawn, and
  // one that went back might do so with what was half added: what failed is what is tried again.
  const std::size_t failed = firstPhaseThatFails(subject, stream, change);
  const Cloud& again = failed == 0 ? change.before : change.after;
  for (int tries = 0; tries <= kRegions && !isBoundAnew(subject, again, stream.toggleOn);) ++tries;
  return healDifference(subject, change.after, stream.toggleOn);
}

// Fails each allocation of a change in turn.
std::optional<Failure> failEach(const Stream& stream, const Change& change, Progress& progress) {
  for (const bool on : {false, true}) {
    failsOn = on;
    asked = failsAt = 0;
    do {
      ++failsAt;
      asked = 0;
      progress.done = failsAt;
      const std::string before = liveObjects();
      std::string found;
      try {
        found = attempt(stream, change);
      } catch (const std::exception& e) {
        found = std::string("exception: ") + e.what() + "\n";
      }
      const std::string after = liveObjects();
      if (found.empty() && before != after) {
        found = "objects left behind\nbefore:\n" + before + "after:\n" + after;
      }
      if (!found.empty()) {
        return Failure{failsAt, (on ? "with all that come after it:\n" : "alone:\n") + found};
      }
      ++progress.faults;
    } while (asked >= failsAt);
  }
  return std::nullopt;
}

// The last patch of a stream that changes the cloud.
Change lastChange(const Stream& stream, std::size_t events) {
  Change change;
  for (std::size_t i = 0; i < events; ++i) {
    if (stream.events[i].kind != Event::patch) continue;
    Cloud after = patched(change.after, stream.events[i].edits);
    if (!keepsRules(after) || after == change.after) continue;
    change = {std::move(change.after), std::move(after), stream.events[i].edits};
  }
  return change;
}

int simulate(std::uint64_t faults, std::uint64_t seed, int mostFailures) {
  Progress& progress = sharedProgress();
  int failures = 0;
  for (; progress.faults < faults && failures < mostFailures; ++progress.streams) {
    const auto failure = inChild(progress, [&]() -> std::optional<Failure> {
      for (; progress.faults < faults; ++progress.streams) {
        const std::uint64_t number = progress.streams;
        progress.seed = seed + number / 2;
        progress.toggleOn = number % 2 == 0;
        const Stream stream = Generator(progress.seed, progress.toggleOn).stream(kLength);
        // A patch in the middle, or all of the port bindings going, or all else.
        const std::size_t events = stream.events.size() - (number / 2 % 3);
        if (auto found = failEach(stream, lastChange(stream, events), progress)) return found;
      }
      return std::nullopt;
    });
    if (!failure) break;
    ++failures;
    std::printf("FAILED  seed %llu, toggle %s, allocation %llu, %s",
                static_cast<unsigned long long>(progress.seed), progress.toggleOn ? "on" : "off",
                static_cast<unsigned long long>(progress.done), failure->text.c_str());
  }
  std::printf("%llu streams, %llu failed allocations, %d failures\n",
              static_cast<unsigned long long>(progress.streams),
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
    return sim::simulate(number(1, 50000), number(2, 1), static_cast<int>(number(3, 3)));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "library_allocation_faults: %s\n", e.what());
    return 2;
  }
}
