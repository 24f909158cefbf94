"""Makes a stream that fails smaller, for as long as it still fails."""

from __future__ import annotations

import time
from dataclasses import replace
from typing import Any, Callable, Iterator

from program import Stream

Fails = Callable[[Stream], bool]


def without(value: Any, path: tuple[str, ...]) -> Any:
    """A JSON value without the member that a path leads to."""
    result = dict(value)
    if len(path) == 1:
        del result[path[0]]
    else:
        result[path[0]] = without(value[path[0]], path[1:])
    return result


def members(value: Any, path: tuple[str, ...] = ()) -> Iterator[tuple[str, ...]]:
    """The paths of all members inside of a JSON value, the outer ones first."""
    if isinstance(value, dict):
        for key in value:
            yield (*path, key)
        for key, inner in value.items():
            yield from members(inner, (*path, key))


class Shrinker:
    """Tries one smaller stream after the other, within a limit of time."""

    def __init__(self, fails: Fails, seconds: float) -> None:
        self.fails = fails
        self.end = time.monotonic() + seconds

    def try_it(self, stream: Stream) -> bool:
        return time.monotonic() < self.end and self.fails(stream)

    def shrink(self, stream: Stream) -> Stream:
        before = None
        while before != stream and time.monotonic() < self.end:
            before = stream
            stream = self.fewer_events(stream)
            stream = self.smaller_documents(stream)
        return stream

    def fewer_events(self, stream: Stream) -> Stream:
        """Leave out runs of events, long ones first."""
        size = max(1, len(stream.events) // 2)
        while size:
            start = 0
            while start < len(stream.events):
                events = stream.events[:start] + stream.events[start + size:]
                smaller = replace(stream, events=events)
                if self.try_it(smaller):
                    stream = smaller
                else:
                    start += size
            size //= 2
        return stream

    def smaller_documents(self, stream: Stream) -> Stream:
        """Leave out members of the first document, and of the patches."""
        cloud = self.smaller(stream.cloud, lambda value: replace(stream, cloud=value))
        stream = replace(stream, cloud=cloud)
        for number, event in enumerate(stream.events):
            if not isinstance(event, dict):
                continue

            def with_event(value: Any, at: int = number, base: Stream = stream) -> Stream:
                return replace(base, events=base.events[:at] + [value] + base.events[at + 1:])

            stream = with_event(self.smaller(event, with_event))
        return stream

    def smaller(self, value: Any, put: Callable[[Any], Stream]) -> Any:
        progress = True
        while progress:
            progress = False
            for path in list(members(value)):
                try:
                    candidate = without(value, path)
                except (KeyError, TypeError):
                    continue  # Something around it was left out already.
                if self.try_it(put(candidate)):
                    value, progress = candidate, True
        return value
