"""The driver in Neutron's own plugin, and a real agent behind it."""
from unittest import mock

from neutron.db import provisioning_blocks
from neutron.objects import network as network_objects
from neutron.plugins.ml2 import db as ml2_db
from neutron.services.trunk import plugin as trunk_plugin
from neutron.tests.common import helpers
from neutron_lib import constants
from neutron_lib.api.definitions import portbindings
from neutron_lib.callbacks import resources
from neutron_lib.plugins import directory
from oslo_db import exception as db_exc
from sqlalchemy import exc as sql_exc

from networking_vnagent import backlog
from networking_vnagent import client as agent_client
from networking_vnagent import handover
from networking_vnagent import provisioning
from networking_vnagent import segments
from networking_vnagent import sync

from . import base

BAREMETAL = {portbindings.VNIC_TYPE: portbindings.VNIC_BAREMETAL, portbindings.PROFILE: {
    "local_link_information": [{"switch_info": "leaf-1", "port_id": "Ethernet1"}]}}
BOND = {portbindings.VNIC_TYPE: portbindings.VNIC_BAREMETAL, portbindings.PROFILE: {
    "local_link_information": [{"switch_info": "leaf-1", "port_id": "Ethernet1"},
                               {"switch_info": "leaf-2", "port_id": "Ethernet1"}]}}


class DriverTestCase(base.PluginTestCase):
    def setUp(self):
        super().setUp()
        for host, rack in (("h1", "physnet1"), ("h2", "physnet1"), ("h3", "physnet2")):
            self.l2_agent(host, rack)
        self.net = self._make_network(self.fmt, "net", True)["network"]["id"]

    def l2_agent(self, host, rack):
        helpers.register_ovs_agent(host=host, bridge_mappings={rack: "br"}, tunnel_types=[])

    def port(self, host="h1", net=None, **attributes):
        body = {"network_id": net or self.net, "tenant_id": "t", "name": "", "mac_address":
                constants.ATTR_NOT_SPECIFIED, "admin_state_up": True, "fixed_ips": [],
                "device_id": "vm", "device_owner": "compute:nova",
                portbindings.HOST_ID: host, portbindings.PROFILE: {},
                portbindings.VNIC_TYPE: portbindings.VNIC_NORMAL} | attributes
        return self.driver.create_port(self.context, {"port": body})

    def update(self, port, **attributes):
        return self.driver.update_port(self.context, port["id"], {"port": attributes})

    def levels(self, port, host):
        found = []
        for level in ml2_db.get_binding_level_objs(self.context, port["id"], host):
            segment = self.segments()[level.segment_id]
            found.append((level.driver, segment.network_type, segment.physical_network))
        return found

    def segments(self, net=None):
        return {s.id: s for s in network_objects.NetworkSegment.get_objects(
            self.context, network_id=net or self.net)}

    def status(self, port):
        return self.driver.get_port(self.context, port["id"])["status"]

    def resources(self):
        client = self.agent.client()
        try:
            return client.request("GET", "/v1/output").body["requestedResources"]
        finally:
            client.close()

    def agrees(self):
        """The agent's region is what the database says."""
        found = sync.FullSync(self.mechanism._agents[0], self.publisher._client).look()
        self.assertEqual({}, found.differing)


class BindingTest(DriverTestCase):
    def test_a_host_gets_a_vlan_of_its_rack_below_the_vxlan(self):
        port = self.port()
        self.assertEqual([("vnagent", "vxlan", None), ("openvswitch", "vlan", "physnet1")],
                         self.levels(port, "h1"))

    def test_hosts_of_one_rack_share_the_networks_vlan(self):
        self.port()
        self.port("h2")
        self.assertEqual(1, sum(s.is_dynamic for s in self.segments().values()))

    def test_a_rack_that_no_agent_serves_is_left_to_other_drivers(self):
        self.assertEqual("binding_failed", self.port("h3")[portbindings.VIF_TYPE])
        self.assertEqual(1, len(self.segments()))

    def test_baremetal_is_bound_to_the_rack_of_its_switch(self):
        port = self.port("bm1", **BAREMETAL)
        self.assertEqual("other", port[portbindings.VIF_TYPE])
        self.assertEqual([("vnagent", "vxlan", None), ("vnagent", "vlan", "physnet1")],
                         self.levels(port, "bm1"))
        self.publish()
        found = self.resources()["resourcesForSwitchport"]["leaf-1"]["Ethernet1"]
        self.assertEqual(["bm1"], found["remoteHost"])
        self.assertNotEqual(0, found["nativeVlan"])

    def test_a_bond_is_on_both_switches(self):
        self.port("bm1", **BOND)
        self.publish()
        self.assertEqual({"leaf-1", "leaf-2"}, set(self.resources()["resourcesForSwitchport"]))

    def test_baremetal_without_a_known_switch_is_not_bound(self):
        port = self.port("bm1", **{
            portbindings.VNIC_TYPE: portbindings.VNIC_BAREMETAL, portbindings.PROFILE: {
                "local_link_information": [{"switch_info": "spine-1", "port_id": "e1"}]}})
        self.assertEqual("binding_failed", port[portbindings.VIF_TYPE])

    def test_a_vlan_only_network_is_bound_without_a_dynamic_segment(self):
        net = self._make_network(self.fmt, "vlan", True, as_admin=True, arg_list=(
            "provider:network_type", "provider:physical_network", "provider:segmentation_id"),
            **{"provider:network_type": "vlan", "provider:physical_network": "physnet1",
               "provider:segmentation_id": 77})["network"]["id"]
        port = self.port(net=net)
        self.assertEqual("ovs", port[portbindings.VIF_TYPE])
        machine = self.port("bm1", net=net, **BAREMETAL)
        self.assertEqual("other", machine[portbindings.VIF_TYPE])
        self.assertEqual(1, len(self.segments(net)))
        self.publish()
        self.assertEqual(["77"], list(self.resources()["resourcesForHostname"]["h1"]["vlan"]))

    def test_no_free_vlan_is_a_failed_binding_and_nothing_else(self):
        with mock.patch.object(segments.Segments, "allocate", return_value=None):
            self.assertEqual("binding_failed", self.port()[portbindings.VIF_TYPE])

    def test_hosts_are_told_the_vlan_of_their_rack(self):
        """The first bind makes it, the others find it; other processes have not seen it before."""
        for is_known in (False, True, True):
            if not is_known:
                self.mechanism._binder._dynamic.clear()
            port = self.port(host="")
            with mock.patch.object(self.driver.notifier, "port_update") as told:
                self.update(port, **{portbindings.HOST_ID: "h1"})
            rack, = (s for s in self.segments().values() if s.is_dynamic)
            self.assertEqual(("vlan", rack.segmentation_id, "physnet1"), told.call_args.args[2:])

    def test_a_failed_binding_offers_nobody_the_vlan_of_the_rack_alone(self):
        offered = []

        def bind_port(context):
            offered.append([s["network_type"] for s in context.segments_to_bind])
        wiring = self.driver.mechanism_manager.mech_drivers["openvswitch"].obj
        with mock.patch.object(wiring, "bind_port", bind_port):
            self.assertEqual("binding_failed", self.port()[portbindings.VIF_TYPE])
        self.assertEqual([["vlan"], ["vxlan"]], offered[:2])
        self.assertEqual(20, len(offered))

    def test_a_transient_error_of_the_database_is_no_failed_binding(self):
        """Neither a deadlock nor a lock of SQLite, wherever it meets the driver."""
        for error in (db_exc.DBDeadlock(),
                      sql_exc.OperationalError("", {}, Exception("database is locked"))):
            for name in ("present", "_raise_revision"):
                met = []

                def at_first(*arguments, real=getattr(segments, name), error=error, met=met):
                    if not met:
                        met.append(True)
                        raise error
                    return real(*arguments)
                net = self._make_network(self.fmt, "net", True)["network"]["id"]
                with mock.patch.object(segments, name, at_first):
                    port = self.port(net=net)
                self.assertEqual(("ovs", [True]), (port[portbindings.VIF_TYPE], met))


class PublishingTest(DriverTestCase):
    def test_what_is_bound_and_deleted_is_on_the_agent_and_gone(self):
        port = self.port()
        self.publish()
        host = self.resources()["resourcesForHostname"]["h1"]
        self.assertEqual({"RegionOne": [port["id"]]}, host["domain"])
        self.agrees()
        self.driver.delete_port(self.context, port["id"])
        self.publish()
        self.assertEqual({}, self.resources()["resourcesForHostname"]["h1"]["vlan"])
        self.agrees()

    def test_an_update_that_changes_nothing_for_the_agent_sends_nothing(self):
        port = self.port()
        self.publish()
        before = self.agent.revision()
        self.update(port, name="other")
        self.receive()
        self.assertEqual(0, len(self.publisher.backlog))
        self.server.changed(handover.Change(backlog.Work(ports={port["id"]})))
        self.publish()
        self.assertEqual(before, self.agent.revision())

    def test_a_move_to_another_host_takes_the_first_one_away(self):
        port = self.port()
        self.publish()
        self.update(port, **{portbindings.HOST_ID: "h2"})
        self.publish()
        self.agrees()
        self.assertEqual({}, self.resources()["resourcesForHostname"]["h1"]["vlan"])

    def test_both_hosts_have_the_vlan_while_a_migration_is_under_way(self):
        port = self.port()
        self.publish()
        self.driver.create_port_binding(self.context, port["id"], {"binding": {
            "host": "h2", "vnic_type": "normal", "profile": {}}})
        self.publish()
        found = self.resources()["resourcesForHostname"]
        self.assertEqual(found["h1"]["vlan"].keys(), found["h2"]["vlan"].keys())
        self.agrees()
        self.driver.activate(self.context, "h2", port["id"])
        self.publish()
        self.assertEqual({}, self.resources()["resourcesForHostname"]["h1"]["vlan"])
        self.driver.delete_port_binding(self.context, "h1", port["id"])
        self.publish()
        self.agrees()

    def test_an_aborted_migration_leaves_the_target(self):
        port = self.port()
        self.driver.create_port_binding(self.context, port["id"], {"binding": {
            "host": "h2", "vnic_type": "normal", "profile": {}}})
        self.publish()
        self.driver.delete_port_binding(self.context, "h2", port["id"])
        self.publish()
        self.assertEqual({}, self.resources()["resourcesForHostname"]["h2"]["vlan"])
        self.agrees()

    def test_a_port_that_goes_in_the_middle_of_a_migration_leaves_both_hosts(self):
        port = self.port()
        self.driver.create_port_binding(self.context, port["id"], {"binding": {
            "host": "h2", "vnic_type": "normal", "profile": {}}})
        self.publish()
        self.driver.delete_port(self.context, port["id"])
        self.publish()
        found = self.resources()["resourcesForHostname"]
        self.assertEqual([{}, {}], [found[host]["vlan"] for host in ("h1", "h2")])
        self.agrees()

    def test_a_renumbered_network_has_its_new_vlan(self):
        net = self._make_network(self.fmt, "vlan", True, as_admin=True, arg_list=(
            "provider:network_type", "provider:physical_network", "provider:segmentation_id"),
            **{"provider:network_type": "vlan", "provider:physical_network": "physnet1",
               "provider:segmentation_id": 77})["network"]["id"]
        self.port(net=net)
        self.port("bm1", net=net, **BAREMETAL)
        self.publish()
        self.driver.update_network(self.context, net, {"network": {
            "provider:segmentation_id": 78}})
        self.publish()
        found = self.resources()
        self.assertEqual(["78"], list(found["resourcesForHostname"]["h1"]["vlan"]))
        self.assertEqual(78, found["resourcesForSwitchport"]["leaf-1"]["Ethernet1"]["nativeVlan"])

    def test_a_distributed_port_is_on_each_of_its_hosts(self):
        port = self.port("", device_owner=constants.DEVICE_OWNER_DVR_INTERFACE, device_id="r")
        for host in ("h1", "h2"):
            self.driver.update_distributed_port_binding(self.context, port["id"], {"port": {
                portbindings.HOST_ID: host, "device_id": "r"}})
        self.publish()
        found = self.resources()["resourcesForHostname"]
        self.assertEqual({"h1", "h2"}, {host for host in found if found[host]["vlan"]})
        self.driver.delete_port(self.context, port["id"])
        self.publish()
        self.agrees()

    def test_a_deleted_network_is_gone_with_its_segments(self):
        port = self.port()
        self.publish()
        self.driver.delete_port(self.context, port["id"])
        self.publish()
        self.driver.delete_network(self.context, self.net)
        self.publish()
        self.assertEqual({}, self.agent.region())


class NativeVlanTest(DriverTestCase):
    """Two native ports on one link at once, as while a node is handed over."""

    def setUp(self):
        super().setUp()
        other = self._make_network(self.fmt, "other", True)["network"]["id"]
        self.ports = [self.port("bm1", net=net, **BAREMETAL) for net in (self.net, other)]
        self.publish()

    def left(self):
        """The native VLAN, and the VLANs, of the link."""
        found = self.resources()["resourcesForSwitchport"]["leaf-1"]["Ethernet1"]
        return str(found["nativeVlan"]), list(found["vlan"])

    def stays_native(self, gone):
        self.driver.delete_port(self.context, self.ports[gone]["id"])
        self.publish()
        native, vlans = self.left()
        self.assertEqual([native], vlans)
        self.agrees()

    def test_the_second_stays_native_when_the_first_goes(self):
        self.stays_native(0)

    def test_the_first_stays_native_when_the_second_goes(self):
        self.stays_native(1)

    def test_the_one_that_stays_is_native_after_a_full_sync(self):
        self.publisher._want_sync("the test says so")
        self.stays_native(0)

    def test_who_was_interrupted_in_between_goes_on(self):
        self.driver.delete_port(self.context, self.ports[0]["id"])
        self.receive()
        send, sent = self.publisher._patcher.send, []

        def once(*arguments, **named):
            if sent:
                raise agent_client.TryLater("not now")
            sent.append(send(*arguments, **named))
            return sent[0]
        with mock.patch.object(self.publisher._patcher, "send", once):
            self.assertRaises(agent_client.TryLater, self.publisher._turn)
        self.assertEqual("0", self.left()[0])
        self.publish()
        native, vlans = self.left()
        self.assertEqual([native], vlans)
        self.agrees()


class WholeRegionTest(DriverTestCase):
    physical_networks = ""

    def test_an_agent_of_everything_has_what_is_bound_nowhere_too(self):
        port = self.port("", device_owner="network:dhcp", device_id="dhcp")
        self.publish()
        region = self.agent.region()
        self.assertEqual({port["id"]: {}}, region["port"])
        self.assertEqual({"dhcp": {}}, region["dhcpInstance"])
        self.assertIn(self.net, region["network"])
        self.agrees()
        self.update(port, device_id="other", **{portbindings.HOST_ID: "h1"})
        self.publish()
        self.assertEqual({"other": {}}, self.agent.region()["dhcpInstance"])
        self.agrees()
        self.driver.delete_port(self.context, port["id"])
        self.driver.delete_network(self.context, self.net)
        self.publish()
        self.assertEqual({}, self.agent.region())


class ProvisioningTest(DriverTestCase):
    def is_blocked(self, port):
        return provisioning_blocks.is_object_blocked(self.context, port["id"], resources.PORT)

    def test_a_port_is_active_when_the_agent_has_it_and_not_before(self):
        port = self.port("bm1", **BAREMETAL)
        self.assertEqual("DOWN", self.status(port))
        self.assertTrue(self.is_blocked(port))
        self.publish()
        self.assertEqual("ACTIVE", self.status(port))
        self.assertFalse(self.is_blocked(port))

    def test_the_wiring_of_the_host_does_not_suffice(self):
        port = self.port()
        self.assertTrue(self.is_blocked(port))
        provisioning_blocks.provisioning_complete(
            self.context, port["id"], resources.PORT, provisioning_blocks.L2_AGENT_ENTITY)
        self.assertEqual("DOWN", self.status(port))
        self.publish()
        self.assertEqual("ACTIVE", self.status(port))

    def test_a_port_goes_on_without_an_agent_that_is_late(self):
        port = self.port("bm1", **BAREMETAL)
        self.receive()
        self.server.acknowledgements.timeout = 0
        taken = self.server.acknowledgements.take(0)
        self.assertEqual({port["id"]: {"one"}}, taken)
        with self.assertLogs("networking_vnagent.provisioning", "WARNING") as logged:
            provisioning.finish(taken, 0)
        self.assertIn("agent(s) one", logged.output[0])
        self.assertEqual("ACTIVE", self.status(port))

    def test_a_port_that_is_unbound_again_does_not_become_active(self):
        port = self.port("bm1", **BAREMETAL)
        self.update(port, **{portbindings.HOST_ID: ""})
        self.publish()
        self.assertEqual("DOWN", self.status(port))
        self.assertFalse(self.is_blocked(port))

    def test_the_block_of_a_process_that_is_gone_is_taken_over(self):
        port = self.port("bm1", **BAREMETAL)
        self.receive()
        self.server.acknowledgements._waiting.clear()
        self.publisher.backlog.take(1000)
        since = self.server._adopt_blocks({})
        self.assertEqual({port["id"]}, set(since))
        self.server._adopt_blocks({port["id"]: -1000})
        self.publish()
        self.assertEqual("ACTIVE", self.status(port))


class NoWaitingTest(DriverTestCase):
    provisioning_timeout = 0

    def test_ports_do_not_wait_when_the_option_says_so(self):
        self.assertEqual("ACTIVE", self.status(self.port("bm1", **BAREMETAL)))


class SegmentsTest(DriverTestCase):
    def setUp(self):
        super().setUp()
        self.held = self.mechanism._segments
        self.held._linger = 0

    def dynamic(self):
        return [s.segmentation_id for s in self.segments().values() if s.is_dynamic]

    def test_a_vlan_without_a_user_is_given_back_at_the_second_look(self):
        port = self.port()
        self.driver.delete_port(self.context, port["id"])
        self.assertEqual(0, self.held.give_back_unused())
        self.assertEqual(1, self.held.give_back_unused())
        self.assertEqual([], self.dynamic())

    def test_a_network_without_a_vlan_any_more_is_gone_with_all_its_segments(self):
        port = self.port()
        self.publish()
        self.driver.delete_port(self.context, port["id"])
        self.publish()
        self.assertEqual(2, len(self.agent.region()["segment"]))
        self.held.give_back_unused()
        self.held.give_back_unused()
        self.publish()
        self.agrees()
        self.assertEqual({}, self.agent.region())

    def test_a_vlan_in_use_stays(self):
        self.port()
        self.held.give_back_unused()
        self.assertEqual(0, self.held.give_back_unused())

    def test_a_binding_that_begins_between_two_looks_keeps_the_vlan(self):
        port = self.port()
        self.driver.delete_port(self.context, port["id"])
        self.held.give_back_unused()
        segment = next(s for s in self.segments().values() if s.is_dynamic)
        other = segments.Segments(60)
        self.assertTrue(other._hold(self.context, segment.id))
        self.assertEqual(0, self.held.give_back_unused())
        self.assertEqual(1, len(self.dynamic()))

    def test_a_vlan_that_is_gone_cannot_be_held(self):
        self.assertFalse(self.held._hold(self.context, "gone"))

    def test_the_source_of_a_migration_gives_its_vlan_back(self):
        self.l2_agent("h4", "physnet1")
        port = self.port()
        self.driver.create_port_binding(self.context, port["id"], {"binding": {
            "host": "h2", "vnic_type": "normal", "profile": {}}})
        self.driver.delete_port_binding(self.context, "h2", port["id"])
        self.held.give_back_unused()
        self.assertEqual(0, self.held.give_back_unused())


class TrunkTest(DriverTestCase):
    def get_additional_service_plugins(self):
        return {"trunk": "neutron.services.trunk.plugin.TrunkPlugin"}

    def setUp(self):
        with mock.patch.object(trunk_plugin.TrunkPlugin, "check_compatibility"):
            super().setUp()
        self.trunks = directory.get_plugin("trunk")
        self.trunks.add_segmentation_type("vlan", lambda _: True)
        self.other = self._make_network(self.fmt, "other", True)["network"]["id"]

    def trunk(self, parent, *subports):
        return self.trunks.create_trunk(self.context, {"trunk": {
            "port_id": parent["id"], "tenant_id": "t", "project_id": "t", "sub_ports": [
                {"port_id": port["id"], "segmentation_type": "vlan", "segmentation_id": tag}
                for tag, port in enumerate(subports, 10)]}})

    def test_subports_follow_a_baremetal_parent(self):
        parent = self.port("", device_owner="", device_id="")
        subport = self.port("", net=self.other, device_owner="", device_id="")
        trunk = self.trunk(parent, subport)
        self.update(parent, **({portbindings.HOST_ID: "bm1"} | BAREMETAL))
        found = self.driver.get_port(self.context, subport["id"])
        self.assertEqual(("bm1", "other", "trunk:subport"), (
            found[portbindings.HOST_ID], found[portbindings.VIF_TYPE], found["device_owner"]))
        self.publish()
        interface = self.resources()["resourcesForSwitchport"]["leaf-1"]["Ethernet1"]
        self.assertEqual(2, len(interface["vlan"]))
        self.agrees()
        self.update(parent, **{portbindings.HOST_ID: ""})
        found = self.driver.get_port(self.context, subport["id"])
        self.assertEqual("", found[portbindings.HOST_ID])
        self.trunks.delete_trunk(self.context, trunk["id"])
        found = self.driver.get_port(self.context, subport["id"])
        self.assertEqual("", found["device_owner"])
        self.publish()
        self.agrees()

    def test_subports_are_added_to_and_taken_from_a_bound_parent(self):
        parent = self.port("bm1", **BAREMETAL)
        subport = self.port("", net=self.other, device_owner="", device_id="")
        trunk = self.trunk(parent)
        self.trunks.add_subports(self.context, trunk["id"], {"sub_ports": [
            {"port_id": subport["id"], "segmentation_type": "vlan", "segmentation_id": 10}]})
        self.assertEqual("other", self.driver.get_port(
            self.context, subport["id"])[portbindings.VIF_TYPE])
        self.trunks.remove_subports(self.context, trunk["id"], {"sub_ports": [
            {"port_id": subport["id"]}]})
        self.assertEqual("unbound", self.driver.get_port(
            self.context, subport["id"])[portbindings.VIF_TYPE])
