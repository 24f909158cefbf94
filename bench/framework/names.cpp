// Strings of 36 characters.
//
//   names/WHAT/SIDE
//
// WHAT: make, from characters; copy; equal, two strings that are equal but not the same object;
// hash. Sides: kiv, Kiv::String; std, std::string. 1,000 strings in turn; time is that of one.
#include <functional>
#include <string>
#include <vector>

#include "bench/data/Cloud.h"
#include "bench/groups.h"
#include "framework/Text.h"

namespace bench {
namespace {

constexpr std::uint32_t kStrings = 1000;

template <class Text>
std::vector<Text> texts() {
  const Cloud cloud(kStrings, Shape::spread);
  std::vector<Text> made;
  for (std::uint32_t i = 0; i < kStrings; ++i) made.emplace_back(cloud.portId(i));
  return made;
}

template <class Text>
void addSide(Suite& suite, const std::string& side) {
  suite.addLoop("names/make/" + side, [](benchmark::State& state) {
    const Cloud cloud(kStrings, Shape::spread);
    while (state.KeepRunningBatch(kStrings)) {
      for (std::uint32_t i = 0; i < kStrings; ++i) {
        Text made(cloud.portId(i));
        benchmark::DoNotOptimize(made);
      }
    }
  });
  suite.addLoop("names/copy/" + side, [](benchmark::State& state) {
    const auto all = texts<Text>();
    while (state.KeepRunningBatch(kStrings)) {
      for (const Text& text : all) {
        Text copy(text);
        benchmark::DoNotOptimize(copy);
      }
    }
  });
  suite.addLoop("names/equal/" + side, [](benchmark::State& state) {
    const auto some = texts<Text>();
    const auto others = texts<Text>();
    while (state.KeepRunningBatch(kStrings)) {
      for (std::uint32_t i = 0; i < kStrings; ++i) {
        benchmark::DoNotOptimize(some[i] == others[i]);
      }
    }
  });
  suite.addLoop("names/hash/" + side, [](benchmark::State& state) {
    const auto all = texts<Text>();
    while (state.KeepRunningBatch(kStrings)) {
      for (const Text& text : all) benchmark::DoNotOptimize(std::hash<Text>()(text));
    }
  });
}

}  // namespace

void addNames(Suite& suite) {
  addSide<Kiv::String>(suite, "kiv");
  addSide<std::string>(suite, "std");
}

}  // namespace bench
