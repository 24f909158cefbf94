// The fixture of the machines' tests: a world, and the check that ends every test, that with no
// port bound nothing is left but what is never deleted, and that no machine or reactor outlives the
// root.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "framework/Exceptions.h"
#include "tests/support/OutputWatch.h"
#include "tests/support/World.h"

class MachineTest : public testing::Test {
 protected:
  void TearDown() override {
    world.unbindAll();
    EXPECT_EQ(withoutHistory(world.published()), left_);
    world.rootDel();
    world.run();
    EXPECT_EQ(machinesAlive(), Lines{});
  }

  // What stays when no port is bound any more: "element sw interface e1: h1".
  void leaves(Lines left) { left_ = std::move(left); }

  // A root machine over the same inputs publishes what stepwise changes came to.
  void expectRebuiltIsReached() {
    EXPECT_EQ(withoutHistory(world.rebuilt()), withoutHistory(world.published()));
  }

  World world;

 private:
  Lines left_;
};

// The same under both answers of the feature toggle.
class SwitchTest : public MachineTest, public testing::WithParamInterface<bool> {
 protected:
  SwitchTest() { world.toggleIs(on()); }
  static bool on() { return GetParam(); }
  // Where the VLANs of interface e1 of the switch sw stand.
  static std::string at() { return on() ? "port sw:e1" : "element sw interface e1"; }
};

inline auto bothToggles() {
  return testing::Bool();
}
inline std::string toggleName(const testing::TestParamInfo<bool>& info) {
  return info.param ? "ToggleOn" : "ToggleOff";
}

// What a process says when an assertion of a handler stops it.
inline auto stops(const std::string& assertion, const std::string& handler) {
  return testing::HasSubstr("Assertion \"" + assertion + "\" failed: OpenStackSm: " + handler +
                            "\n");
}

// Runs something that must throw E; returns the exception's text.
template <class E, class Run>
std::string thrown(Run&& run) {
  try {
    std::forward<Run>(run)();
  } catch (const E& e) {
    return e.what();
  }
  return "nothing was thrown";
}
