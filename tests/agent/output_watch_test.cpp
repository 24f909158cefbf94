// OutputWatch: its change is the difference of the documents, whatever was done to the entities,
// there and back, and its cost is that of the change.
#include "agent/cloud/output_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "agent/cloud/output_reading.h"
#include "agent/output/output_json.h"
#include "framework/Activity.h"
#include "tests/agent/merge_patch.h"

namespace vnagent {
namespace {

class OutputWatchTest : public ::testing::Test {
 protected:
  // What has changed since the last call. It is held to the difference of the documents, and so is
  // the change back.
  std::string change() {
    loop_.run();
    OutputDocument before;
    const std::string text = json(watch_.change(&before));
    const auto now = nlohmann::json::parse(json(readOutput(*status_, *resources_, *elements_)));
    EXPECT_EQ(nlohmann::json::parse(text), difference(document_, now));
    back_ = json(before);
    EXPECT_EQ(nlohmann::json::parse(back_), difference(now, document_));
    document_ = now;
    return text;
  }
  // Of the hosts, and of the switch ports.
  std::string hostChange() { return inner("resourcesForHostname"); }
  std::string portChange() { return inner("resourcesForSwitchport"); }

  auto host(const char* name) { return resources_->resourcesForHostnameIs(Kiv::Name(name)); }
  auto port(const char* of, const char* interface) {
    return resources_->resourcesForSwitchportIs(address(of, interface));
  }
  static VirtualNetwork::SwitchInterface address(const char* of, const char* interface) {
    return {Kiv::String(of), Kiv::String(interface)};
  }

  std::string back_;  // the last one
  Kiv::ActivityManager loop_;
  Kiv::Ptr<OpenStack::OpenStackStatus> status_ = Kiv::make<OpenStack::OpenStackStatus>();
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources_ =
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements_ =
      Kiv::make<VirtualNetwork::NetworkElementCollection>();
  OutputWatch watch_{status_, resources_, elements_};

 private:
  static std::string json(const OutputDocument& document) {
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kOneLine);
    writeOutput(document, writer);
    return text;
  }

  std::string inner(const std::string& member) {
    const std::string text = change();
    const std::string start = R"({"requestedResources": {")" + member + R"(": )";
    if (!text.starts_with(start)) return text;
    return text.substr(start.size(), text.size() - start.size() - 2);
  }

  nlohmann::json document_ =
      nlohmann::json::parse(json(readOutput(*status_, *resources_, *elements_)));
};

TEST_F(OutputWatchTest, WhatWasThereAtItsStartCountsAsShown) {
  host("h")->vlanIs(7)->referrerIs("p", true);
  port("s", "e");
  elements_->networkElementIs("n")->physicalInterfaceIs("i")->nativeVlanIs(3);
  status_->regionStatusIs("R")->vlanPoolIs("R")->assignedVlanIs(5, true);
  loop_.run();
  OutputWatch late(status_, resources_, elements_);
  EXPECT_TRUE(late.change().empty());
  host("h")->vlan()[7]->referrerIs("q", true);
  resources_->resourcesForSwitchportDel(address("s", "e"));
  loop_.run();
  const OutputDocument change = late.change();
  EXPECT_EQ(change.requestedResources->resourcesForHostname->size(), 1U);
  EXPECT_TRUE(change.requestedResources->resourcesForSwitchport->front().removed);
}

TEST_F(OutputWatchTest, AScalarIsShownOnlyWhenItsValueIsAnother) {
  const auto region = status_->regionStatusIs("R");
  region->ownerIs("a");
  change();
  region->ownerIs("a");
  region->syncStatusIs(OpenStack::SyncStatus::syncComplete);
  region->syncStatusIs(OpenStack::SyncStatus::syncUnknown);
  EXPECT_EQ(change(), "{}");
  region->ownerIs("b");
  EXPECT_EQ(change(), R"({"regionStatus": {"R": {"owner": "b"}}})");
}

TEST_F(OutputWatchTest, ASetIsShownWholeWhenOneOfItsKeysIsAnother) {
  const auto vlan = host("h")->vlanIs(7);
  vlan->referrerIs("b", true);
  vlan->referrerIs("a", true);
  EXPECT_EQ(hostChange(),
            R"({"h": {"domain": {}, "vlan": {"7": {"referrer": ["a", "b"], "mappedVni": {}}}}})");
  vlan->referrerDel("a");
  vlan->referrerIs("a", true);
  EXPECT_EQ(change(), "{}");
  vlan->referrerDel("a");
  vlan->referrerDel("b");
  vlan->referrerIs("a", true);
  EXPECT_EQ(hostChange(), R"({"h": {"vlan": {"7": {"referrer": ["a"]}}}})");
  vlan->referrerDelAll();
  EXPECT_EQ(hostChange(), R"({"h": {"vlan": {"7": {"referrer": []}}}})");
}

TEST_F(OutputWatchTest, AnEntryThatIsFalseIsNotShown) {
  const auto pool = status_->regionStatusIs("R")->vlanPoolIs("R");
  pool->assignedVlanIs(5, true);
  change();
  pool->assignedVlanIs(6, false);
  EXPECT_EQ(change(), "{}");
  pool->assignedVlanIs(5, false);
  pool->availableVlanIs(9, true);
  EXPECT_EQ(change(), R"({"regionStatus": {"R": {"vlanPool": {"assignedVlan": [], )"
                      R"("availableVlan": [9]}}}})");
}

TEST_F(OutputWatchTest, APoolThatIsReplacedOrRemovedIsComparedWithWhatWasShown) {
  const auto region = status_->regionStatusIs("R");
  region->vlanPoolIs("R")->assignedVlanIs(5, true);
  change();
  region->vlanPoolDel();
  region->vlanPoolIs("R")->assignedVlanIs(5, true);
  EXPECT_EQ(change(), "{}");
  region->vlanPool()->assignedVlanIs(6, true);
  EXPECT_EQ(change(), R"({"regionStatus": {"R": {"vlanPool": {"assignedVlan": [5, 6]}}}})");
  region->vlanPoolDel();
  EXPECT_EQ(change(), R"({"regionStatus": {"R": {"vlanPool": {"assignedVlan": []}}}})");
}

TEST_F(OutputWatchTest, AMemberThatIsRemovedAndAddedAgainIsComparedInside) {
  const auto vlan = host("h")->vlanIs(7);
  vlan->referrerIs("p", true);
  vlan->mappedVniIs(1)->referrerIs("p", true);
  vlan->mappedVniIs(2)->referrerIs("p", true);
  host("h")->domainIs("R")->referrerIs("p", true);
  change();
  resources_->resourcesForHostnameDelAll();
  const auto again = host("h")->vlanIs(7);
  again->referrerIs("p", true);
  again->mappedVniIs(2)->referrerIs("p", true);
  again->mappedVniIs(3)->referrerIs("p", true);
  EXPECT_EQ(hostChange(), R"({"h": {"domain": {"R": null}, "vlan": {"7": {"mappedVni": )"
                          R"({"1": null, "3": ["p"]}}}}})");
  again->mappedVniDel(3);
  again->mappedVniIs(3)->referrerIs("p", true);
  EXPECT_EQ(change(), "{}");
}

TEST_F(OutputWatchTest, WhatIsAddedAndRemovedInOneStepIsNeverShown) {
  host("h")->vlanIs(7)->referrerIs("p", true);
  resources_->resourcesForHostnameDel("h");
  EXPECT_EQ(change(), "{}");
}

TEST_F(OutputWatchTest, WhatWasRemovedIsWatchedNoLonger) {
  const auto removed = host("h");
  const auto vlan = removed->vlanIs(7);
  change();
  removed->vlanDel(7);
  resources_->resourcesForHostnameDel("h");
  EXPECT_EQ(hostChange(), R"({"h": null})");
  removed->vlanIs(8);
  vlan->referrerIs("p", true);
  EXPECT_EQ(change(), "{}");
}

TEST_F(OutputWatchTest, ASwitchIsThereAsLongAsItHasAPort) {
  port("s", "e1");
  port("s", "e2");
  port("t", "");
  change();
  resources_->resourcesForSwitchportDel(address("s", "e1"));
  EXPECT_EQ(portChange(), R"({"s": {"e1": null}})");
  resources_->resourcesForSwitchportDel(address("s", "e2"));
  port("s", "e3")->nativeVlanIs(4);
  EXPECT_EQ(portChange(), R"({"s": {"e2": null, "e3": {"vlan": {}, "nativeVlan": 4, )"
                          R"("remoteHost": [], "referrer": []}}})");
  resources_->resourcesForSwitchportDelAll();
  EXPECT_EQ(portChange(), R"({"s": null, "t": null})");
  EXPECT_EQ(change(), "{}");
}

TEST_F(OutputWatchTest, EveryAttributeOfASwitchPortIsWatched) {
  const auto of = port("s", "e");
  change();
  of->remoteHostIs("h", true);
  EXPECT_EQ(portChange(), R"({"s": {"e": {"remoteHost": ["h"]}}})");
  of->referrerIs("bm-p", true);
  EXPECT_EQ(portChange(), R"({"s": {"e": {"referrer": ["bm-p"]}}})");
  of->nativeVlanIs(7);
  EXPECT_EQ(portChange(), R"({"s": {"e": {"nativeVlan": 7}}})");
  of->vlanIs(7);
  EXPECT_EQ(portChange(), R"({"s": {"e": {"vlan": {"7": {"referrer": [], "mappedVni": {}}}}}})");
}

TEST_F(OutputWatchTest, EveryAttributeOfANetworkElementIsWatched) {
  const auto element = elements_->networkElementIs("n");
  const auto interface = element->physicalInterfaceIs("i");
  change();
  element->hostnameIs("n");
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"hostname": "n"}}})");
  element->referrerIs("bm-p", true);
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"referrer": ["bm-p"]}}})");
  element->domainIs("R")->referrerIs("p", true);
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"domain": {"R": ["p"]}}}})");
  element->vlanIs(3);
  EXPECT_EQ(change(),
            R"({"networkElement": {"n": {"vlan": {"3": {"referrer": [], "mappedVni": {}}}}}})");
  interface->nativeVlanIs(3);
  interface->vlanIs(4);
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"physicalInterface": {"i": {"vlan": {"4": )"
                      R"({"referrer": [], "mappedVni": {}}}, "nativeVlan": 3}}}}})");
  interface->configuredElementIs(element);
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"physicalInterface": {"i": )"
                      R"({"configuredElement": ["n"]}}}}})");
  element->physicalInterfaceDel("i");
  EXPECT_EQ(change(), R"({"networkElement": {"n": {"physicalInterface": {"i": null}}}})");
  elements_->networkElementDel("n");
  EXPECT_EQ(change(), R"({"networkElement": {"n": null}})");
}

TEST_F(OutputWatchTest, TheChangeBackHasAllThatARemovedThingHad) {
  const auto region = status_->regionStatusIs("R");
  region->ownerIs("a");
  region->syncStatusIs(OpenStack::SyncStatus::syncInProgress);
  region->vlanPoolIs("R")->assignedVlanIs(12, true);
  region->vlanPool()->assignedVlanIs(5, true);
  for (const Kiv::U32 vlan : {9U, 10U, 8U}) {
    host("h")->vlanIs(vlan)->referrerIs("p", true);
    host("h")->vlanIs(vlan)->mappedVniIs(vlan)->referrerIs("q", true);
  }
  host("h")->domainIs("R")->referrerIs("p", true);
  port("s", "e2")->remoteHostIs("b", true);
  port("s", "e1")->nativeVlanIs(4);
  const auto interface = elements_->networkElementIs("n")->physicalInterfaceIs("i");
  interface->vlanIs(3)->referrerIs("p", true);
  interface->configuredElementIs(elements_->networkElementIs("m"));
  change();
  // Withdrawn, as machines do, and then removed.
  region->ownerIs("");
  region->vlanPoolDel();
  host("h")->vlanDel(9);
  host("h")->vlan()[8]->mappedVniDelAll();
  host("h")->domainDelAll();
  port("s", "e1")->nativeVlanIs(0);
  interface->vlanDelAll();
  interface->configuredElementDelAll();
  status_->regionStatusDelAll();
  resources_->resourcesForHostnameDelAll();
  resources_->resourcesForSwitchportDelAll();
  elements_->networkElementDelAll();
  EXPECT_EQ(change(),
            R"({"regionStatus": {"R": null}, "requestedResources": {"resourcesForHostname": )"
            R"({"h": null}, "resourcesForSwitchport": {"s": null}}, "networkElement": )"
            R"({"m": null, "n": null}})");
  EXPECT_THAT(back_, testing::HasSubstr(R"("assignedVlan": [5, 12])"));
  EXPECT_THAT(back_, testing::HasSubstr(R"("9": {"referrer": ["p"], "mappedVni": {"9": ["q"]}})"));
  EXPECT_THAT(back_, testing::HasSubstr(R"("configuredElement": ["m"])"));
}

TEST_F(OutputWatchTest, TheChangeBackRemovesWhatIsNew) {
  port("s", "e1");
  change();
  port("s", "e2");
  port("t", "");
  host("h")->vlanIs(7)->referrerIs("p", true);
  change();
  EXPECT_EQ(back_, R"({"requestedResources": {"resourcesForHostname": {"h": null}, )"
                   R"("resourcesForSwitchport": {"s": {"e2": null}, "t": null}}})");
  resources_->resourcesForSwitchportDel(address("t", ""));
  port("t", "e")->nativeVlanIs(5);
  host("h")->vlan()[7]->referrerIs("a", true);
  host("h")->vlan()[7]->referrerDel("p");
  change();
  EXPECT_EQ(back_, R"({"requestedResources": {"resourcesForHostname": {"h": {"vlan": {"7": )"
                   R"({"referrer": ["p"]}}}}, "resourcesForSwitchport": {"t": {"": )"
                   R"({"vlan": {}, "nativeVlan": 0, "remoteHost": [], "referrer": []}, )"
                   R"("e": null}}}})");
}

// The number of keys that are compared for the same change in a cloud of this size.
size_t keysCompared(int size) {
  Kiv::ActivityManager loop;
  const auto status = Kiv::make<OpenStack::OpenStackStatus>();
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto elements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
  OutputWatch watch(status, resources, elements);
  for (int i = 0; i < size; ++i) {
    const std::string id = std::to_string(i);
    const auto host = resources->resourcesForHostnameIs(Kiv::Name("h" + id));
    host->domainIs("R")->referrerIs(Kiv::Name(id), true);
    for (Kiv::U32 vlan = 1; vlan < 20; ++vlan) {
      host->vlanIs(vlan)->mappedVniIs(vlan)->referrerIs(Kiv::String(id), true);
    }
    // One host with as many ports as there are hosts.
    resources->resourcesForHostnameIs("h0")->vlanIs(1)->referrerIs(Kiv::String("q" + id), true);
    status->regionStatusIs("R")->vlanPoolIs("R")->assignedVlanIs(static_cast<Kiv::U16>(i), true);
    resources->resourcesForSwitchportIs({Kiv::String("s"), Kiv::String(id)});
  }
  loop.run();
  (void)watch.change();
  const auto host = resources->resourcesForHostnameIs("h0");
  host->vlanIs(1)->referrerDel("q0");
  host->vlanIs(1)->referrerIs("q0", true);
  host->vlanIs(2)->mappedVniIs(2)->referrerIs("p", true);
  status->regionStatusIs("R")->vlanPoolIs("R")->assignedVlanIs(4000, true);
  resources->resourcesForSwitchportDel({Kiv::String("s"), Kiv::String("0")});
  loop.run();
  EXPECT_FALSE(watch.change().empty());
  return watch.keysCompared();
}

TEST(OutputWatchCost, IsThatOfTheChangeHoweverLargeTheCloud) {
  const size_t few = keysCompared(2);
  EXPECT_GT(few, 0U);
  EXPECT_EQ(keysCompared(1000), few);
}

}  // namespace
}  // namespace vnagent
