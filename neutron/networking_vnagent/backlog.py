"""What has changed in the database and is not known to be on an agent yet."""
import collections.abc
import dataclasses
import threading


@dataclasses.dataclass
class Work:
    """Objects whose description may have changed, by their ids."""
    ports: set[str] = dataclasses.field(default_factory=set)
    networks: set[str] = dataclasses.field(default_factory=set)
    segments: set[str] = dataclasses.field(default_factory=set)
    devices: set[str] = dataclasses.field(default_factory=set)

    def __len__(self) -> int:
        return len(self.ports) + len(self.networks) + len(self.segments) + len(self.devices)

    def add(self, other: "Work") -> None:
        for name in FIELDS:
            getattr(self, name).update(getattr(other, name))

    def items(self) -> list[tuple[str, str]]:
        return [(name, item) for name in FIELDS for item in sorted(getattr(self, name))]

    def text(self) -> str:
        return ", ".join(f"{name[:-1]} {item}" for name, item in self.items())

    def halves(self) -> tuple["Work", "Work"]:
        """Two parts; ports come before the segments that they may refer to no longer."""
        items = self.items()
        parts = Work(), Work()
        for index, (name, item) in enumerate(items):
            getattr(parts[index >= len(items) // 2], name).add(item)
        return parts


FIELDS = tuple(field.name for field in dataclasses.fields(Work))


class Backlog:
    """The work for one agent. Changes of the same object are one; any thread may call.

    It is bounded: what would be more than `limit` objects is "the region", which a full sync sends.
    """

    def __init__(self, limit: int) -> None:
        self._limit = limit
        self._work = Work()
        self._is_region = False
        self._changed = threading.Condition()

    def add(self, work: Work) -> None:
        with self._changed:
            if not self._is_region:
                self._work.add(work)
                if len(self._work) > self._limit:
                    self._become_region()
            self._changed.notify_all()

    def become_region(self) -> None:
        """Forgets the objects: everything is to be looked at."""
        with self._changed:
            self._become_region()
            self._changed.notify_all()

    def _become_region(self) -> None:
        self._work = Work()
        self._is_region = True

    @property
    def is_region(self) -> bool:
        with self._changed:
            return self._is_region

    def __len__(self) -> int:
        with self._changed:
            return len(self._work)

    def waiting(self) -> Work:
        """What waits, without taking it out."""
        with self._changed:
            work = Work()
            work.add(self._work)
            return work

    def take(self, limit: int) -> Work | None:
        """Takes out up to `limit` objects; None when there is nothing."""
        with self._changed:
            taken = Work()
            for name in FIELDS:
                source, target = getattr(self._work, name), getattr(taken, name)
                while source and len(taken) < limit:
                    target.add(source.pop())
            return taken if len(taken) else None

    def take_region(self) -> Work:
        """Takes out everything: the caller sends the region. What was known of it."""
        with self._changed:
            taken, self._work = self._work, Work()
            self._is_region = False
            return taken

    def wake(self) -> None:
        with self._changed:
            self._changed.notify_all()

    def wait(self, timeout: float, until: collections.abc.Callable[[], bool]) -> None:
        """Returns when there is work, when `until` holds after a wake, or after the timeout."""
        with self._changed:
            self._changed.wait_for(
                lambda: len(self._work) > 0 or self._is_region or until(), timeout)
