"""VLANs that agents have assigned."""
import unittest
from unittest import mock

from neutron.db.models.plugins.ml2 import vlanallocation
from neutron.objects import network_segment_range as range_objects
from neutron_lib import exceptions
from neutron_lib.db import api as db_api
from neutron_lib.plugins.ml2 import api
from oslo_db import exception as db_exc

from networking_vnagent import agents
from networking_vnagent import type_driver

from . import base


class RangesTest(unittest.TestCase):
    def test_texts_and_sets_are_the_same_vlans(self):
        for text, vlans in (("", set()), ("7", {7}), ("1-3,9", {1, 2, 3, 9})):
            self.assertEqual(text, type_driver.text_of(vlans))
            self.assertEqual(vlans, type_driver.vlans_of(text))

    def test_a_status_that_says_nothing_is_no_empty_assignment(self):
        self.assertIsNone(type_driver.assigned_in({}))
        self.assertIsNone(type_driver.assigned_in({"vlanPool": {"assignedVlan": None}}))
        self.assertEqual({5}, type_driver.assigned_in({"vlanPool": {"assignedVlan": [5, 9999]}}))


class AssignmentTest(base.PluginTestCase):
    type_drivers = ["vxlan", "vnagent_vlan"]

    def setUp(self):
        super().setUp()
        self.vlans = self.driver.type_manager.drivers["vlan"].obj

    def assign(self, *vlans):
        """The agent assigns, and the driver learns of it from its status."""
        client = self.agent.client()
        client.create_region()
        status = client.status()
        known = set(status["vlanPool"]["assignedVlan"])
        patch = {str(vlan): True for vlan in vlans} | {str(v): None for v in known - set(vlans)}
        client.request("PATCH", "/v1/cloud/config", {
            "vlanAssignment": {base.REGION: {"vlan": patch}}})
        type_driver.learn_assignment(self.mechanism._agents[0], client.status())
        client.close()

    def table(self):
        with db_api.CONTEXT_READER.using(self.context):
            rows = self.context.session.query(vlanallocation.VlanAllocation).filter_by(
                physical_network="physnet1").all()
            return {row.vlan_id: row.allocated for row in rows}

    def allocate(self, **attributes):
        segment = {api.NETWORK_TYPE: "vlan", api.PHYSICAL_NETWORK: "physnet1"} | attributes
        return self.vlans.reserve_provider_segment(self.context, segment)[api.SEGMENTATION_ID]

    def release(self, vlan):
        self.vlans.release_segment(self.context, {
            api.PHYSICAL_NETWORK: "physnet1", api.SEGMENTATION_ID: vlan})

    def test_nothing_can_be_allocated_before_the_agent_has_assigned(self):
        self.assertRaises(exceptions.NoNetworkAvailable, self.allocate)

    def test_what_is_assigned_can_be_allocated_and_nothing_else(self):
        self.assign(700, 701)
        self.assertEqual({700, 701}, {self.allocate(), self.allocate()})
        self.assertRaises(exceptions.NoNetworkAvailable, self.allocate)
        self.assertRaises(exceptions.VlanIdInUse, self.allocate, **{api.SEGMENTATION_ID: 702})
        self.assertRaises(exceptions.InvalidInput, self.vlans.validate_provider_segment, {
            api.NETWORK_TYPE: "vlan", api.PHYSICAL_NETWORK: "physnet1",
            api.SEGMENTATION_ID: 702})

    def test_an_assignment_that_grows_and_shrinks_is_followed(self):
        self.assign(700)
        self.assign(700, 701, 702)
        self.assertEqual({700: False, 701: False, 702: False}, self.table())
        self.assign(702)
        self.assertEqual({702: False}, self.table())

    def test_what_is_in_use_stays_with_a_warning_and_is_not_handed_out_again(self):
        self.assign(700)
        self.assertEqual(700, self.allocate())
        with self.assertLogs("networking_vnagent.type_driver", "WARNING") as logged:
            self.assign(701)
        self.assertIn("VLANs 700 in physnet1 are in use", logged.output[0])
        self.assertEqual({700: True, 701: False}, self.table())
        self.release(700)
        self.assertEqual({701: False}, self.table())

    def test_a_vlan_that_another_process_left_in_the_table_is_not_handed_out(self):
        self.assign(700)
        with db_api.CONTEXT_WRITER.using(self.context):
            self.context.session.add(vlanallocation.VlanAllocation(
                physical_network="physnet1", vlan_id=800, allocated=False))
        self.assertEqual(700, self.allocate())
        self.assertRaises(exceptions.NoNetworkAvailable, self.allocate)

    def test_an_assignment_that_could_not_be_written_is_written_at_the_next_look(self):
        self.assign(700)
        with mock.patch.object(self.vlans, "_compare", side_effect=db_exc.DBDeadlock()):
            self.assertRaises(db_exc.DBDeadlock, self.assign, 701)
        self.assign(701)
        self.assertEqual({701: False}, self.table())

    def test_an_agent_that_has_not_said_anything_is_named(self):
        self.assertEqual(["one"], type_driver.silent_agents("physnet1"))
        self.assertEqual([], type_driver.silent_agents("physnet2"))
        self.assign()
        self.assertEqual([], type_driver.silent_agents("physnet1"))

    def test_other_physical_networks_have_their_ranges(self):
        self.assertEqual([(200, 300)], self.vlans.get_network_segment_ranges()["physnet2"])

    def test_a_server_that_starts_while_the_agent_is_away_knows_the_assignment(self):
        agents.report("one", {"assigned_vlans": "700-701"})
        self.vlans._assigned.clear()
        self.vlans.initialize()
        self.assertEqual({700: False, 701: False}, self.table())


class RangesOfProjectsTest(AssignmentTest):
    """With Neutron's ranges, which choose among the VLANs that are assigned."""

    def get_additional_service_plugins(self):
        return {"network_segment_range": "network_segment_range"}

    def range(self, first, last, **more):
        with db_api.CONTEXT_WRITER.using(self.context):
            range_objects.NetworkSegmentRange(
                self.context, name="", network_type="vlan", physical_network="physnet1",
                default=False, minimum=first, maximum=last, **more).create()

    def test_a_range_of_a_project_counts_where_it_is_assigned(self):
        self.assign(700, 701, 702)
        self.range(701, 800, shared=False, project_id="project")
        own = {self.vlans.allocate_tenant_segment(
            self.context, filters={"project_id": "project"})[api.SEGMENTATION_ID] for _ in "12"}
        self.assertEqual({701, 702}, own)
        # The default range has the rest, for everybody.
        self.assertEqual(700, self.allocate())
        self.assertRaises(exceptions.NoNetworkAvailable, self.allocate)
