"""Notices what is written to the database, in the processes that write it.

Neutron does not announce everything to mechanism drivers: the second binding of a live migration is
added and removed, and dynamic segments are given back, without a call to the driver. So the rows
themselves are watched: what a session flushes is remembered, and handed on when the session has
committed, in one piece. A change that is handed on without need costs a look.
"""
import collections.abc
import typing

from neutron.db import models_v2
from neutron.db.models import segment as segment_models
from neutron.plugins.ml2 import models as ml2_models
from sqlalchemy import event
from sqlalchemy import orm

from networking_vnagent import handover
from networking_vnagent import mapping

_KEY = "networking_vnagent"
# What of a port is described to agents, besides its bindings.
DESCRIBED = ("device_id", "device_owner", "network_id")

Handler = collections.abc.Callable[[handover.Change], None]
Flushed = collections.abc.Callable[[typing.Any, handover.Change], None]

_handlers: list[Handler] = []
_is_listening = False
_are_unbound_noted = False


def subscribe(handler: Handler, are_unbound_noted: bool = True) -> None:
    """Calls the handler after each commit that changed something; it must not block. New ports,
    which are bound nowhere yet, are noted where one handler wants them."""
    global _is_listening, _are_unbound_noted
    _handlers.append(handler)
    _are_unbound_noted = _are_unbound_noted or are_unbound_noted
    if _is_listening:
        return
    _is_listening = True
    _listen(models_v2.Port, _port_flushed, described=DESCRIBED)
    # A new binding says nothing yet; it is bound when it has levels.
    _listen(ml2_models.PortBinding, _binding_flushed, is_new_noted=False)
    _listen(ml2_models.DistributedPortBinding, _binding_flushed, is_new_noted=False)
    _listen(ml2_models.PortBindingLevel, _level_flushed)
    _listen(models_v2.Network, _network_flushed, described=())
    _listen(segment_models.NetworkSegment, _segment_flushed)
    event.listen(orm.Session, "after_commit", _committed)
    event.listen(orm.Session, "after_rollback", _rolled_back)


def unsubscribe(handler: Handler) -> None:
    _handlers.remove(handler)


def of_transaction(session: typing.Any) -> handover.Change:
    """What the transaction of a session has changed; the caller may add to it."""
    change: handover.Change = session.info.setdefault(_KEY, handover.Change())
    return change


def _listen(model: typing.Any, flushed: Flushed, *, is_new_noted: bool = True,
            described: tuple[str, ...] | None = None) -> None:
    """Watches the rows of a table. `described`: the columns that count; all where it is None."""
    def note(mapper: typing.Any, connection: typing.Any, row: typing.Any) -> None:
        session = orm.object_session(row)
        if session is not None:
            flushed(row, of_transaction(session))

    def note_modified(mapper: typing.Any, connection: typing.Any, row: typing.Any) -> None:
        session = orm.object_session(row)
        # Neutron writes rows back that have not changed.
        if session is not None and (
                session.is_modified(row, include_collections=False) if described is None
                else _has_changed(row, described)):
            flushed(row, of_transaction(session))

    if is_new_noted:
        event.listen(model, "after_insert", note)
    event.listen(model, "after_delete", note)
    if described != ():
        event.listen(model, "after_update", note_modified)


def _has_changed(row: typing.Any, columns: tuple[str, ...]) -> bool:
    state = orm.attributes.instance_state(row)
    return any(state.get_history(name, orm.attributes.PASSIVE_NO_INITIALIZE).has_changes()
               for name in columns)


def _port_flushed(row: typing.Any, change: handover.Change) -> None:
    if not _are_unbound_noted and orm.attributes.instance_state(row).key is None:
        # It is being added.
        return
    change.work.ports.add(row.id)
    history = orm.attributes.get_history(row, "device_id")
    change.work.devices.update(name for names in history for name in names or () if name)


def _binding_flushed(row: typing.Any, change: handover.Change) -> None:
    if row.vif_type in mapping.UNBOUND and not orm.attributes.get_history(
            row, "vif_type").has_changes():
        # Of another host, or gone: it was not bound before either.
        return
    change.work.ports.add(row.port_id)


def _level_flushed(row: typing.Any, change: handover.Change) -> None:
    change.work.ports.add(row.port_id)
    history = orm.attributes.get_history(row, "segment_id")
    change.segments.update(name for names in history for name in names or () if name)


def _network_flushed(row: typing.Any, change: handover.Change) -> None:
    change.work.networks.add(row.id)


def _segment_flushed(row: typing.Any, change: handover.Change) -> None:
    change.work.segments.add(row.id)
    if row.network_id:
        change.work.networks.add(row.network_id)
    if row.physical_network:
        change.racks.add(row.physical_network)


def _committed(session: typing.Any) -> None:
    if session.in_nested_transaction():
        # A savepoint is released: other sessions do not see its rows yet.
        return
    change = session.info.pop(_KEY, None)
    if change:
        for handler in _handlers:
            handler(change)


def _rolled_back(session: typing.Any) -> None:
    if session.in_nested_transaction():
        # What was flushed before the savepoint is still there.
        return
    session.info.pop(_KEY, None)
