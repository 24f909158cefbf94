#include "tests/sim/live/world.h"

#include <cstdio>

#include <fmt/format.h>

namespace sim {

void World::note(std::string text) {
  const auto time = static_cast<double>(now() - 1'000'000 * kSecond) / static_cast<double>(kSecond);
  notes_.push_back(fmt::format("{:11.6f}  {}", time, std::move(text)));
  if (isVerbose_) std::puts(notes_.back().c_str());
}

void World::fail(const std::string& text) {
  if (hasFailed()) return;
  failure_ = text;
  note("FAILED: " + text);
}

}  // namespace sim
