// Network elements that refer to each other.
#include "model/VirtualNetwork/NetworkElement.h"

#include <gtest/gtest.h>

namespace {

Kiv::U64 elementsAlive() {
  return Kiv::typeRecord<VirtualNetwork::NetworkElement>.allocations().liveCount();
}

TEST(NetworkElementTest, ElementsThatReferToEachOtherAreFreedWithTheirCollection) {
  const Kiv::ActivityManager loop;
  const Kiv::U64 before = elementsAlive();
  {
    const auto elements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
    const auto a = elements->networkElementIs("a");
    const auto b = elements->networkElementIs("b");
    a->physicalInterfaceIs("to b")->configuredElementIs(b);
    b->physicalInterfaceIs("to a")->configuredElementIs(a);
    b->physicalInterfaceIs("to itself")->configuredElementIs(b);
    EXPECT_EQ(elementsAlive(), before + 2);
  }
  EXPECT_EQ(elementsAlive(), before);
}

}  // namespace
