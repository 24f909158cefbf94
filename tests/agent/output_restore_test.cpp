// Restoring the outputs: from any state to any other, and nothing is written where nothing differs.
#include "agent/cloud/output_restore.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

#include "agent/cloud/output_reading.h"
#include "agent/cloud/output_watch.h"
#include "agent/output/output_json.h"
#include "framework/Activity.h"

namespace vnagent {
namespace {

// The output entities, in a state at random: few names, so that two states have much in common.
class Outputs {
 public:
  explicit Outputs(unsigned seed) : random_(seed) {
    for (const char* name : {"R", "S", "T"}) {
      if (chance()) fill(*status->regionStatusIs(name));
    }
    for (const char* name : {"g", "h", "i"}) {
      if (chance()) fill(*resources->resourcesForHostnameIs(name));
    }
    for (const char* of : {"", "leaf", "spine"}) {
      for (const char* interface : {"", "e1", "e2"}) {
        if (chance()) {
          fill(*resources->resourcesForSwitchportIs({Kiv::String(of), Kiv::String(interface)}));
        }
      }
    }
    for (const char* name : {"m", "n", "o"}) {
      if (chance()) fill(*elements->networkElementIs(name));
    }
  }
  ~Outputs() {
    for (const auto& element : elements->networkElement()) element->physicalInterfaceDelAll();
  }

  std::string text() const {
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kOneLine);
    writeOutput(readOutput(*status, *resources, *elements), writer);
    return text;
  }
  void restore(const std::string& text) const {
    const JsonTree tree = JsonTree::parse(text);
    restoreOutput(tree.root(), *status, *resources, *elements);
  }

  Kiv::Ptr<OpenStack::OpenStackStatus> status = Kiv::make<OpenStack::OpenStackStatus>();
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources =
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements =
      Kiv::make<VirtualNetwork::NetworkElementCollection>();

 private:
  bool chance() { return random_() % 2 == 0; }
  Kiv::U32 number(unsigned limit) { return static_cast<Kiv::U32>(random_() % limit); }
  Kiv::String word() { return Kiv::String(std::string(number(3), 'x')); }

  template <class Use>
  void some(Use use) {
    for (const char* id : {"p", "q", "r"}) {
      if (chance()) use(id);
    }
  }
  template <class Owner>
  void fillReferrers(Owner& owner) {
    some([&](const char* id) { owner.referrerIs(std::remove_cvref_t<Key<Owner>>(id), true); });
  }
  template <class Owner>
  using Key = decltype((*std::declval<const Owner&>().referrer().begin()).key);

  template <class Owner>
  void fillVlans(Owner& owner) {
    for (const Kiv::U32 id : {9U, 10U, 11U}) {
      if (!chance()) continue;
      const auto vlan = owner.vlanIs(id);
      fillReferrers(*vlan);
      if (chance()) fillReferrers(*vlan->mappedVniIs(id * number(3)));
    }
  }
  template <class Owner>
  void fillDomains(Owner& owner) {
    if (chance()) fillReferrers(*owner.domainIs("R"));
    if (chance()) fillReferrers(*owner.domainIs("S"));
  }
  void fill(OpenStack::RegionStatus& region) {
    region.syncStatusIs(static_cast<OpenStack::SyncStatus>(number(4)));
    region.oldSyncStatusIs(static_cast<OpenStack::SyncStatus>(number(4)));
    region.ownerIs(word());
    region.requestIdIs(word());
    region.vlanAssignmentUuidIs(word());
    if (chance()) return;
    const auto pool = region.vlanPoolIs(region.name());
    for (const Kiv::U16 vlan : {Kiv::U16{9}, Kiv::U16{10}, Kiv::U16{4094}}) {
      if (chance()) pool->assignedVlanIs(vlan, chance());
      if (chance()) pool->availableVlanIs(vlan, true);
      if (chance()) pool->allocatedVlanIs(vlan, true);
    }
  }
  void fill(VirtualNetwork::ResourcesForHostname& host) {
    fillDomains(host);
    fillVlans(host);
  }
  void fill(VirtualNetwork::ResourcesForSwitchport& port) {
    fillVlans(port);
    port.nativeVlanIs(number(3));
    fillReferrers(port);
    some([&](const char* host) { port.remoteHostIs(host, true); });
  }
  void fill(VirtualNetwork::NetworkElement& element) {
    element.hostnameIs(word());
    fillReferrers(element);
    fillDomains(element);
    fillVlans(element);
    for (const char* name : {"", "e1"}) {
      if (!chance()) continue;
      const auto interface = element.physicalInterfaceIs(name);
      fillVlans(*interface);
      interface->nativeVlanIs(number(3));
      for (const auto& other : elements->networkElement()) {
        if (chance()) interface->configuredElementIs(Kiv::Ptr(other.get()));
      }
    }
  }

  std::mt19937 random_;
};

TEST(OutputRestore, GoesFromAnyStateToAnyOther) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    const Kiv::ActivityManager loop;
    const std::string wanted = Outputs(seed).text();
    const Outputs outputs(seed + 1000);
    outputs.restore(wanted);
    ASSERT_EQ(outputs.text(), wanted);
  }
}

TEST(OutputRestore, WritesNothingWhereNothingDiffers) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    Kiv::ActivityManager loop;
    const Outputs outputs(seed);
    OutputWatch watch(outputs.status, outputs.resources, outputs.elements);
    outputs.restore(outputs.text());
    // A region without a pool gets one, which is empty.
    loop.run();
    EXPECT_TRUE(watch.change().empty());
    outputs.restore(outputs.text());
    EXPECT_TRUE(loop.idle());
  }
}

TEST(OutputRestore, AConfiguredElementMustBeThere) {
  const Kiv::ActivityManager loop;
  Outputs outputs(1);
  std::string text =
      R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {}, )"
      R"("resourcesForSwitchport": {}}, "networkElement": {"n": {"hostname": "", "referrer": [], )"
      R"("domain": {}, "vlan": {}, "physicalInterface": {"e": {"vlan": {}, "nativeVlan": 0, )"
      R"("configuredElement": ["n"]}}}}})";
  outputs.restore(text);
  EXPECT_EQ(outputs.text(), text);
  text.replace(text.find(R"(["n"])"), 5, R"(["o"])");
  try {
    outputs.restore(text);
    FAIL() << "taken";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "output document: /networkElement/n/physicalInterface/e/configuredElement: "
                 "no network element o");
  }
}

}  // namespace
}  // namespace vnagent
