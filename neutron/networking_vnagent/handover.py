"""Hands what has changed from the processes that answer calls to the one that publishes.

All processes of a server share one pipe, which the parent makes before it starts them. Each message
is one write that is not longer than the system writes at once, so messages of several processes do
not mix, and none is cut by a process that is killed. What was written survives the process that
reads; what that one took and did not send is part of the full sync with which its successor begins.
Writing never waits: where the pipe is full, all that is left is that something was lost, in memory
that the processes share, and a full sync follows.

Where another web server answers the calls, its processes are not children of the server that
publishes: they share a pipe with a name, in a folder of Neutron. What a process lost there it says
itself, with the next that it writes.
"""
import collections.abc
import contextlib
import dataclasses
import fcntl
import io
import json
import mmap
import os
import select
import typing

from networking_vnagent import backlog

# Bytes of one message at most.
LONGEST = select.PIPE_BUF
# Bytes that wait at most; a system that does not allow so many keeps its own limit.
CAPACITY = 1 << 20


@dataclasses.dataclass
class Change:
    """What one commit or one call has changed, and what is known of where."""
    work: backlog.Work = dataclasses.field(default_factory=backlog.Work)
    # The segments of levels that were added or removed: what is there still is found in the
    # database, what is gone is not.
    segments: set[str] = dataclasses.field(default_factory=set)
    # The physical networks of segments that were added, changed or removed.
    racks: set[str] = dataclasses.field(default_factory=set)
    # Whether the two above and the database do not say all: every agent may be concerned.
    is_for_all: bool = False
    # The ports that wait for agents, with the names of these.
    waiting: dict[str, set[str]] = dataclasses.field(default_factory=dict)

    def add(self, other: "Change") -> None:
        self.work.add(other.work)
        self.segments |= other.segments
        self.racks |= other.racks
        self.is_for_all |= other.is_for_all
        self.waiting |= other.waiting

    def __bool__(self) -> bool:
        return bool(len(self.work) or self.waiting)


class Received(typing.NamedTuple):
    """What was read at once."""
    changes: list[Change]
    # Why everything must be looked at anew; empty where there is no reason.
    lost: str


def is_read(path: str) -> bool:
    """Whether a process has a pipe of this name open, to read what others write."""
    try:
        os.close(os.open(path, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC))
    except OSError:
        return False
    return True


class Handover:
    """One pipe. Any thread and any child process may write; one process reads, or several of which
    each takes a part."""

    def __init__(self, path: str | None = None) -> None:
        """With a path: a pipe of this name, which is made where there is none. Raises OSError."""
        self._is_named = path is not None
        if path is None:
            reader, writer = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        else:
            with contextlib.suppress(FileExistsError):
                os.mkfifo(path, 0o600)
            # Both ends, so that writing never finds the other one closed, and reading neither.
            reader = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
            writer = os.dup(reader)
        try:
            fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, CAPACITY)
        except OSError:
            pass  # Fewer bytes wait then.
        # Raw files, since these do not wait, with green threads neither.
        self._reader = io.FileIO(reader, "r")
        self._writer = io.FileIO(writer, "w")
        self._lost = mmap.mmap(-1, 1)
        self._begun = b""

    def close(self) -> None:
        self._reader.close()
        self._writer.close()
        self._lost.close()

    # Writing.

    def send(self, change: Change) -> None:
        """Hands a change on. Never waits, and raises nothing."""
        if self._is_named and self._lost[0]:
            self._lost[0] = 0
            self.restarted()
        for part in _parts(change):
            line = json.dumps(_encoded(part), separators=(",", ":")).encode() + b"\n"
            self._write(line)

    def restarted(self) -> None:
        """Says that a process begins: the one before may have ended before it could say all."""
        self._write(b"restarted\n")

    def _write(self, line: bytes) -> None:
        try:
            if len(line) <= LONGEST and self._writer.write(line) is not None:
                return
        except OSError:
            pass  # The same follows as from a full pipe.
        self._lost[0] = 1

    # Reading.

    def wait(self, seconds: float) -> bool:
        """Returns when there is something to read, or after so many seconds."""
        return bool(select.select([self._reader], [], [], max(0.0, seconds))[0])

    def receive(self) -> Received:
        """Everything that waits; does not wait itself."""
        lost = ""
        if self._lost[0]:
            # Before anything is read: a later loss sets it again.
            self._lost[0] = 0
            lost = "more has changed at once than can wait"
        changes = []
        data = self._begun
        while chunk := self._reader.read(1 << 16):
            data += chunk
        *lines, self._begun = data.split(b"\n")
        for line in lines:
            if line == b"restarted":
                lost = lost or "a process of this server was started"
                continue
            try:
                changes.append(_decoded(json.loads(line)))
            except (ValueError, KeyError, TypeError, AttributeError):
                # The rest of a message whose beginning another reader took along when it ended.
                lost = lost or "a message of another process was cut"
        return Received(changes, lost)


def _parts(change: Change) -> collections.abc.Iterator[Change]:
    """The same change in parts that are short enough for one message each."""
    if len(json.dumps(_encoded(change))) < LONGEST or len(change.work) <= 1:
        yield change
        return
    for half in change.work.halves():
        waiting = {port: names for port, names in change.waiting.items() if port in half.ports}
        yield from _parts(dataclasses.replace(change, work=half, waiting=waiting))


def _encoded(change: Change) -> dict[str, typing.Any]:
    made: dict[str, typing.Any] = {
        name: sorted(names) for name in backlog.FIELDS if (names := getattr(change.work, name))}
    if change.is_for_all:
        made["all"] = True
    elif change.segments or change.racks:
        made["where"] = [sorted(change.segments), sorted(change.racks)]
    if change.waiting:
        made["waiting"] = {port: sorted(names) for port, names in change.waiting.items()}
    return made


def _decoded(made: dict[str, typing.Any]) -> Change:
    segments, racks = made.get("where", ((), ()))
    return Change(
        backlog.Work(**{name: set(made.get(name, ())) for name in backlog.FIELDS}),
        set(segments), set(racks), bool(made.get("all")),
        {port: set(names) for port, names in made.get("waiting", {}).items()})
