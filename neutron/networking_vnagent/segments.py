"""Dynamic VLAN segments: made for a binding, and given back when nobody uses them any more.

Neutron says nothing when the last user of a segment leaves in silence, as the source of a live
migration does. So each server process looks now and then, and gives back what had no user at two
looks, `linger` seconds apart. A binding that is just being made is no user yet: it raises the
segment's revision number first, which starts the wait anew, or finds that the segment is gone. The
row is locked while it is given back, so that one server at a time does.
"""
import collections.abc
import threading
import time
import typing

from neutron.db import segments_db
from neutron.db.models import segment as segment_models
from neutron.plugins.ml2 import models as ml2_models
from neutron_lib import constants
from neutron_lib import context as neutron_context
from neutron_lib.db import api as db_api
from neutron_lib.db import standard_attr
from neutron_lib.plugins import directory
from neutron_lib.plugins.ml2 import api
from oslo_log import log
import sqlalchemy as sa

from networking_vnagent import retries

LOG = log.getLogger(__name__)

# Attempts to get a segment that is not being given back at the same time.
ATTEMPTS = 10

Segment = dict[str, typing.Any]
Context = typing.Any  # a neutron_lib.context.Context

_segment = segment_models.NetworkSegment
_level = ml2_models.PortBindingLevel


class Segments:
    """The dynamic segments, as one server process uses them. Any thread may call."""

    def __init__(self, linger: float) -> None:
        self._linger = linger
        self._held: dict[str, float] = {}
        self._lock = threading.Lock()
        # Segments without a user at the last look: the revision number, and since when.
        self._unused: dict[str, tuple[int, float]] = {}

    def allocate(self, context: api.PortContext, physical_network: str,
                 found: Segment | None) -> Segment | None:
        """The network's VLAN in a rack: the one that was just found, or one that is made where
        there is none. It stays for `linger` seconds and for as long as a binding has it. Raises
        what Neutron raises when no VLAN is left."""
        wanted = {api.NETWORK_TYPE: constants.TYPE_VLAN, api.PHYSICAL_NETWORK: physical_network}
        for _ in range(ATTEMPTS):
            segment: Segment = found or context.allocate_dynamic_segment(wanted)
            if self._hold(context._plugin_context, segment[api.ID]):
                return segment
            found = None
        return None

    def _hold(self, context: Context, segment: str) -> bool:
        """Keeps a segment from being given back for a while; False when it is gone."""
        now = time.monotonic()
        with self._lock:
            if self._held.get(segment, 0) > now:
                return True
        if not _raise_revision(context, segment):
            return False
        with self._lock:
            self._held = {name: end for name, end in self._held.items() if end > now}
            self._held[segment] = now + self._linger / 2
        return True

    def give_back_unused(self) -> int:
        """One look; how many segments were given back."""
        unused = _without_user()
        now = time.monotonic()
        seen: dict[str, tuple[int, float]] = {}
        released = 0
        for segment, revision in unused.items():
            before = self._unused.get(segment)
            if before is None or before[0] != revision:
                seen[segment] = (revision, now)
            elif now - before[1] < self._linger:
                seen[segment] = before
            elif self._give_back(segment, revision):
                released += 1
        self._unused = seen
        return released

    def _give_back(self, segment: str, revision: int) -> bool:
        with self._lock:
            self._held.pop(segment, None)
        return bool(_release(segment, revision))


def present(context: Context, network: str,
            physical_networks: collections.abc.Collection[str]) -> dict[str, Segment]:
    """A network's dynamic VLANs in some racks, by physical network. Within the transaction of the
    context where there is one."""
    with db_api.CONTEXT_READER.using(context):
        rows = context.session.query(
            _segment.id, _segment.physical_network, _segment.segmentation_id).filter(
                _segment.network_id == network, _segment.network_type == constants.TYPE_VLAN,
                _segment.is_dynamic == sa.true(),
                _segment.physical_network.in_(physical_networks)).all()
    return {row.physical_network: {
        api.ID: row.id, api.NETWORK_TYPE: constants.TYPE_VLAN,
        api.PHYSICAL_NETWORK: row.physical_network, api.SEGMENTATION_ID: row.segmentation_id,
        api.NETWORK_ID: network} for row in rows}


@retries.retry_db_errors
def _raise_revision(context: Context, segment: str) -> bool:
    with db_api.CONTEXT_WRITER.using(context):
        ids = sa.select(_segment.standard_attr_id).where(_segment.id == segment).scalar_subquery()
        changed: int = context.session.query(standard_attr.StandardAttribute).filter(
            standard_attr.StandardAttribute.id == ids).update(
                {"revision_number": standard_attr.StandardAttribute.revision_number + 1},
                synchronize_session=False)
        return bool(changed == 1)


@retries.retry_db_errors
def _without_user() -> dict[str, int]:
    """The dynamic VLAN segments that no binding has, with their revision numbers."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        rows = context.session.query(
            _segment.id, standard_attr.StandardAttribute.revision_number).join(
                standard_attr.StandardAttribute,
                standard_attr.StandardAttribute.id == _segment.standard_attr_id).outerjoin(
                    _level, _level.segment_id == _segment.id).filter(
                        _segment.is_dynamic == sa.true(),
                        _segment.network_type == constants.TYPE_VLAN,
                        _level.port_id.is_(None)).all()
    return {row[0]: row[1] for row in rows}


@retries.retry_db_errors
def _release(segment: str, revision: int) -> bool:
    """Gives a segment back unless somebody has taken it since the revision number was read."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_WRITER.using(context):
        row = context.session.query(
            _segment.network_id, _segment.physical_network, _segment.segmentation_id,
            standard_attr.StandardAttribute.revision_number).join(
                standard_attr.StandardAttribute,
                standard_attr.StandardAttribute.id == _segment.standard_attr_id).filter(
                    _segment.id == segment).with_for_update().first()
        if row is None or row.revision_number != revision:
            return False
        user = context.session.query(_level.port_id).filter(_level.segment_id == segment)
        if user.with_for_update().first() is not None:
            return False
        plugin = directory.get_plugin()
        plugin.type_manager.release_network_segment(context, {
            api.ID: segment, api.NETWORK_TYPE: constants.TYPE_VLAN,
            api.PHYSICAL_NETWORK: row.physical_network,
            api.SEGMENTATION_ID: row.segmentation_id})
        segments_db.delete_network_segment(context, segment)
    LOG.info("VLAN %s in %s is given back: nobody uses it for network %s any more",
             row.segmentation_id, row.physical_network, row.network_id)
    return True
