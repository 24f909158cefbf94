// What watchers of the outputs may do to the machines while they work: throw, change the inputs,
// take away what is being walked over, leave.
#include <stdexcept>

#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::IsEmpty;

constexpr const char* kCloud =
    "region R; assign R 10 30; segment vx vxlan 5000; segment vl vlan 10; segment vm vlan 20; "
    "port q native";
constexpr const char* kBound =
    "host p h1 0=vx 1=vl; host p h2 0=vl; switch q sw e1 h3 0=vx 1=vl 2=vm; switch q sw e2 h3 0=vl";

class ObserverTest : public SwitchTest {
 protected:
  // Runs until nothing waits, whatever is thrown meanwhile; returns how often something was.
  int runThrough() {
    int thrownCount = 0;
    for (;;) {
      try {
        world.run();
        return thrownCount;
      } catch (const std::runtime_error&) {
        ++thrownCount;
      }
    }
  }
  // Changes a statement at a time, going on after an exception.
  void changeThrough(const std::string& text) {
    std::istringstream in(text);
    for (std::string each; std::getline(in, each, ';');) {
      try {
        world.change(each);
      } catch (const std::runtime_error&) {
      }
    }
  }
};

TEST_P(ObserverTest, AThrowAtAnyWriteOfAPublicationIsRepairedByBindingAgain) {
  world.start(kCloud);
  world.apply(kBound);
  const Lines expected = withoutHistory(world.published());
  world.unbindAll();
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    {
      OutputWatch watch(world.statuses, world.resources, world.elements);
      int writes = 0;
      watch.immediate = [&](const std::string& path) {
        if (++writes != at) return;
        reached = true;
        throw std::runtime_error("from a watcher of " + path);
      };
      changeThrough(kBound);
      runThrough();
    }
    // What was not finished is done once the ports are bound anew.
    world.apply("-bind p; -bind q");
    world.apply(kBound);
    EXPECT_EQ(withoutHistory(world.published()), expected) << at;
    world.unbindAll();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << at;
    ASSERT_LT(at, 200);
  }
}

TEST_P(ObserverTest, AThrowAtAnyWriteOfAWithdrawalIsRepairedByTheLoop) {
  world.start(kCloud);
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    world.apply(kBound);
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string& path) {
      if (++writes != at) return;
      reached = true;
      throw std::runtime_error("from a watcher of " + path);
    };
    changeThrough("-bind p; -bind q");
    runThrough();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << at;
    EXPECT_FALSE(world.portSm("p")) << at;
    EXPECT_FALSE(world.portSm("q")) << at;
    ASSERT_LT(at, 200);
  }
}

TEST_P(ObserverTest, AThrowAtAnyWriteOfALevelsWithdrawalIsRepairedByTheLoop) {
  world.start(kCloud);
  world.apply(kBound);
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string& path) {
      if (++writes != at) return;
      reached = true;
      throw std::runtime_error("from a watcher of " + path);
    };
    changeThrough("host p h1 1=-; switch q sw e1 h3 1=-");
    runThrough();
    EXPECT_FALSE(world.hostSm("p", "h1")->segment().contains(1)) << at;
    watch.immediate = nullptr;
    world.apply("host p h1 1=vl; switch q sw e1 h3 1=vl");
    expectRebuiltIsReached();
    ASSERT_LT(at, 100);
  }
}

TEST_P(ObserverTest, ThrowingWatchersDoNotStopTheEndOfAMachine) {
  world.start(kCloud);
  world.apply(kBound);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  int writes = 0;
  watch.immediate = [&](const std::string&) {
    if (++writes % 2 == 1) throw std::runtime_error("from a watcher");
  };
  world.rootDel();
  watch.immediate = nullptr;
  runThrough();
  EXPECT_THAT(machinesAlive(), IsEmpty());
  for (const std::string& line : world.published()) {
    EXPECT_EQ(line.find(" vlan "), std::string::npos) << line;
  }
  world.resources->resourcesForHostnameDelAll();
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
}

TEST_P(ObserverTest, ChangesByAWatcherDuringTheEndReachNoMachine) {
  world.start(kCloud);
  world.apply(kBound);
  const std::string before = world.vlans();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  int changed = 0;
  watch.immediate = [&](const std::string&) {
    if (++changed == 1)
      world.change("assign R 11; assign S 5; driver 1; segment vn vlan 30; bind r");
  };
  world.traces.take();
  world.rootDel();
  watch.immediate = nullptr;
  EXPECT_GT(changed, 0);
  EXPECT_THAT(machinesAlive(), IsEmpty());
  world.run();
  EXPECT_EQ(world.vlans(), before);
  for (const std::string& line : world.traces.take()) {
    EXPECT_NE(line.find("Cleanup()"), std::string::npos) << line;
  }
  world.resources->resourcesForHostnameDelAll();
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
}

TEST_P(ObserverTest, AfterAThrowInAPoolTheNextRebuildCompletesIt) {
  world.start("region R; segment vl vlan 10; assign R 10 20");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string& path) {
    if (armed && path == "status R pool available") {
      armed = false;
      throw std::runtime_error("from a watcher");
    }
  };
  EXPECT_THROW(world.root->handleRegionVlanAssignment("R"), std::runtime_error);
  world.root->handleRegionVlanAssignment("R");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated 10 available 20");
  EXPECT_EQ(world.rebuiltVlans(), world.vlans());
}

TEST_P(ObserverTest, AThrowThroughTheLoopLosesOneNotificationOnly) {
  world.start("region R; segment vl vlan 10; bind p; bind q");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string&) {
    if (armed) {
      armed = false;
      throw std::runtime_error("from a watcher");
    }
  };
  world.change("host p h1 0=vl; host q h2 0=vl");
  EXPECT_THROW(world.run(), std::runtime_error);
  EXPECT_FALSE(world.loop.idle());
  world.run();
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_TRUE(world.hostSm("q", "h2"));
  world.portSm("p")->handlePortToHostBinding("h1");
  EXPECT_TRUE(world.hostSm("p", "h1"));
  expectRebuiltIsReached();
}

// Re-entering.

TEST_P(ObserverTest, APortUnboundByAWatcherOfItsOwnPublicationLeavesNothing) {
  world.start(kCloud);
  // At each write of the binding, in turn.
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string&) {
      if (++writes != at) return;
      reached = true;
      world.change("-bind p; -bind q");
    };
    world.change(kBound);
    runThrough();
    watch.immediate = nullptr;
    world.apply("-bind p; -bind q");
    world.apply(kBound);
    expectRebuiltIsReached();
    world.unbindAll();
    ASSERT_LT(at, 200);
  }
}

TEST_P(ObserverTest, APortUnboundByAWatcherOfAWithdrawalIsWithdrawnToo) {
  world.start(kCloud);
  // At each write of the withdrawal, in turn.
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    world.apply(kBound);
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string&) {
      if (++writes != at) return;
      reached = true;
      world.change("-bind q");
    };
    world.apply("-bind p");
    watch.immediate = nullptr;
    world.unbindAll();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << at;
    ASSERT_LT(at, 100);
  }
}

TEST_P(ObserverTest, ALevelOfABindingRemovedBeforeTheLoopRunsIsNotPublished) {
  world.start(kCloud);
  world.apply("host p h1 0=vx; switch q sw e1 h3 0=vx");
  world.change("host p h1 1=vl; -host p h1; switch q sw e1 h3 1=vl; -switch q sw e1");
  world.run();
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
}

TEST_P(ObserverTest, ALevelRemovedByAWatcherOfItsWithdrawalIsWithdrawnOnce) {
  world.start(kCloud);
  bool reached = true;
  for (int at = 1; reached; ++at) {
    reached = false;
    world.apply(kBound);
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string&) {
      if (++writes != at) return;
      reached = true;
      world.change("host p h1 0=- 1=-; switch q sw e1 h3 0=- 1=- 2=-");
    };
    world.apply("host p h1 1=-; switch q sw e1 h3 2=-");
    watch.immediate = nullptr;
    world.apply("host p h1 0=- 1=-; switch q sw e1 h3 0=- 1=- 2=-");
    expectRebuiltIsReached();
    world.unbindAll();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << at;
    ASSERT_LT(at, 100);
  }
}

TEST_P(ObserverTest, ASegmentAddedAgainDuringItsRemovalIsServed) {
  world.start("region R; assign R 10");
  world.apply("segment vl vlan 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string& path) {
    if (armed && path == "status R pool allocated") {
      armed = false;
      world.change("segment vl vlan 30");
    }
  };
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated 30 available 10");
  EXPECT_TRUE(world.regionSm()->segment().contains("vl"));
}

TEST_P(ObserverTest, ARegionRemovedByAWatcherOfItsStatusIsDeleted) {
  world.start();
  world.statuses->regionStatusIs("R")->vlanPoolIs("R");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool taken = false;
  watch.immediate = [&](const std::string& path) {
    if (taken || path != "status R pool allocated") return;
    taken = true;
    world.change("-region R");
  };
  world.apply("region R; segment va vlan 10; segment vb vlan 20; bind p");
  EXPECT_TRUE(taken);
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
}

TEST_P(ObserverTest, SegmentsAddedWhileTheRegionIsWalkedAreServed) {
  world.start("region R; assign R 1 2 3 4 5 6 7 8 9; segment s1 vlan 1; segment s2 vlan 2");
  world.pool()->allocatedVlanDelAll();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  int added = 2;
  watch.immediate = [&](const std::string& path) {
    if (path == "status R pool allocated" && added < 9) {
      ++added;
      world.change("segment s" + std::to_string(added) + " vlan " + std::to_string(added));
    }
  };
  world.regionSm()->initializedIs(false);
  world.regionSm()->handleInitialized();
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 1 2 3 4 5 6 7 8 9 allocated 1 2 3 4 5 6 7 8 9 available");
  EXPECT_EQ(world.regionSm()->segment().size(), 9U);
}

TEST_P(ObserverTest, SegmentsRemovedWhileTheRegionIsWalkedAreReturned) {
  world.start(
      "region R; assign R 1 2 3 4; segment s1 vlan 1; segment s2 vlan 2; segment s3 vlan 3");
  world.pool()->allocatedVlanDelAll();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string& path) {
    if (armed && path == "status R pool allocated") {
      armed = false;
      world.change("-segment s1; -segment s2; -segment s3; segment s4 vlan 4");
    }
  };
  world.regionSm()->initializedIs(false);
  world.regionSm()->handleInitialized();
  world.run();
  EXPECT_EQ(world.regionSm()->segment().size(), 1U);
  EXPECT_EQ(world.vlans(), "assigned 1 2 3 4 allocated 4 available 1 2 3");
}

TEST_P(ObserverTest, AssignmentsChangedWhileTheDriverIsAppliedAreFollowed) {
  world.start("region A; region B; region C; assign A 1; assign B 1; assign C 1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string&) {
    if (!armed) return;
    armed = false;
    world.change("-assign A; -assign B; -assign C; assign C 7");
  };
  world.apply("driver 0");
  EXPECT_EQ(world.root->vlanAssignment().size(), 1U);
  EXPECT_EQ(world.vlans(), "assigned 7 allocated available 7");
  world.change("region A");
  EXPECT_EQ(world.vlans(), "assigned allocated available");
}

TEST_P(ObserverTest, ChangesWhileAMachineIsMadeAreFoundByItsOwnersNextNotification) {
  // A machine's notifications are switched on once it is made; until then only what it walks over
  // is seen. A later notification of any segment brings the reactors in line.
  world.start("assign R 1 2 3");
  world.statuses->regionStatusIs("R")->vlanPoolIs("R");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  bool armed = true;
  watch.immediate = [&](const std::string& path) {
    if (armed && path == "status R pool allocated") {
      armed = false;
      world.change("segment s2 vlan 2");
    }
  };
  world.apply("region R; segment s1 vlan 1");
  EXPECT_FALSE(world.regionSm()->segment().contains("s2"));
  world.apply("segment s3 vlan 3");
  EXPECT_EQ(world.regionSm()->segment().size(), 3U);
}

TEST_P(ObserverTest, TheRootReleasedByAWatcherEndsAfterTheHandlerHas) {
  world.start(kCloud);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  watch.immediate = [&](const std::string& path) {
    if (path == (on() ? "port" : "element") || path == "host h1 vlan") world.rootDel();
  };
  world.change(kBound);
  runThrough();
  watch.immediate = nullptr;
  EXPECT_THAT(machinesAlive(), IsEmpty());
  world.resources->resourcesForHostnameDelAll();
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
}

TEST_P(ObserverTest, AWatcherUnregisteredDuringANotificationLeavesTheOthersNotified) {
  world.start(kCloud);
  auto first = std::make_unique<OutputWatch>(world.statuses, world.resources, world.elements);
  OutputWatch second(world.statuses, world.resources, world.elements);
  second.immediate = [&](const std::string&) { first.reset(); };
  world.apply(kBound);
  EXPECT_FALSE(first);
  expectRebuiltIsReached();
}

INSTANTIATE_TEST_SUITE_P(Toggles, ObserverTest, bothToggles(), toggleName);

}  // namespace
