"""Checks that a recorded history of calls is linearizable.

A history is linearizable when each call can be given one moment between its invocation and its
response, so that the calls, taken one at a time in the order of these moments, answer what was
recorded ("Linearizability", Herlihy and Wing 1990). The search goes through the history from
response to response and keeps every configuration that can be reached: the state of the model, and
which of the pending calls have taken effect (just-in-time linearization, Lowe 2017). Equal
configurations are kept once, so that the cost follows from the number of calls that overlap, not
from the length.

The outcome of a call whose connection was cut is not known: it may have taken effect at any moment
between its invocation and the end of its connection, or never. So may the calls that a crash ends.
"""

import math
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass, field
from typing import Any, Generic, NamedTuple, Protocol, TypeVar

State = TypeVar("State")
Finished = tuple[tuple[int, Any], ...]  # calls that have their answers


@dataclass(frozen=True)
class Call:
    """One request. `answer` is None where the outcome is not known; `returned` is then the end of
    the connection, after which the call can have no effect."""

    id: int
    client: str
    what: Any
    invoked: float
    returned: float = math.inf
    answer: Any = None
    closed: float = math.inf  # when the client gave up waiting

    @property
    def is_known(self) -> bool:
        return self.answer is not None


@dataclass
class History:
    calls: list[Call]
    crashes: list[float] = field(default_factory=list)


class Step(NamedTuple, Generic[State]):
    """A state that follows from another, and the calls that were answered on the way."""

    state: State
    finished: Finished = ()


class Model(Protocol[State]):
    """The sequential behaviour. States are hashable."""

    def take(self, state: State, call: Call) -> Step[State]:
        """A call takes effect. One that is not among those finished waits in the state."""

    def waits(self, state: State, call: Call) -> bool:
        """Whether the call has taken effect and waits for its answer."""

    def by_itself(self, state: State, now: float, calls: dict[int, Call]) -> Iterable[Step[State]]:
        """What may happen without a call, at any moment up to `now`."""

    def crash(self, state: State, now: float) -> State:
        """What a restart leaves."""

    # A number that never falls, by which the search leaves out early what cannot end well.

    def rank(self, state: State) -> int: ...

    def highest_rank(self, call: Call) -> int | None:
        """That of the states in which the call can have had its answer, where it is known."""


class Configuration(NamedTuple, Generic[State]):
    state: State
    done: frozenset[int]  # pending calls that have their answers


@dataclass
class Verdict(Generic[State]):
    """`at` is the call at whose answer the search ended, or the crash; None for a good history. The
    answer at fault may be a later one: an order that it rules out is left as soon as possible."""

    is_linearizable: bool
    at: Call | float | None = None
    before: list[State] = field(default_factory=list)  # states that were possible until then
    configurations: int = 0  # the largest number that was kept


class Checker(Generic[State]):
    def __init__(self, model: Model[State], initial: State) -> None:
        self.model = model
        self.kept = {Configuration(initial, frozenset())}
        self.pending: dict[int, Call] = {}
        self.ranks: dict[int, int] = {}  # the highest of each call that has one
        self.later = math.inf  # the lowest of these among the calls that are not invoked yet

    def check(self, history: History) -> Verdict[State]:
        largest = 1
        self.ranks = {call.id: rank for call in history.calls if call.is_known
                      and (rank := self.model.highest_rank(call)) is not None}
        invoked: set[int] = set()
        for event in _events(history):
            before = self.kept
            if isinstance(event, Call) and event.id not in invoked:
                invoked.add(event.id)
                self.pending[event.id] = event
                self.later = min((rank for call, rank in self.ranks.items()
                                  if call not in invoked), default=math.inf)
                continue
            if isinstance(event, Call) and event.is_known:
                self._response(event)
            elif isinstance(event, Call):
                self._end(event.returned, {event.id} & self.pending.keys())
                self.kept = {configuration for configuration in self.kept
                             if not self.model.waits(configuration.state, event)}
            else:
                self._end(event, {call.id for call in self.pending.values() if not call.is_known})
                self.kept = {Configuration(self.model.crash(state, event), done)
                             for state, done in self.kept}
            largest = max(largest, len(self.kept))
            if not self.kept:
                states = list({configuration.state for configuration in before})
                return Verdict(False, event, states, largest)
        return Verdict(True, configurations=largest)

    def _response(self, call: Call) -> None:
        reached = self._reach(call.returned, lambda configuration: call.id in configuration.done)
        del self.pending[call.id]
        self.kept = self._needed({Configuration(state, done - {call.id})
                                  for state, done in reached})

    def _end(self, now: float, ended: set[int]) -> None:
        """Calls whose outcome is not known end: they have had their effect, or will have none."""
        reached = self._reach(now, None) if ended else self.kept
        for number in ended:
            del self.pending[number]
        self.kept = self._needed({Configuration(state, done - ended) for state, done in reached})

    def _needed(self, kept: set[Configuration[State]]) -> set[Configuration[State]]:
        """Without those that can do nothing more than another one of the same state: a call whose
        outcome is not known may stay pending for ever."""
        groups: dict[tuple[State, frozenset[int]], list[frozenset[int]]] = {}
        for state, done in kept:
            known = frozenset(number for number in done if self.pending[number].is_known)
            groups.setdefault((state, known), []).append(done)
        return {Configuration(state, done) for (state, _), group in groups.items()
                for done in group if not any(other < done for other in group)}

    def _reach(self, now: float, until: Callable[[Configuration[State]], bool] | None) \
            -> set[Configuration[State]]:
        """The configurations in which `until` holds first; without it, all that can be reached."""
        reached: set[Configuration[State]] = set()
        seen = set(self.kept)
        todo = list(self.kept)
        while todo:
            configuration = todo.pop()
            if until is None or until(configuration):
                reached.add(configuration)
                if until is not None:
                    continue
            for following in self._following(configuration, now):
                if following not in seen:
                    seen.add(following)
                    todo.append(following)
        return reached

    def _following(self, configuration: Configuration[State], now: float) \
            -> Iterator[Configuration[State]]:
        state, done = configuration
        for call in self.pending.values():
            if call.id in done or self.model.waits(state, call):
                continue
            step = self.model.take(state, call)
            if step.state != state or call.is_known:  # the others may as well stay pending
                yield from self._accepted(step, done)
        for step in self.model.by_itself(state, now, self.pending):
            yield from self._accepted(step, done)

    def _accepted(self, step: Step[State], done: frozenset[int]) -> Iterator[Configuration[State]]:
        for number, answer in step.finished:
            call = self.pending.get(number)
            if call is not None and call.is_known and call.answer != answer:
                return
        after = done | {number for number, _ in step.finished if number in self.pending}
        rank = self.model.rank(step.state)
        if rank > self.later or any(rank > self.ranks.get(number, math.inf)
                                    for number in self.pending if number not in after):
            return
        yield Configuration(step.state, after)


def _events(history: History) -> list[Call | float]:
    """Invocations, responses and crashes in order of time; at one time invocations come first."""
    events: list[tuple[float, int, Call | float]] = []
    for call in history.calls:
        events.append((call.invoked, 0, call))
        if call.returned < math.inf:
            events.append((call.returned, 1, call))
    events += [(time, 2, time) for time in history.crashes]
    events.sort(key=lambda event: event[:2])
    return [event for _, _, event in events]
