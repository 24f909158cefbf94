// The simulation of the library: see the README beside this folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "tests/sim/library/child.h"
#include "tests/sim/library/generator.h"
#include "tests/sim/library/shrink.h"
#include "tests/sim/library/stream_writer.h"

namespace sim {
namespace {

constexpr std::string_view kUsage =
    "library_simulation [--events N] [--seed N] [--toggle on|off|both] [--length N]\n"
    "                   [--out FOLDER] [--vnagent PROGRAM] [--write FOLDER] [--most-failures N]\n"
    "\n"
    "Runs N random events through the library and compares it with a model after every event.\n"
    "--write also leaves each stream for the agent, with what is published after each event.\n";

struct Options {
  std::uint64_t events = 200000;
  std::uint64_t seed = 1;
  std::string toggle = "both";
  int length = 400;  // events in a stream
  std::filesystem::path out = "simulation-failures";
  std::filesystem::path write;  // where to leave each stream; empty for nowhere
  std::string vnagent = "vnagent";
  int mostFailures = 3;
};

// Streams one after the other, of ascending seeds, with either answer of the toggle in turn.
class Streams {
 public:
  Streams(const Options& options, std::uint64_t first) : options_(options), next_(first) {}

  Stream next() {
    const bool both = options_.toggle == "both";
    const bool toggleOn = both ? next_ % 2 == 0 : options_.toggle == "on";
    const std::uint64_t seed = options_.seed + (both ? next_ / 2 : next_);
    ++next_;
    return of(seed, toggleOn);
  }
  Stream of(std::uint64_t seed, bool toggleOn) const {
    return Generator(seed, toggleOn).stream(options_.length);
  }

 private:
  const Options& options_;
  std::uint64_t next_;
};

class Simulation {
 public:
  explicit Simulation(const Options& options) : options_(options) {}

  int run() {
    std::printf("%llu events from seed %llu, toggle %s\n", number(options_.events),
                number(options_.seed), options_.toggle.c_str());
    int failures = 0;
    while (progress_.total < options_.events && failures < options_.mostFailures) {
      if (const auto failure = inChild(progress_, [&] { return batch(); })) {
        tell(*failure);
        ++failures;
      }
    }
    const double seconds = elapsed();
    std::printf("%llu events in %.1f s, %.0f a second; %d failures\n", number(progress_.total),
                seconds, static_cast<double>(progress_.total) / seconds, failures);
    return failures == 0 ? 0 : 1;
  }

 private:
  // How many events one child does, and how often it tells of them.
  static constexpr std::uint64_t kBatch = 2'000'000;
  static constexpr std::chrono::seconds kReportEvery{20};

  static unsigned long long number(std::uint64_t value) { return value; }
  double elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

  // In a child: streams until so many events are done, all in all.
  std::optional<Failure> batch() {
    const std::uint64_t end = std::min(options_.events, progress_.total + kBatch);
    auto reported = std::chrono::steady_clock::now();
    Streams streams(options_, progress_.streams);
    while (progress_.total < end) {
      const Stream stream = streams.next();
      progress_.seed = stream.seed;
      progress_.toggleOn = stream.toggleOn;
      progress_.done = 0;
      ++progress_.streams;
      if (auto failure = runOne(stream)) return failure;
      progress_.total += progress_.done;
      if (const auto now = std::chrono::steady_clock::now(); now - reported >= kReportEvery) {
        reported = now;
        std::printf("%llu events, %.0f s, seed %llu\n", number(progress_.total), elapsed(),
                    number(stream.seed));
        std::fflush(stdout);
      }
    }
    return std::nullopt;
  }

  std::optional<Failure> runOne(const Stream& stream) {
    if (options_.write.empty()) return sim::run(stream, progress_.done);
    const std::string name = nameOf(stream);
    write(stream, options_.write, name, options_.vnagent);
    std::ofstream published(options_.write / (name + ".published"), std::ios::binary);
    return sim::run(stream, progress_.done, kRebuildEvery, [&](bool taken, const Picture& picture) {
      published << (taken ? "taken\n" : "refused\n") << text(picture) << '\n';
    });
  }

  static std::string nameOf(const Stream& stream) {
    return "seed-" + std::to_string(stream.seed) + (stream.toggleOn ? "-on" : "-off");
  }

  // Says what failed, and leaves the smallest stream that does.
  void tell(const Failure& failure) {
    const bool toggleOn = progress_.toggleOn;
    const std::uint64_t seed = progress_.seed;
    std::printf("FAILED  seed %llu, toggle %s, event %zu:\n%s", number(seed),
                toggleOn ? "on" : "off", failure.events, failure.text.c_str());
    Stream stream = Streams(options_, 0).of(seed, toggleOn);
    stream.events.resize(std::min(stream.events.size(), failure.events));
    const auto fails = [&](const Stream& smaller) {
      progress_.done = 0;
      return inChild(progress_, [&] { return sim::run(smaller, progress_.done, 1); });
    };
    const Stream smallest = shrunk(stream, fails);
    const auto found = fails(smallest);
    const std::string command = write(smallest, options_.out, nameOf(smallest), options_.vnagent);
    std::printf("the smallest stream that fails, of %zu events:\n%s%s", smallest.events.size(),
                jsonLines(smallest).c_str(), found ? found->text.c_str() : "(it does no more)\n");
    std::printf("replay: %s\n", command.c_str());
    std::fflush(stdout);
  }

  const Options& options_;
  Progress& progress_ = sharedProgress();
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

Options parsed(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string_view name = arguments[i];
    if (i + 1 == count) throw std::invalid_argument(std::string(name) + " needs a value");
    const std::string value = arguments[++i];
    if (name == "--events") {
      options.events = std::stoull(value);
    } else if (name == "--seed") {
      options.seed = std::stoull(value);
    } else if (name == "--toggle" && (value == "on" || value == "off" || value == "both")) {
      options.toggle = value;
    } else if (name == "--length" && std::stoi(value) >= 2) {
      options.length = std::stoi(value);
    } else if (name == "--out") {
      options.out = value;
    } else if (name == "--write") {
      options.write = value;
    } else if (name == "--vnagent") {
      options.vnagent = value;
    } else if (name == "--most-failures") {
      options.mostFailures = std::stoi(value);
    } else {
      throw std::invalid_argument("what is " + std::string(name) + " " + value + "?");
    }
  }
  return options;
}

}  // namespace
}  // namespace sim

int main(int count, char** arguments) {
  try {
    const sim::Options options = sim::parsed(count, arguments);
    return sim::Simulation(options).run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "library_simulation: %s\n%s", e.what(), sim::kUsage.data());
    return 2;
  }
}
