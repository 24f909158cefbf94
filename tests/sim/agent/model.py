"""What the program does with a document and its events, in the simplest form.

There are no machines here. An operation of a patch changes `cloud`, the current input at
that moment, does at once what is done at once, and leaves the rest in `waiting`, which is the
activity loop: it runs after each phase of a patch and after each timer.
"""

from __future__ import annotations

import uuid
from dataclasses import dataclass, field
from math import inf
from typing import Any, Callable

from binding import Binding, PortBinding, Publisher
from document import (MAX_SECONDS, REGION_SCALARS, SYNC_STATUS, Fault, RepeatedMember, faults,
                      is_seconds, merge, parse)
from plan import plan
from published import Published, Status
from tracing import Line, message_text, without_run_values
from view import BindingKey, Segment, read_cloud

ROOT = "OpenStackSm"
REGION = "RegionConfigSm"
UNKNOWN, IN_PROGRESS, TIMED_OUT, COMPLETE = range(4)


@dataclass
class Step:
    """What one event led to."""

    ok: bool
    time: float = 0.0
    output: dict[str, Any] = field(default_factory=dict)
    lines: list[Line] = field(default_factory=list)
    # Where the output may show another native VLAN, and which.
    open_questions: dict[str, set[int]] = field(default_factory=dict)
    # Of a refused event: what its error may start with; empty where any text will do.
    places: list[str] = field(default_factory=list)


@dataclass
class Region:
    """A region of the input, as it stands now, and the timer that belongs to it."""

    timeout: float
    segments: dict[str, Segment] = field(default_factory=dict)
    ports: dict[str, int] = field(default_factory=dict)
    bindings: dict[str, PortBinding] = field(default_factory=dict)
    counts: dict[str, int] = field(default_factory=dict)
    scalars: dict[str, Any] = field(default_factory=lambda: dict(REGION_SCALARS))
    deadline: float = inf


class Refused(Exception):
    """An event that is not applied, with the places that its error may name."""

    def __init__(self, places: list[str]) -> None:
        super().__init__(", ".join(places))
        self.places = places


class Model:
    """One run of the program."""

    def __init__(self, toggle_on: bool = True, timeout: float = 60.0) -> None:
        self.toggle_on = toggle_on
        self.first_timeout = float(timeout)
        self.timeout = float(timeout)
        self.now = 0.0
        self.rounds = 0
        self.document: dict[str, Any] = {}
        self.driver = 0
        self.assignments: dict[str, dict[int, bool]] = {}
        self.cloud: dict[str, Region] = {}
        self.published = Published()
        self.publisher = Publisher(self.published, toggle_on, self.trace)
        self.lines: list[Line] = []
        self.waiting: dict[tuple[Any, ...], Callable[[], None]] = {}
        signature = f"{ROOT}::handleInitialized()"
        self.trace(9, signature, "void OpenStack::" + signature)

    # Events.

    def load(self, document: Any) -> Step:
        """Apply the first document, as one patch on nothing."""
        return self.step(lambda: self.patch(document))

    def event(self, event: Any) -> Step:
        """Apply one event; a text is a line of the stream as it was written."""
        return self.step(lambda: self.apply_event(event))

    def step(self, work: Callable[[], None]) -> Step:
        try:
            work()
            result = Step(True, self.now, self.published.document(), self.lines,
                          self.published.open_questions())
        except Refused as refusal:
            result = Step(False, lines=self.lines, places=refusal.places)
        self.lines = []
        return result

    def apply_event(self, event: Any) -> None:
        if isinstance(event, str):
            try:
                event = parse(event)
            except RepeatedMember:
                raise Refused([]) from None
        if not isinstance(event, dict) or len(event) != 1:
            raise Refused([])
        (kind, value), = event.items()
        if kind == "patch":
            self.patch(value)
        elif kind == "advance":
            if type(value) not in (int, float) or not 0 <= value <= MAX_SECONDS:
                raise Refused([])
            self.advance(float(value))
        elif kind == "regionSyncTimeout":
            if not is_seconds(value):
                raise Refused([])
            self.timeout_given(float(value))
        else:
            raise Refused([])

    def patch(self, patch: Any) -> None:
        """Merge a patch, check the outcome and apply the difference in its four phases."""
        merged = merge(self.document, patch)
        found: list[Fault] = faults(merged)
        if found:
            raise Refused([place for fault in found for place in fault.places])
        before, after = read_cloud(self.document), read_cloud(merged)
        timeouts = (self.wanted_timeout(self.document), self.wanted_timeout(merged))
        for phase in plan(before, after, patch, self.toggle_on, timeouts):
            for operation, *arguments in phase:
                getattr(self, operation)(*arguments)
            self.run_until_idle()
        self.document = merged

    def wanted_timeout(self, document: dict[str, Any]) -> float:
        config = document.get("config", {})
        for name in ("regionSyncTimeout", "defaultRegionSyncTimeout"):
            if name in config:
                return float(config[name])
        return self.first_timeout

    def advance(self, seconds: float) -> None:
        end = self.now + seconds
        while True:
            region = min(self.cloud, key=lambda name: self.cloud[name].deadline, default=None)
            if region is None or self.cloud[region].deadline > end:
                break
            self.now = max(self.now, self.cloud[region].deadline)
            self.cloud[region].deadline = inf
            self.heartbeat_missed(region)
            self.run_until_idle()
        self.now = end

    # The activity loop.

    def later(self, work: Callable[..., None], *arguments: Any) -> None:
        """Leave work for the loop; what waits already is not left twice."""
        self.waiting.setdefault((work.__name__, *arguments), lambda: work(*arguments))

    def run_until_idle(self) -> None:
        while self.waiting:
            work = self.waiting.pop(next(iter(self.waiting)))
            work()

    def trace(self, level: int, signature: str, *parts: str | int | float | bytes) -> None:
        message = without_run_values(message_text(parts))
        self.lines.append(Line(level, "void OpenStack::" + signature, message))

    # Operations on the agent's configuration.

    def timeout_given(self, seconds: float) -> None:
        if seconds == self.timeout:
            return
        self.timeout = seconds
        self.trace(9, f"{ROOT}::handleRegionSyncTimeout()", "Region sync timeout: ", seconds)
        for region in self.cloud.values():
            region.timeout = seconds

    def driver_written(self, driver: int) -> None:
        self.driver = driver
        self.later(self.handle_driver)

    def handle_driver(self) -> None:
        self.trace(9, f"{ROOT}::handleVlanTypeDriver()")
        for name in self.assignments:
            if self.driver == 0:
                self.refill_pool(name)
            elif self.driver == 1 and name in self.published.statuses:
                self.published.statuses[name].assigned.clear()
                self.published.statuses[name].available.clear()

    def assignment_added(self, name: str, entries: dict[int, bool]) -> None:
        self.assignments[name] = dict(entries)
        self.refill_pool(name)

    def assignment_gone(self, name: str) -> None:
        del self.assignments[name]
        self.refill_pool(name)

    def vlan_entry_set(self, name: str, vlan: int, value: bool) -> None:
        self.assignments[name][vlan] = value
        self.later(self.handle_vlan_entry, name, vlan)

    def vlan_entry_gone(self, name: str, vlan: int) -> None:
        del self.assignments[name][vlan]
        self.later(self.handle_vlan_entry, name, vlan)

    def refill_pool(self, name: str) -> None:
        """Make a region's pool from its assignment, keeping what is allocated."""
        signature = f"{ROOT}::handleRegionVlanAssignment(Kiv::Name)"
        self.trace(9, signature, name)
        status = self.published.statuses.get(name)
        if self.driver != 0 or not status:
            return
        self.stamp(status, signature)
        assigned = {vlan for vlan, value in self.assignments.get(name, {}).items() if value}
        status.assigned = assigned
        status.available = assigned - status.allocated

    def handle_vlan_entry(self, name: str, vlan: int) -> None:
        if name not in self.assignments:
            return
        status = self.published.statuses.get(name)
        if self.driver != 0 or not status:
            return
        self.stamp(status, f"{ROOT}::KivVlanAssignment::handleVlanAssignment(U16)")
        if self.assignments[name].get(vlan):
            status.assigned.add(vlan)
            if vlan not in status.allocated:
                status.available.add(vlan)
        else:
            status.available.discard(vlan)
            status.assigned.discard(vlan)

    def stamp(self, status: Status, signature: str) -> None:
        status.uuid = str(uuid.uuid4())
        self.trace(3, signature, "VLAN assignment UUID: ", status.uuid)

    # Operations on regions.

    def region_added(self, name: str) -> None:
        self.cloud[name] = Region(self.timeout)
        self.later(self.handle_region, name)

    def counts_set(self, name: str, counts: dict[str, int]) -> None:
        self.cloud[name].counts = counts

    def region_gone(self, name: str) -> None:
        del self.cloud[name]
        self.later(self.handle_region, name)

    def handle_region(self, name: str) -> None:
        signature = f"{ROOT}::handleRegion(Kiv::Name)"
        self.trace(9, signature, "void OpenStack::", signature, " ", name)
        if name not in self.cloud:
            self.trace(2, signature, "Region config sm: 0x0")
            del self.published.statuses[name]
            return
        self.published.statuses[name] = Status()
        self.refill_pool(name)
        self.start_region(name)

    def start_region(self, name: str) -> None:
        region = self.cloud[name]
        signature = f"{REGION}::handleInitialized()"
        self.trace(9, signature, "void OpenStack::" + signature)
        for text, counted in (("VMs: ", "vmInstance"), ("DHCPs: ", "dhcpInstance"),
                              ("Baremetals: ", "baremetalInstance"), ("Networks: ", "network")):
            self.trace(2, signature, text, region.counts[counted])
        for segment in sorted(region.segments):
            self.trace(2, signature, "Segment id: ", segment)
            self.handle_segment(name, segment)
        self.rounds += 1
        self.publisher.round = self.rounds
        for port in sorted(region.bindings):
            self.trace(2, signature, "Port: ", port)
            self.handle_port_binding(name, port)
        self.publisher.round = 0
        self.handle_sync_status(name)

    def followed(self, name: str) -> bool:
        """Whether a region is followed already: a new one is seen whole, by the loop."""
        return name in self.published.statuses

    # Segments and the VLAN pool.

    def segment_added(self, name: str, segment: Segment) -> None:
        self.cloud[name].segments[segment.id] = segment
        if self.followed(name):
            self.later(self.handle_segment, name, segment.id)

    def segment_gone(self, name: str, segment_id: str) -> None:
        segment = self.cloud[name].segments.pop(segment_id)
        self.trace(9, f"{REGION}::KivSegment::handleCleanup()", segment_id)
        if segment.is_vlan:
            status = self.published.statuses[name]
            status.allocated.discard(segment.number)
            if segment.number in status.assigned:
                status.available.add(segment.number)
        self.later(self.handle_segment, name, segment_id)

    def handle_segment(self, name: str, segment_id: str) -> None:
        signature = f"{REGION}::handleSegment(Kiv::String)"
        self.trace(9, signature, segment_id)
        region = self.cloud.get(name)
        segment = region.segments.get(segment_id) if region else None
        if not segment:
            self.trace(2, signature, "Segment ", segment_id, " deleted")
            return
        self.trace(2, signature, "Segment ", segment_id, " created")
        if not segment.is_vlan:
            self.trace(2, signature, "Ignoring ", segment.kind_text, " segment")
            return
        status = self.published.statuses[name]
        if segment.number in status.assigned:
            status.available.discard(segment.number)
        status.allocated.add(segment.number)

    # Ports and their bindings.

    def port_added(self, name: str, port: str, vlan_type: int) -> None:
        self.cloud[name].ports[port] = vlan_type

    def port_gone(self, name: str, port: str) -> None:
        del self.cloud[name].ports[port]

    def port_binding_added(self, name: str, port: str) -> None:
        region = self.cloud[name]
        region.bindings[port] = PortBinding(name, port, region.ports[port] == 1)
        if self.followed(name):
            self.later(self.handle_port_binding, name, port)

    def port_binding_gone(self, name: str, port: str) -> None:
        binding = self.cloud[name].bindings.pop(port)
        self.trace(9, f"{REGION}::KivPortBinding::handleCleanup()", port)
        self.publisher.end_port(binding)
        self.later(self.handle_port_binding, name, port)

    def handle_port_binding(self, name: str, port: str) -> None:
        self.trace(9, f"{REGION}::handlePortBinding(Kiv::String)", port)
        region = self.cloud.get(name)
        binding = region.bindings.get(port) if region else None
        if binding:
            self.publisher.start_port(binding)

    def binding_added(self, name: str, port: str, key: BindingKey, host: str) -> None:
        owner = self.cloud[name].bindings[port]
        binding = Binding(name, port, owner.native, key, host)
        owner.bindings[key] = binding
        if owner.followed:
            self.later(self.handle_binding, name, port, key)

    def handle_binding(self, name: str, port: str, key: BindingKey) -> None:
        self.publisher.follow(self.cloud[name].bindings[port], key)

    def binding_gone(self, name: str, port: str, key: BindingKey) -> None:
        binding = self.cloud[name].bindings[port].bindings.pop(key)
        self.publisher.binding_left(binding)
        self.waiting.setdefault(("binding_gone", name, port, key),
                                lambda: self.publisher.binding_gone(binding))

    def level_added(self, name: str, port: str, key: BindingKey, level: int,
                    segment_id: str) -> None:
        region = self.cloud[name]
        binding = region.bindings[port].bindings[key]
        binding.levels[level] = region.segments[segment_id]
        if binding.followed:
            self.later(self.handle_level, name, port, key, level)

    def level_gone(self, name: str, port: str, key: BindingKey, level: int) -> None:
        binding = self.cloud[name].bindings[port].bindings[key]
        segment = binding.levels.pop(level)
        self.publisher.withdraw_level(binding, level, segment)
        self.later(self.handle_level, name, port, key, level)

    def handle_level(self, name: str, port: str, key: BindingKey, level: int) -> None:
        binding = self.cloud[name].bindings[port].bindings[key]
        self.publisher.publish_level(binding, level)

    # A region's synchronisation with its driver.

    def region_scalar_written(self, name: str, scalar: str, value: Any) -> None:
        self.cloud[name].scalars[scalar] = value
        handlers = {"requester": self.handle_requester, "requestId": self.handle_request_id,
                    "syncHeartbeat": self.handle_heartbeat, "syncStatus": self.handle_sync_status}
        if scalar in handlers:
            self.later(handlers[scalar], name)

    def handle_sync_status(self, name: str) -> None:
        signature = f"{REGION}::handleSyncStatus()"
        region, status = self.cloud[name], self.published.statuses[name]
        text = region.scalars["syncStatus"]
        requested = SYNC_STATUS.index(text)
        self.trace(9, signature, " Sync region ", name, " changed to ", text)
        if requested == COMPLETE and status.sync != IN_PROGRESS:
            self.trace(1, signature, "Region ", name,
                       " attempted to transition to syncComplete from ", SYNC_STATUS[status.sync],
                       ". Not altering status.")
            return
        status.old_sync, status.sync = status.sync, requested
        if requested == COMPLETE:
            region.deadline = inf
            status.owner = status.request_id = ""
        elif requested == IN_PROGRESS:
            self.handle_heartbeat(name)

    def handle_heartbeat(self, name: str) -> None:
        self.trace(9, f"{REGION}::handleHeartbeat()")
        self.cloud[name].deadline = self.now + self.cloud[name].timeout

    def heartbeat_missed(self, name: str) -> None:
        signature = f"{REGION}::handleSyncHeartbeatTimeout()"
        status = self.published.statuses[name]
        self.trace(9, signature, name)
        self.trace(3, signature, "Releasing the lock from ", status.owner)
        status.owner = status.request_id = ""
        status.old_sync, status.sync = status.sync, TIMED_OUT

    def handle_requester(self, name: str) -> None:
        self.handle_lock_request(name)

    def handle_request_id(self, name: str) -> None:
        self.handle_lock_request(name)

    def handle_lock_request(self, name: str) -> None:
        signature = f"{REGION}::handleLockRequest()"
        scalars, status = self.cloud[name].scalars, self.published.statuses[name]
        requester, request_id = scalars["requester"], scalars["requestId"]
        self.trace(9, signature, name, " Received lock request from ", requester, " with id ",
                   request_id)
        if not request_id:
            self.trace(3, signature, "Request id not set. Ignoring the request.")
            if not requester:
                self.trace(3, signature, "Clearing the lock")
                status.owner = status.request_id = ""
        elif not status.request_id and status.owner in ("", requester):
            self.trace(3, signature, "Granted lock to ", requester)
            status.owner, status.request_id = requester, request_id
        else:
            self.trace(3, signature, "Did not grant a lock request")
