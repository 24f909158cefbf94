"""Reads what concerns the agents from Neutron's database.

Each function reads in a transaction of its own, so that what it returns was true at one moment and
is not older than the call. None of them may be called inside a transaction.
"""
import collections.abc
import typing

from neutron.db import models_v2
from neutron.db.models import segment as segment_models
from neutron.plugins.ml2 import models as ml2_models
from neutron_lib import context as neutron_context
from neutron_lib.db import api as db_api
import sqlalchemy as sa

from networking_vnagent import mapping
from networking_vnagent import retries

# Rows in a page of a whole table, and names in an IN (...).
PAGE = 1000
NAMES = 500

Session = typing.Any
Column = typing.Any

PORT = (models_v2.Port.id, models_v2.Port.network_id, models_v2.Port.device_owner,
        models_v2.Port.device_id)
BINDING = (ml2_models.PortBinding.port_id, ml2_models.PortBinding.host,
           ml2_models.PortBinding.vif_type, ml2_models.PortBinding.vnic_type,
           ml2_models.PortBinding.profile, ml2_models.PortBinding.status)
LEVEL = (ml2_models.PortBindingLevel.port_id, ml2_models.PortBindingLevel.host,
         ml2_models.PortBindingLevel.level, ml2_models.PortBindingLevel.segment_id)
SEGMENT = (segment_models.NetworkSegment.id, segment_models.NetworkSegment.network_id,
           segment_models.NetworkSegment.network_type,
           segment_models.NetworkSegment.physical_network,
           segment_models.NetworkSegment.segmentation_id,
           segment_models.NetworkSegment.is_dynamic)


def _where_in(session: Session, columns: tuple[Column, ...], column: Column,
              names: collections.abc.Iterable[str]) -> list[typing.Any]:
    found: list[typing.Any] = []
    rest = sorted(set(names))
    for start in range(0, len(rest), NAMES):
        found += session.query(*columns).filter(column.in_(rest[start:start + NAMES])).all()
    return found


def _pages(session: Session, columns: tuple[Column, ...],
           keys: tuple[Column, ...]) -> collections.abc.Iterator[typing.Any]:
    """All rows of a table, a page at a time, in the order of its primary key."""
    last = None
    while True:
        query = session.query(*columns, *keys)
        if last is not None:
            query = query.filter(sa.tuple_(*keys) > sa.tuple_(*last))
        page = query.order_by(*keys).limit(PAGE).all()
        for row in page:
            yield tuple(row)[:len(columns)]
        if len(page) < PAGE:
            return
        last = tuple(page[-1])[len(columns):]


@retries.retry_db_errors
def read_everything() -> mapping.Rows:
    """All rows, in pages of one transaction: the database at one moment."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        session = context.session
        level = ml2_models.PortBindingLevel
        return mapping.Rows(
            ports=[mapping.PortRow(*row) for row in
                   _pages(session, PORT, (models_v2.Port.id,))],
            bindings=[mapping.BindingRow(*row) for row in _pages(
                session, BINDING, (ml2_models.PortBinding.port_id, ml2_models.PortBinding.host))],
            levels=[mapping.LevelRow(*row) for row in _pages(
                session, LEVEL, (level.port_id, level.host, level.level))],
            segments=[mapping.SegmentRow(*row) for row in
                      _pages(session, SEGMENT, (segment_models.NetworkSegment.id,))],
            networks=[row[0] for row in
                      _pages(session, (models_v2.Network.id,), (models_v2.Network.id,))])


@retries.retry_db_errors
def read_about(ports: collections.abc.Collection[str] = (),
               networks: collections.abc.Collection[str] = (),
               segments: collections.abc.Collection[str] = (),
               devices: collections.abc.Collection[str] = ()) -> mapping.Rows:
    """The rows that say how these objects are to be described; what is gone has none.

    A device is described by all of its ports, so they come with each port.
    """
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        session = context.session
        found = {row.id: mapping.PortRow(*row)
                 for row in _where_in(session, PORT, models_v2.Port.id, ports)}
        wanted_devices = {row.device_id for row in found.values() if row.device_id} | set(devices)
        for row in _where_in(session, PORT, models_v2.Port.device_id, wanted_devices):
            found[row.id] = mapping.PortRow(*row)
        bindings = _where_in(session, BINDING, ml2_models.PortBinding.port_id, found)
        levels = _where_in(session, LEVEL, ml2_models.PortBindingLevel.port_id, found)
        wanted = {row.network_id for row in found.values()} | set(networks)
        if segments:
            wanted |= {row.network_id for row in _where_in(
                session, SEGMENT, segment_models.NetworkSegment.id, segments)}
        return mapping.Rows(
            ports=list(found.values()),
            bindings=[mapping.BindingRow(*row) for row in bindings],
            levels=[mapping.LevelRow(*row) for row in levels],
            segments=[mapping.SegmentRow(*row) for row in _where_in(
                session, SEGMENT, segment_models.NetworkSegment.network_id, wanted)],
            networks=[row.id for row in _where_in(
                session, (models_v2.Network.id,), models_v2.Network.id, wanted)])


@retries.retry_db_errors
def now() -> str:
    """The database's time, in UTC: texts that compare as the times do."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        bind = context.session.get_bind()
        is_sqlite = bind.dialect.name == "sqlite"
        clock = sa.func.datetime("now") if is_sqlite else sa.func.utc_timestamp()
        return str(context.session.execute(sa.select(clock)).scalar())


class Places(typing.NamedTuple):
    """Where objects are now."""
    # The segments of the levels of ports.
    segments: set[str]
    # The physical networks of the segments of networks, by segment.
    racks: dict[str, str | None]
    # Whether a port is bound without a level that says where.
    is_anywhere: bool


@retries.retry_db_errors
def places_of(ports: collections.abc.Collection[str],
              networks: collections.abc.Collection[str]) -> Places:
    """Where these ports are bound, and these networks have segments."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        session = context.session
        levels = _where_in(session, LEVEL, ml2_models.PortBindingLevel.port_id, ports)
        leveled = {row.port_id for row in levels}
        bindings = _where_in(session, BINDING, ml2_models.PortBinding.port_id,
                             set(ports) - leveled)
        segments = _where_in(session, SEGMENT, segment_models.NetworkSegment.network_id, networks)
        return Places({row.segment_id for row in levels if row.segment_id},
                      {row.id: row.physical_network for row in segments},
                      any(row.vif_type not in mapping.UNBOUND for row in bindings))


@retries.retry_db_errors
def racks_of(segments: collections.abc.Collection[str]) -> dict[str, str | None]:
    """The physical network of each of the segments that exist."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        rows = _where_in(context.session, SEGMENT, segment_models.NetworkSegment.id, segments)
        return {row.id: row.physical_network for row in rows}
