// Every order in which the levels of a binding may arrive and go, for hosts and for switch
// interfaces.
#include <algorithm>

#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

// Where the port is bound: to a host, or behind a switch interface with the toggle on or off.
enum class To { host, port, element };

class LevelsTest : public MachineTest, public testing::WithParamInterface<To> {
 protected:
  LevelsTest() { world.toggleIs(GetParam() == To::port); }
  void SetUp() override {
    world.start(
        "region R; segment vl vlan 10; segment vm vlan 20; segment vx vxlan 5000; "
        "segment vy vxlan 6000; segment ot 7 99");
  }
  void bind(const std::string& levels, const std::string& port = "p") {
    world.apply(
        (GetParam() == To::host ? "host " + port + " h1 " : "switch " + port + " sw e1 h1 ") +
        levels);
  }
  // The VLAN lines from "vlan" on.
  Lines vlans() {
    Lines kept;
    for (const std::string& line : world.published()) {
      const std::size_t at = line.find(" vlan ");
      if (at != std::string::npos) kept.push_back(line.substr(at + 1));
    }
    return kept;
  }
  // Tells one level after the other in every order; each must come to the same, and go to nothing.
  void expectInEveryOrder(Lines levels, const Lines& expected) {
    std::sort(levels.begin(), levels.end());
    do {
      std::string order;
      for (const std::string& level : levels) {
        bind(level);
        order += " " + level;
      }
      EXPECT_EQ(vlans(), expected) << order;
      expectRebuiltIsReached();
      Lines going = levels;
      std::sort(going.begin(), going.end());
      do {
        for (const std::string& level : going) bind(level.substr(0, level.find('=') + 1) + "-");
        EXPECT_THAT(vlans(), IsEmpty()) << order;
        for (const std::string& level : levels) bind(level);
        EXPECT_EQ(vlans(), expected) << order;
      } while (std::next_permutation(going.begin(), going.end()));
      world.apply("-bind p");
      EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << order;
      // Again, all at once.
      std::string all;
      for (const std::string& level : levels) all += " " + level;
      bind(all);
      EXPECT_EQ(vlans(), expected) << all;
      world.apply("-bind p");
    } while (std::next_permutation(levels.begin(), levels.end()));
  }
};

TEST_P(LevelsTest, AVxlanAboveAVlan) {
  for (const auto& [upper, lower] : std::vector<std::pair<std::string, std::string>>{
           {"0", "1"}, {"8", "9"}, {"9", "10"}, {"11", "12"}, {"254", "255"}}) {
    expectInEveryOrder({upper + "=vx", lower + "=vl"}, {"vlan 10 vni 5000: p", "vlan 10: p"});
  }
}

TEST_P(LevelsTest, AVlanAboveAVxlanIsPlain) {
  expectInEveryOrder({"0=vl", "1=vx"}, {"vlan 10: p"});
}

TEST_P(LevelsTest, AGapBetweenLevelsMapsNothing) {
  expectInEveryOrder({"0=vx", "2=vl"}, {"vlan 10: p"});
}

TEST_P(LevelsTest, ThreeLevelsWithTheVxlanOnTop) {
  expectInEveryOrder({"0=vx", "1=vl", "2=vm"}, {"vlan 10 vni 5000: p", "vlan 10: p", "vlan 20: p"});
}

TEST_P(LevelsTest, ThreeLevelsWithTheVxlanInTheMiddle) {
  expectInEveryOrder({"0=vl", "1=vx", "2=vm"}, {"vlan 10: p", "vlan 20 vni 5000: p", "vlan 20: p"});
}

TEST_P(LevelsTest, ThreeLevelsWithTwoVxlansOnTop) {
  expectInEveryOrder({"0=vx", "1=vy", "2=vl"}, {"vlan 10 vni 6000: p", "vlan 10: p"});
}

TEST_P(LevelsTest, ThreeLevelsAroundAnotherType) {
  expectInEveryOrder({"9=vx", "10=ot", "11=vl"}, {"vlan 10: p"});
}

TEST_P(LevelsTest, TheTopVlanUnderLevel255IsMappedFromAboveOnly) {
  const Lines plain = {"vlan 10: p"};
  const Lines mapped = {"vlan 10 vni 5000: p", "vlan 10: p"};
  // The VLAN first: the VXLAN finds it right below.
  bind("0=vl");
  bind("255=vx");
  EXPECT_THAT(vlans(), ElementsAreArray(mapped));
  expectRebuiltIsReached();
  // Going, the VLAN takes the VNI of level 255 along.
  bind("0=-");
  EXPECT_THAT(vlans(), IsEmpty());
  // The VXLAN first: a VLAN at level 0 does not look above.
  bind("0=vl");
  EXPECT_THAT(vlans(), ElementsAreArray(plain));
  world.apply("-bind p");
  bind("255=vx");
  bind("0=vl");
  EXPECT_THAT(vlans(), ElementsAreArray(plain));
  bind("0=- 255=-");
  EXPECT_THAT(vlans(), IsEmpty());
  // Both at once: handled from the top level down.
  bind("255=vx 0=vl");
  EXPECT_THAT(vlans(), ElementsAreArray(mapped));
}

TEST_P(LevelsTest, AVlanAtLevel255HasNothingBelow) {
  bind("255=vl");
  bind("0=vx");
  EXPECT_THAT(vlans(), ElementsAreArray(Lines{"vlan 10: p"}));
  expectRebuiltIsReached();
}

TEST_P(LevelsTest, OneSegmentAtTwoLevelsIsWithdrawnByTheFirst) {
  bind("3=vl");
  bind("5=vl");
  EXPECT_THAT(vlans(), ElementsAreArray(Lines{"vlan 10: p"}));
  bind("5=-");
  EXPECT_THAT(vlans(), IsEmpty());
  bind("3=-");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_P(LevelsTest, OneSegmentAtTwoLevelsIsSoughtFromTheTop) {
  bind("0=vx 1=vl", "q");
  bind("3=vl 4=vx 5=vl");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 5000: p q", "vlan 10: p q"}));
  // Found at level 3, above which there is no VXLAN.
  bind("5=-");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 5000: p q", "vlan 10: q"}));
  world.apply("-bind q; -bind p");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_P(LevelsTest, SharedLevelsArePublishedAndWithdrawnWithTheirPorts) {
  bind("0=vx 1=vl");
  bind("0=vx 1=vl", "q");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 5000: p q", "vlan 10: p q"}));
  world.apply("-bind p");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 5000: q", "vlan 10: q"}));
  expectRebuiltIsReached();
  bind("0=vy 1=vl", "s");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 5000: q", "vlan 10 vni 6000: s", "vlan 10: q s"}));
  world.apply("-bind q");
  EXPECT_EQ(vlans(), (Lines{"vlan 10 vni 6000: s", "vlan 10: s"}));
  expectRebuiltIsReached();
}

INSTANTIATE_TEST_SUITE_P(To, LevelsTest, testing::Values(To::host, To::port, To::element),
                         [](const testing::TestParamInfo<To>& each) {
                           return each.param == To::host   ? "Host"
                                  : each.param == To::port ? "SwitchPort"
                                                           : "PhysicalInterface";
                         });

}  // namespace
