// Inspection: machines and entities as JSON, by path.
#include "agent/output/inspection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "OpenStackSm/OpenStackSm.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Optional;

class InspectionTest : public testing::Test {
 protected:
  InspectionTest() {
    const auto region = cloud_->regionIs("R/1");
    region->segmentIs("vl")->segmentationIdIs(10);
    const auto binding = region->portBindingIs("p");
    binding->portIs(region->portIs("p"));
    binding->portToHostBindingIs("h")->segmentIs(0, region->segmentIs("vl"));
    root_ = OpenStack::openStackSmFactory(cloud_, Kiv::make<OpenStack::OpenStackStatus>(),
                                          Kiv::make<OpenStack::NameResolution::Config>(),
                                          Kiv::make<OpenStack::NameResolution::Status>(),
                                          Kiv::make<VirtualNetwork::RequestedResourcesCollection>(),
                                          60, Kiv::make<OpenStack::Config>(),
                                          Kiv::make<VirtualNetwork::NetworkElementCollection>());
  }

  std::optional<std::string> inspect(std::string_view path) {
    out_.clear();
    vnagent::JsonWriter writer(out_, vnagent::JsonWriter::Style::kIndented);
    return vnagent::writeInspection(*root_, "openStackSm", path, writer);
  }
  json at(std::string_view path) {
    EXPECT_EQ(inspect(path), std::nullopt);
    return json::parse(out_);
  }

  Kiv::ActivityManager loop_;
  Kiv::Ptr<OpenStack::OpenStackConfig> cloud_ = Kiv::make<OpenStack::OpenStackConfig>();
  Kiv::Ptr<OpenStack::OpenStackSm> root_;
  std::string out_;
};

TEST_F(InspectionTest, AMachineShowsItsValuesTheTypesItRefersToItsKeysAndItsHandlers) {
  const json machine = at("/openStackSm");
  EXPECT_EQ(machine["type"], "OpenStack::OpenStackSm");
  EXPECT_EQ(machine["regionSyncTimeout"], 60);
  EXPECT_EQ(machine["initialized"], true);
  EXPECT_EQ(machine["openstackConfig"], json({{"type", "OpenStack::OpenStackConfig"}}));
  EXPECT_EQ(machine["regionConfigSm"],
            json::parse(R"({"R/1": {"type": "OpenStack::RegionConfigSm"}})"));
  EXPECT_EQ(machine["handlers"].size(), 5U);
}

TEST_F(InspectionTest, ACollectionShowsEachMemberWhole) {
  const json members = at("/openStackSm/regionConfigSm/R~11/portBindingSm");
  ASSERT_EQ(members.size(), 1U);
  EXPECT_EQ(members["p"]["portId"], "p");
  EXPECT_EQ(members["p"]["portToHostBindingSm"],
            json::parse(R"({"h": {"type": "OpenStack::PortToHostBindingSm"}})"));
}

TEST_F(InspectionTest, APathLeadsThroughEntitiesToValues) {
  EXPECT_EQ(at("/openStackSm/openstackConfig/region/R~11/segment/vl/segmentationId"), 10);
  EXPECT_EQ(at("/openStackSm/openstackConfig/region/R~11/segment/vl/segmentationType"), "vlan");
  EXPECT_EQ(at("/openStackSm/openstackStatus/regionStatus/R~11/vlanPool/allocatedVlan"),
            json::parse(R"({"10": true})"));
}

TEST_F(InspectionTest, APathThatLeadsNowhereIsReportedAndNothingIsWritten) {
  EXPECT_THAT(inspect("openStackSm"), Optional(HasSubstr("not a path")));
  EXPECT_THAT(inspect("/openStackSm~2"), Optional(HasSubstr("not a path")));
  EXPECT_THAT(inspect("/other"), Optional(HasSubstr("paths begin with /openStackSm")));
  EXPECT_THAT(inspect("/openStackSm/nothing"),
              Optional(std::string("OpenStack::OpenStackSm has no attribute \"nothing\"")));
  EXPECT_THAT(inspect("/openStackSm/handleRegion"), Optional(HasSubstr("no attribute")));
  EXPECT_THAT(inspect("/openStackSm/regionConfigSm/Q"),
              Optional(std::string("regionConfigSm holds no \"Q\"")));
  EXPECT_THAT(inspect("/openStackSm/initialized/x"), Optional(HasSubstr("a value has no")));
  EXPECT_EQ(out_, "");
}

}  // namespace
