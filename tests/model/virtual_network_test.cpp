// What the switch is asked to provide: every attribute can be written, read and observed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "model/VirtualNetwork/Values.h"
#include "tests/model/virtual_network_watchers.h"

namespace {

using Kiv::make;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::String;
using testing::ElementsAre;
using testing::IsEmpty;
using VirtualNetwork::SwitchInterface;
using namespace Model;

class VirtualNetworkModelTest : public ModelTest {};

constexpr Kiv::U32 kVlan = 100;
constexpr Kiv::U32 kOther = 4094;

TEST_F(VirtualNetworkModelTest, TheRequestedResourcesAreObservable) {
  using C = VirtualNetwork::RequestedResourcesCollection;
  using W = RequestedResourcesWatcher;
  const auto all = make<C>();
  ownsChildren<W>(all, "resourcesForHostname", &C::resourcesForHostname, &C::resourcesForHostnameIs,
                  &C::resourcesForHostnameDel, &C::resourcesForHostnameDelAll, "host-1", "host-2");
  ownsChildren<W>(all, "resourcesForSwitchport", &C::resourcesForSwitchport,
                  &C::resourcesForSwitchportIs, &C::resourcesForSwitchportDel,
                  &C::resourcesForSwitchportDelAll, SwitchInterface("sw", "Ethernet1"),
                  SwitchInterface("", ""));
}

TEST_F(VirtualNetworkModelTest, WhatAHostNeedsIsObservable) {
  using R = VirtualNetwork::ResourcesForHostname;
  using W = ResourcesForHostnameWatcher;
  const auto host = make<R>("host-1");
  EXPECT_EQ(host->host(), "host-1");
  EXPECT_EQ(host->fwkKey(), "host-1");
  ownsChildren<W>(host, "vlan", &R::vlan, &R::vlanIs, &R::vlanDel, &R::vlanDelAll, kVlan, kOther);
  ownsChildren<W>(host, "domain", &R::domain, &R::domainIs, &R::domainDel, &R::domainDelAll,
                  "RegionOne", "RegionTwo");
  EXPECT_EQ(host->domains(), 0U);
  host->domainIs("RegionOne");
  EXPECT_EQ(host->domains(), 1U);
}

TEST_F(VirtualNetworkModelTest, WhatASwitchPortNeedsIsObservable) {
  using R = VirtualNetwork::ResourcesForSwitchport;
  using W = ResourcesForSwitchportWatcher;
  const auto port = make<R>(SwitchInterface("sw", "Ethernet1"));
  EXPECT_EQ(port->switchInterface(), SwitchInterface("sw", "Ethernet1"));
  EXPECT_EQ(port->fwkKey(), SwitchInterface("sw", "Ethernet1"));
  ownsChildren<W>(port, "vlan", &R::vlan, &R::vlanIs, &R::vlanDel, &R::vlanDelAll, kVlan, kOther);
  isScalar<W>(port, "nativeVlan", &R::nativeVlan, &R::nativeVlanIs, Kiv::U32{0}, kVlan);
  isValueSet<W>(port, "remoteHost", &R::remoteHost, &R::remoteHostIs, &R::remoteHostDel,
                &R::remoteHostDelAll, "host-1", "host-2");
  isValueSet<W>(port, "referrer", &R::referrer, &R::referrerIs, &R::referrerDel, &R::referrerDelAll,
                "bm-1", "bm-2");
}

TEST_F(VirtualNetworkModelTest, TheReferencesOfAVlanAreObservable) {
  using R = VirtualNetwork::VlanReferences;
  using W = VlanReferencesWatcher;
  const auto vlan = make<R>(kVlan);
  EXPECT_EQ(vlan->vlan(), kVlan);
  EXPECT_EQ(vlan->fwkKey(), kVlan);
  isValueSet<W>(vlan, "referrer", &R::referrer, &R::referrerIs, &R::referrerDel, &R::referrerDelAll,
                "port-1", "port-2");
  ownsChildren<W>(vlan, "mappedVni", &R::mappedVni, &R::mappedVniIs, &R::mappedVniDel,
                  &R::mappedVniDelAll, Kiv::U32{5000}, Kiv::U32{16777214});
}

TEST_F(VirtualNetworkModelTest, TheReferencesOfAVniAreObservable) {
  using R = VirtualNetwork::VniReferences;
  const auto vni = make<R>(Kiv::U32{5000});
  EXPECT_EQ(vni->vni(), 5000U);
  EXPECT_EQ(vni->fwkKey(), 5000U);
  isValueSet<VniReferencesWatcher>(vni, "referrer", &R::referrer, &R::referrerIs, &R::referrerDel,
                                   &R::referrerDelAll, "port-1", "port-2");
}

TEST_F(VirtualNetworkModelTest, TheReferencesOfADomainAreObservable) {
  using R = VirtualNetwork::DomainReferences;
  const auto domain = make<R>("RegionOne");
  EXPECT_EQ(domain->name(), "RegionOne");
  EXPECT_EQ(domain->fwkKey(), "RegionOne");
  isValueSet<DomainReferencesWatcher>(domain, "referrer", &R::referrer, &R::referrerIs,
                                      &R::referrerDel, &R::referrerDelAll, "port-1", "port-2");
}

TEST_F(VirtualNetworkModelTest, TheNetworkElementsAreObservable) {
  using C = VirtualNetwork::NetworkElementCollection;
  const auto all = make<C>();
  ownsChildren<NetworkElementsWatcher>(all, "networkElement", &C::networkElement,
                                       &C::networkElementIs, &C::networkElementDel,
                                       &C::networkElementDelAll, "sw", "host-1");
}

TEST_F(VirtualNetworkModelTest, ANetworkElementIsObservable) {
  using E = VirtualNetwork::NetworkElement;
  using W = NetworkElementWatcher;
  const auto element = make<E>("sw");
  EXPECT_EQ(element->name(), "sw");
  EXPECT_EQ(element->fwkKey(), "sw");
  isScalar<W>(element, "hostname", &E::hostname, &E::hostnameIs, String(), String("host-1"));
  ownsChildren<W>(element, "vlan", &E::vlan, &E::vlanIs, &E::vlanDel, &E::vlanDelAll, kVlan,
                  kOther);
  ownsChildren<W>(element, "domain", &E::domain, &E::domainIs, &E::domainDel, &E::domainDelAll,
                  "RegionOne", "RegionTwo");
  ownsChildren<W>(element, "physicalInterface", &E::physicalInterface, &E::physicalInterfaceIs,
                  &E::physicalInterfaceDel, &E::physicalInterfaceDelAll, "Ethernet1", "Ethernet2");
  isValueSet<W>(element, "referrer", &E::referrer, &E::referrerIs, &E::referrerDel,
                &E::referrerDelAll, "bm-1", "bm-2");
}

TEST_F(VirtualNetworkModelTest, APhysicalInterfaceIsAnInterface) {
  using I = VirtualNetwork::PhysicalInterface;
  using W = PhysicalInterfaceWatcher;
  const auto interface = make<I>("Ethernet1");
  EXPECT_EQ(interface->name(), "Ethernet1");
  EXPECT_EQ(interface->fwkKey(), "Ethernet1");
  ownsChildren<W>(interface, "vlan", &I::vlan, &I::vlanIs, &I::vlanDel, &I::vlanDelAll, kVlan,
                  kOther);
  isScalar<W>(interface, "nativeVlan", &I::nativeVlan, &I::nativeVlanIs, Kiv::U32{0}, kVlan);
}

TEST_F(VirtualNetworkModelTest, AnInterfaceRefersToTheElementsBehindItByTheirNames) {
  using W = PhysicalInterfaceWatcher;
  const auto interface = make<VirtualNetwork::PhysicalInterface>("Ethernet1");
  const auto host = make<VirtualNetwork::NetworkElement>("host-1");
  const auto same = make<VirtualNetwork::NetworkElement>("host-1");
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementIs(host); }),
              three("configuredElement", "host-1"));
  EXPECT_EQ(interface->configuredElement()["host-1"].get(), host.get());
  EXPECT_EQ(interface->configuredElement().size(), 1U);
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementIs(host); }), IsEmpty());
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementIs(same); }),
              three("configuredElement", "host-1"));
  EXPECT_EQ(interface->configuredElement()["host-1"].get(), same.get());
  EXPECT_EQ(host->references(), 1U);
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementDel("host-1"); }),
              three("configuredElement", "host-1"));
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementDel("host-1"); }), IsEmpty());
  interface->configuredElementIs(host);
  EXPECT_THAT(toldOf<W>(interface, [&] { interface->configuredElementDelAll(); }),
              three("configuredElement", "host-1"));
  EXPECT_TRUE(interface->configuredElement().empty());
}

TEST_F(VirtualNetworkModelTest, ANullElementThrowsAndIsNotReferredTo) {
  const auto interface = make<VirtualNetwork::PhysicalInterface>("Ethernet1");
  try {
    interface->configuredElementIs(nullptr);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _configuredElement parameter to mutator for "
                 "VirtualNetwork::PhysicalInterface::configuredElement not allowed\"");
  }
  EXPECT_TRUE(interface->configuredElement().empty());
}

TEST_F(VirtualNetworkModelTest, AnElementAndItsInterfacesMayReferToEachOther) {
  const auto all = make<VirtualNetwork::NetworkElementCollection>();
  const auto host = all->networkElementIs("host-1");
  all->networkElementIs("sw")->physicalInterfaceIs("Ethernet1")->configuredElementIs(host);
  EXPECT_EQ(host->references(), 3U);
  all->networkElementDel("sw");
  EXPECT_EQ(host->references(), 2U);
}

TEST_F(VirtualNetworkModelTest, EntitiesReportTheirTypes) {
  EXPECT_EQ(make<VirtualNetwork::RequestedResourcesCollection>()->fwkType().name(),
            "VirtualNetwork::RequestedResourcesCollection");
  EXPECT_EQ(make<VirtualNetwork::NetworkElementCollection>()->fwkType().name(),
            "VirtualNetwork::NetworkElementCollection");
  EXPECT_EQ(make<VirtualNetwork::NetworkElement>("a")->fwkType().name(),
            "VirtualNetwork::NetworkElement");
  EXPECT_EQ(make<VirtualNetwork::ResourcesForHostname>("a")->fwkType().name(),
            "VirtualNetwork::ResourcesForHostname");
  EXPECT_EQ(make<VirtualNetwork::PhysicalInterface>("a")->fwkType().name(),
            "VirtualNetwork::PhysicalInterface");
}

// Switch interfaces

TEST(SwitchInterfaceTest, IsAPairOfTexts) {
  const SwitchInterface si("sw-1", "Ethernet1/2");
  EXPECT_EQ(si.switchIdentifier(), "sw-1");
  EXPECT_EQ(si.interfaceName(), "Ethernet1/2");
  EXPECT_EQ(si.name(), "sw-1:Ethernet1/2");
  EXPECT_EQ(text(si), "sw-1:Ethernet1/2");
}

TEST(SwitchInterfaceTest, WhatReflectionPrintsItParses) {
  using Traits = Kiv::ValueTraits<SwitchInterface>;
  EXPECT_EQ(Traits::text({"sw", "e1"}), "sw:e1");
  EXPECT_EQ(Traits::text({"00:11:22", "e1"}), "00:11:22:e1");
  for (const char* sw : {"", "sw", "a:b", ":", "a\\", "\\:", "a\\:b:"}) {
    for (const char* interface : {"", "e1", "e:1", ":", "\\", "\\:", "e\\:1:", ":e"}) {
      const SwitchInterface si(sw, interface);
      EXPECT_EQ(Traits::parse(Traits::text(si)), si) << Traits::text(si);
    }
  }
  EXPECT_EQ(Traits::parse("sw"), std::nullopt);
  EXPECT_EQ(Traits::parse("sw\\:e1"), std::nullopt);
  EXPECT_EQ(Traits::parse("sw:e1\\"), std::nullopt);
}

TEST(SwitchInterfaceTest, EqualPairsAreEqualAndHashAlike) {
  const SwitchInterface si("sw", "e");
  EXPECT_EQ(si, SwitchInterface("sw", "e"));
  EXPECT_EQ(si.hash(), SwitchInterface("sw", "e").hash());
  EXPECT_FALSE(si == SwitchInterface("sw", "f"));
  EXPECT_FALSE(si == SwitchInterface("sx", "e"));
  EXPECT_FALSE(si == SwitchInterface("e", "sw"));
  EXPECT_NE(si.hash(), SwitchInterface("e", "sw").hash());
  EXPECT_NE(si.hash(), SwitchInterface("sw", "f").hash());
  EXPECT_NE(si.hash(), SwitchInterface("sx", "e").hash());
}

TEST(SwitchInterfaceTest, EmptyPartsAreValuesLikeOthers) {
  const SwitchInterface none;
  EXPECT_EQ(none, SwitchInterface("", ""));
  EXPECT_EQ(none.name(), ":");
  EXPECT_EQ(text(none), ":");
  EXPECT_EQ(SwitchInterface("sw", "").name(), "sw:");
  EXPECT_EQ(SwitchInterface("", "e").name(), ":e");
  EXPECT_FALSE(SwitchInterface("sw", "") == SwitchInterface("", "sw"));
}

TEST(SwitchInterfaceTest, PairsOfOneTextAreNotTheSame) {
  EXPECT_FALSE(SwitchInterface("a", "b:c") == SwitchInterface("a:b", "c"));
}

TEST(SwitchInterfaceTest, OrdersBySwitchAndThenByInterface) {
  const std::vector<SwitchInterface> sorted{{"", ""},   {"", "z"}, {"a", ""}, {"a", "b"},
                                            {"a", "c"}, {"b", ""}, {"b", "a"}};
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) {
      EXPECT_EQ(sorted[i] < sorted[j], i < j) << sorted[i] << " and " << sorted[j];
    }
  }
}

}  // namespace
