"""What the live agent answers when requests come one at a time: revisions, conditions, the lock.

A call is one of the tuples below. Its answer is a tuple, too, that starts with the HTTP status.
What depends on the time alone, such as the seconds until a timer is due, is not part of it.
"""

from collections.abc import Iterator
from typing import Any, NamedTuple

from checker import Call, Step

Answer = tuple[Any, ...]


class Guard(NamedTuple):
    """The headers of a change."""

    if_match: int | None = None
    if_absent: bool = False  # If-None-Match: *
    fence: str | None = None  # Sync-Request-Id
    key: str | None = None  # Idempotency-Key


class WritePort(NamedTuple):
    region: str
    port: str
    vlan: int
    guard: Guard = Guard()
    is_dry: bool = False


class WriteBoth(NamedTuple):
    """One patch on the whole document, with a port in each of several regions."""

    ports: tuple[tuple[str, str, int], ...]  # region, port, vlan
    guard: Guard = Guard()


class Replace(NamedTuple):
    region: str
    ports: tuple[tuple[str, int], ...]
    guard: Guard = Guard()


class Delete(NamedTuple):
    """A region, or a port."""

    region: str
    port: str | None = None
    guard: Guard = Guard()


class Read(NamedTuple):
    """Both documents at once are not read: this is a place of the cloud document, or all of it."""

    region: str | None = None
    port: str | None = None


class Sync(NamedTuple):
    region: str


class Lock(NamedTuple):
    region: str
    requester: str
    request: str
    wait: float = 0


class Holder(NamedTuple):
    """start, heartbeat, complete, release."""

    region: str
    what: str
    request: str | None
    force: bool = False


class Port(NamedTuple):
    vlan: int
    tag: int


class Region(NamedTuple):
    tag: int
    ports: tuple[tuple[str, Port], ...] = ()
    requester: str = ""  # what the document says
    request: str = ""
    heartbeat: int = 0
    announced: str = "syncUnknown"
    status: str = "syncUnknown"  # what the agent says
    old: str = "syncUnknown"
    owner: str = ""
    holder: str = ""
    due: float | None = None  # the timer fires at this time, or later


class Waiter(NamedTuple):
    call: int
    region: str
    requester: str
    request: str


class State(NamedTuple):
    revision: int = 0
    regions: tuple[tuple[str, Region], ...] = ()
    line: tuple[Waiter, ...] = ()
    keys: tuple[tuple[str, Answer], ...] = ()


Finished = tuple[tuple[int, Answer], ...]


def _put(items: tuple[tuple[str, Any], ...], name: str, value: Any) -> tuple[tuple[str, Any], ...]:
    """With another value, or without it where it is None."""
    rest = [item for item in items if item[0] != name]
    if value is not None:
        rest.append((name, value))
    return tuple(sorted(rest))


def _with(state: State, name: str, region: Region | None) -> State:
    return state._replace(regions=_put(state.regions, name, region))


def _region(state: State, name: str) -> Region | None:
    return dict(state.regions).get(name)


class Agent:
    """The model. `timeout` is the region sync timeout in seconds."""

    def __init__(self, timeout: float) -> None:
        self.timeout = timeout

    # What the checker asks for.

    def take(self, state: State, call: Call) -> Step[State]:
        what = call.what
        guard = getattr(what, "guard", Guard())
        if guard.key and (answer := dict(state.keys).get(guard.key)):
            return Step(state, ((call.id, answer),))
        if isinstance(what, Lock):
            return self._lock(state, call)
        after, answer = self._answer(state, call)
        if guard.key and after.revision > state.revision:
            after = after._replace(keys=_put(after.keys, guard.key, answer))
        after, finished = self._settle(after)
        return Step(after, ((call.id, answer), *finished))

    def waits(self, state: State, call: Call) -> bool:
        return any(waiter.call == call.id for waiter in state.line)

    def by_itself(self, state: State, now: float, calls: dict[int, Call]) -> Iterator[Step[State]]:
        for name, region in state.regions:
            if region.due is not None and region.due <= now:
                after, finished = self._settle(self._expire(state, name, region))
                yield Step(after, finished)
        for waiter in state.line:
            call = calls.get(waiter.call)
            if call is None:
                continue
            without = state._replace(line=tuple(w for w in state.line if w != waiter))
            if call.invoked + call.what.wait <= now:
                held = self._held(dict(state.regions)[waiter.region])
                yield Step(without, ((call.id, held),))
            # It hung up, or was cut, as by a kill that is noted a little later.
            if min(call.closed, call.returned) <= now:
                yield Step(without, ((call.id, None),))

    def crash(self, state: State, now: float) -> State:
        regions = tuple((name, region._replace(due=now + self.timeout) if region.due is not None
                         else region) for name, region in state.regions)
        return state._replace(regions=regions, line=())

    def rank(self, state: State) -> int:
        return state.revision

    def highest_rank(self, call: Call) -> int | None:
        what, answer = call.what, call.answer
        if isinstance(what, Read):
            return answer[1] if answer[0] == 200 else None
        is_change = isinstance(what, (WritePort, WriteBoth, Replace, Delete))
        if not is_change or answer[0] not in (200, 201) or what.guard.key:
            return None
        is_idle = getattr(what, "is_dry", False) or isinstance(what, Replace) and answer[2] == 0 \
            and answer[0] == 200
        return answer[1] if is_idle else answer[1] - 1

    # Calls that are answered at once.

    def _answer(self, state: State, call: Call) -> tuple[State, Answer]:
        what = call.what
        if isinstance(what, WritePort):
            return self._write_port(state, what)
        if isinstance(what, WriteBoth):
            return self._write_both(state, what)
        if isinstance(what, Replace):
            return self._replace(state, what)
        if isinstance(what, Delete):
            return self._delete(state, what)
        if isinstance(what, Read):
            return state, self._read(state, what)
        if isinstance(what, Sync):
            region = _region(state, what.region)
            waiting = sum(waiter.region == what.region for waiter in state.line)
            return state, (404,) if region is None else (*self._status(region), waiting)
        assert isinstance(what, Holder)
        return self._call_of_holder(state, what, call.invoked + self.timeout)

    def _refusal(self, state: State, guard: Guard, tag: int | None, names: list[str]) \
            -> Answer | None:
        """Conditions, then locks. `tag` is that of the place, None where there is none."""
        if guard.if_match is not None and guard.if_match != tag:
            return 412, tag
        if guard.if_absent and tag is not None:
            return 412, tag
        for name in names:
            region = _region(state, name)
            if guard.fence is not None and region is not None and region.holder != guard.fence:
                return self._held(region)
        return None

    def _write_port(self, state: State, what: WritePort) -> tuple[State, Answer]:
        region = _region(state, what.region)
        port = dict(region.ports).get(what.port) if region else None
        if refusal := self._refusal(state, what.guard, port.tag if port else None, [what.region]):
            return state, refusal
        if what.is_dry:
            return state, (200, state.revision)
        after = self._with_ports(state, state.revision + 1, [(what.region, what.port, what.vlan)])
        return after, (200, after.revision)

    def _write_both(self, state: State, what: WriteBoth) -> tuple[State, Answer]:
        names = sorted({name for name, _, _ in what.ports})
        if refusal := self._refusal(state, what.guard, state.revision, names):
            return state, refusal
        after = self._with_ports(state, state.revision + 1, what.ports)
        return after, (200, after.revision)

    def _with_ports(self, state: State, revision: int, ports: Any) -> State:
        after = state._replace(revision=revision)
        for name, port, vlan in ports:
            region = _region(after, name) or Region(revision)
            before = dict(region.ports).get(port)
            if before is None or before.vlan != vlan:
                region = region._replace(tag=revision,
                                         ports=_put(region.ports, port, Port(vlan, revision)))
            after = _with(after, name, region)
        return after

    def _replace(self, state: State, what: Replace) -> tuple[State, Answer]:
        region = _region(state, what.region)
        if refusal := self._refusal(state, what.guard, region.tag if region else None,
                                    [what.region]):
            return state, refusal
        revision = state.revision + 1
        before = dict(region.ports) if region else {}
        ports = {name: before[name] if name in before and before[name].vlan == vlan
                 else Port(vlan, revision) for name, vlan in what.ports}
        changed = sum(before.get(name) != ports.get(name) for name in before.keys() | ports.keys())
        if region and not changed:
            return state, (200, state.revision, 0)
        after = (region or Region(revision))._replace(tag=revision,
                                                      ports=tuple(sorted(ports.items())))
        return (_with(state, what.region, after)._replace(revision=revision),
                (200 if region else 201, revision, changed))

    def _delete(self, state: State, what: Delete) -> tuple[State, Answer]:
        region = _region(state, what.region)
        port = dict(region.ports).get(what.port) if region and what.port else None
        if region is None or (what.port and port is None):
            return state, (404,)
        if refusal := self._refusal(state, what.guard, port.tag if port else region.tag,
                                    [what.region]):
            return state, refusal
        revision = state.revision + 1
        after: Region | None = None
        if what.port:
            after = region._replace(tag=revision, ports=_put(region.ports, what.port, None))
        return _with(state, what.region, after)._replace(revision=revision), (200, revision)

    def _read(self, state: State, what: Read) -> Answer:
        if what.region is None:
            return 200, state.revision, state.revision, tuple(
                (name, self._document(region)) for name, region in state.regions)
        region = _region(state, what.region)
        if region is None:
            return (404,)
        if what.port is None:
            return 200, state.revision, region.tag, self._document(region)
        port = dict(region.ports).get(what.port)
        return (404,) if port is None else (200, state.revision, port.tag, port.vlan)

    @staticmethod
    def _document(region: Region) -> Answer:
        """A region as the document prints it: its ports, and its five scalars."""
        return (tuple((name, port.vlan) for name, port in region.ports), region.requester,
                region.request, region.heartbeat, region.announced)

    # The sync protocol.

    @staticmethod
    def _status(region: Region) -> Answer:
        return (200, region.status, region.old, region.owner, region.holder,
                region.holder != "", region.due is not None)

    @staticmethod
    def _held(region: Region) -> Answer:
        return 409, (region.owner, region.holder) if region.holder else None

    def _lock(self, state: State, call: Call) -> Step[State]:
        what = call.what
        region = _region(state, what.region)
        if region is None:
            return Step(state, ((call.id, (404,)),))
        if (region.owner, region.holder) == (what.requester, what.request):
            return Step(state, ((call.id, self._status(region)),))
        waiter = Waiter(call.id, what.region, what.requester, what.request)
        line = [other for other in state.line if other.region == what.region]
        if what.wait > 0 or (not region.holder and not line):
            return Step(*self._settle(state._replace(line=(*state.line, waiter))))
        return Step(state, ((call.id, self._held(region)),))

    def _call_of_holder(self, state: State, what: Holder, due: float) -> tuple[State, Answer]:
        region = _region(state, what.region)
        if region is None:
            return state, (404,)
        if not what.force and region.holder != what.request:
            return state, (428,) if what.request is None else self._held(region)
        if what.what == "start":
            after = region._replace(announced="syncInProgress", status="syncInProgress",
                                    old=region.status, due=due)
        elif what.what == "heartbeat":
            after = region._replace(heartbeat=region.heartbeat + 1, due=due)
        elif what.what == "complete":
            if region.status != "syncInProgress":
                return state, (409, "not-in-progress")
            after = region._replace(announced="syncComplete", status="syncComplete",
                                    old=region.status, owner="", holder="", due=None)
        else:
            after = region._replace(requester="", request="", owner="", holder="")
        answer = self._status(after) if what.what in ("start", "heartbeat") else (200,)
        return (_with(state, what.region, after)._replace(revision=state.revision + 1), answer)

    @staticmethod
    def _expire(state: State, name: str, region: Region) -> State:
        after = region._replace(status="syncTimedOut", old=region.status, owner="", holder="",
                                due=None)
        is_change = after._replace(due=region.due) != region
        return _with(state, name, after)._replace(revision=state.revision + is_change)

    def _settle(self, state: State) -> tuple[State, Finished]:
        """Whoever is first in the line of a free lock gets it, in the same turn."""
        finished: list[tuple[int, Answer]] = []
        for name in sorted({waiter.region for waiter in state.line}):
            line = [waiter for waiter in state.line if waiter.region == name]
            region = _region(state, name)
            if region is None:
                finished += [(waiter.call, (404,)) for waiter in line]
                state = state._replace(line=tuple(w for w in state.line if w.region != name))
                continue
            if not region.holder:
                first = line[0]
                region = region._replace(requester=first.requester, request=first.request,
                                         owner=first.requester, holder=first.request)
                state = _with(state, name, region)._replace(revision=state.revision + 1)
            granted = [w for w in line
                       if (w.requester, w.request) == (region.owner, region.holder)]
            finished += [(waiter.call, self._status(region)) for waiter in granted]
            state = state._replace(line=tuple(w for w in state.line if w not in granted))
        return state, tuple(finished)
