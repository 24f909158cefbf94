"""Notices the changes of the database that Neutron does not announce to mechanism drivers.

The second binding of a live migration is added and removed, and dynamic segments are given back,
without a call to the driver. So the rows themselves are watched: what a session flushes is
remembered, and handed on when the session has committed. A change that is handed on without need
costs a look.
"""
import collections.abc
import typing

from neutron.db.models import segment as segment_models
from neutron.plugins.ml2 import models as ml2_models
from sqlalchemy import event
from sqlalchemy import orm

from networking_vnagent import backlog

_KEY = "networking_vnagent"

Handler = collections.abc.Callable[[backlog.Work], None]
Flushed = collections.abc.Callable[[typing.Any, typing.Any, typing.Any], None]

_handlers: list[Handler] = []
_is_listening = False


def subscribe(handler: Handler) -> None:
    """Calls the handler after each commit that changed something; it must not block."""
    global _is_listening
    _handlers.append(handler)
    if _is_listening:
        return
    _is_listening = True
    for model, flushed in ((ml2_models.PortBinding, _binding_flushed),
                           (ml2_models.PortBindingLevel, _binding_flushed),
                           (ml2_models.DistributedPortBinding, _binding_flushed),
                           (segment_models.NetworkSegment, _segment_flushed)):
        if model in (ml2_models.PortBindingLevel, segment_models.NetworkSegment):
            # A new binding says nothing yet; it is bound when it has levels.
            event.listen(model, "after_insert", flushed)
        event.listen(model, "after_delete", flushed)
        event.listen(model, "after_update", _if_modified(flushed))
    event.listen(orm.Session, "after_commit", _committed)
    event.listen(orm.Session, "after_rollback", _rolled_back)


def unsubscribe(handler: Handler) -> None:
    _handlers.remove(handler)


def _work_of(row: typing.Any) -> backlog.Work:
    session = orm.object_session(row)
    if session is None:
        return backlog.Work()
    work: backlog.Work = session.info.setdefault(_KEY, backlog.Work())
    return work


def _if_modified(flushed: Flushed) -> Flushed:
    """Neutron writes rows back that have not changed."""
    def if_modified(mapper: typing.Any, connection: typing.Any, row: typing.Any) -> None:
        session = orm.object_session(row)
        if session is None or session.is_modified(row, include_collections=False):
            flushed(mapper, connection, row)
    return if_modified


def _binding_flushed(mapper: typing.Any, connection: typing.Any, row: typing.Any) -> None:
    _work_of(row).ports.add(row.port_id)


def _segment_flushed(mapper: typing.Any, connection: typing.Any, row: typing.Any) -> None:
    work = _work_of(row)
    work.segments.add(row.id)
    if row.network_id:
        work.networks.add(row.network_id)


def _committed(session: typing.Any) -> None:
    if session.in_nested_transaction():
        # A savepoint is released: other sessions do not see its rows yet.
        return
    work = session.info.pop(_KEY, None)
    if work is not None and len(work):
        for handler in _handlers:
            handler(work)


def _rolled_back(session: typing.Any) -> None:
    if session.in_nested_transaction():
        # What was flushed before the savepoint is still there.
        return
    session.info.pop(_KEY, None)
