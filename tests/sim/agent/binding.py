"""Port bindings: what a binding to a host or to a switch interface publishes and withdraws.

Each method is one thing that happens to a binding, with the trace lines that it writes.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Callable

from published import Carrier, Element, Host, Interface, Published, References, SwitchPort
from view import BindingKey, Segment

Trace = Callable[..., None]

PORT = "PortBindingSm"
HOST = "PortToHostBindingSm"
SWITCH = "PortToSwitchInterfaceBindingSm"
SWITCH_ARGUMENT = "(const VirtualNetwork::SwitchInterface&)"


@dataclass
class Binding:
    """A port's binding to a host or a switch interface, as the cloud has it now."""

    region: str
    port: str
    native: bool
    key: BindingKey
    host: str
    levels: dict[int, Segment] = field(default_factory=dict)
    # Whether the loop has seen it; what is added to it before that is seen with it.
    followed: bool = False

    @property
    def on_host(self) -> bool:
        return self.key[0] == "host"

    @property
    def place(self) -> str:
        """Where the port is bound, as traces print it."""
        return self.host if self.on_host else f"{self.key[1]}:{self.key[2]}"

    @property
    def referrer(self) -> str:
        """Who needs a switch port or a network element."""
        return "bm-" + self.port

    def vxlan_above(self, level: int) -> Segment | None:
        above = self.levels.get((level - 1) % 256)
        return above if above and above.is_vxlan else None

    def vlan_below(self, level: int) -> Segment | None:
        below = self.levels.get((level + 1) % 256)
        return below if below and below.is_vlan else None


@dataclass
class PortBinding:
    """One port's binding, with the bindings that the cloud gives it."""

    region: str
    port: str
    native: bool
    bindings: dict[BindingKey, Binding] = field(default_factory=dict)
    followed: bool = False


class Publisher:
    """Writes into the published collections what bindings ask for."""

    def __init__(self, published: Published, toggle_on: bool, trace: Trace) -> None:
        self.published = published
        self.toggle_on = toggle_on
        self.trace = trace
        # Not 0 while port bindings are gone through in no particular order.
        self.round = 0

    # A whole port binding.

    def start_port(self, port: PortBinding) -> None:
        """The port binding is followed from now on; what it already has is published."""
        port.followed = True
        self.trace(9, f"{PORT}::handleInitialized()")
        for key in sorted(port.bindings):
            self.follow(port, key)

    def end_port(self, port: PortBinding) -> None:
        """The port binding goes: each binding is withdrawn and forgotten, hosts first."""
        self.trace(9, f"{PORT}::doCleanup()")
        for key in sorted(port.bindings):
            binding = port.bindings[key]
            kind = "portToHostBindingSm" if binding.on_host else "portToSwitchIterfaceBindingSm"
            self.trace(2, f"{PORT}::doCleanup()", f"Cleaning up {kind} for ", binding.place)
            self.withdraw(binding)
            self.forget(binding)

    # One binding of a port.

    def follow(self, port: PortBinding, key: BindingKey) -> None:
        """A binding was added: publish what belongs to it as a whole, then its levels."""
        binding = port.bindings[key]
        binding.followed = True
        if binding.on_host:
            self.trace(9, f"{PORT}::handlePortToHostBinding(Kiv::Name)", binding.host)
            host = self.published.hosts.setdefault(binding.host, Host())
            host.domains.setdefault(binding.region, set()).add(binding.port)
            assert len(host.domains) == 1, "host->domains() == 1"
        else:
            handler = f"{PORT}::handlePortToSwitchInterfaceBinding{SWITCH_ARGUMENT}"
            self.trace(9, handler, binding.place)
            self.trace(2, handler, "Port ", binding.referrer, " bound")
            if self.toggle_on:
                self.publish_switch_port(binding)
            else:
                self.publish_elements(binding)
        self.trace(9, f"{HOST if binding.on_host else SWITCH}::handleInitialized()")
        for level in sorted(binding.levels):
            self.publish_level(binding, level)

    def publish_switch_port(self, binding: Binding) -> None:
        entry = self.published.switch_ports.setdefault(switch_interface(binding), SwitchPort())
        entry.remote_hosts.add(binding.host)
        entry.referrer.add(binding.referrer)

    def publish_elements(self, binding: Binding) -> None:
        _, switch_name, interface = binding.key
        elements = self.published.elements
        switch = elements.setdefault(switch_name, Element())
        switch.referrer.add(binding.referrer)
        host = elements.setdefault(binding.host, Element())
        host.referrer.add(binding.referrer)
        host.hostname = binding.host
        host.domains.setdefault(binding.region, set()).add(binding.port)
        assert len(host.domains) == 1, "hostElement->domains() == 1"
        switch.interfaces.setdefault(interface, Interface()).configured.add(binding.host)

    def binding_left(self, binding: Binding) -> None:
        """A binding was taken out of its port binding: withdraw it at once."""
        kind = "KivPortToHostBinding" if binding.on_host else "KivPortToSwitchInterfaceBinding"
        self.trace(9, f"{PORT}::{kind}::doCleanup()")
        self.withdraw(binding)

    def binding_gone(self, binding: Binding) -> None:
        """The activity loop learns that a binding was taken out."""
        if binding.on_host:
            self.trace(9, f"{PORT}::handlePortToHostBinding(Kiv::Name)", binding.host)
        else:
            handler = f"{PORT}::handlePortToSwitchInterfaceBinding{SWITCH_ARGUMENT}"
            self.trace(9, handler, binding.place)
            self.trace(2, handler, "Port unbound")
        self.forget(binding)

    def forget(self, binding: Binding) -> None:
        """Drop a withdrawn binding. As it ends, every level traces its entry once more."""
        if binding.on_host:
            self.leave_domain(binding)
        else:
            self.trace(9, f"{PORT}::doCleanupPortToSwitchInterfaceBinding{SWITCH_ARGUMENT}",
                       binding.place)
        handler = f"{HOST if binding.on_host else SWITCH}::KivSegment::doCleanup()"
        for level in sorted(binding.levels):
            self.trace(9, handler, binding.port, " : ", binding.levels[level].id)

    def leave_domain(self, binding: Binding) -> None:
        handler = f"{PORT}::doCleanupPortToHostBinding(Kiv::Name)"
        self.trace(9, handler, binding.host)
        host = self.published.hosts.get(binding.host)
        if host and binding.region in host.domains:
            self.drop_domain(host.domains, binding, handler)

    def drop_domain(self, domains: dict[str, set[str]], binding: Binding, handler: str) -> None:
        domains[binding.region].discard(binding.port)
        if not domains[binding.region]:
            self.trace(2, handler, "Deleting region ", binding.region, " from host ", binding.host)
            del domains[binding.region]

    def withdraw(self, binding: Binding) -> None:
        """Take back everything that a binding published, but for a host's domain."""
        handler = f"{HOST if binding.on_host else SWITCH}::doCleanup()"
        place = binding.host if binding.on_host else f"{binding.key[1]} : {binding.key[2]}"
        self.trace(9, handler, "Removing port ", binding.port, " from ", place)
        for level in sorted(binding.levels):
            segment = binding.levels[level]
            self.trace(9, handler, "Port connected to segment : ", segment.kind_text,
                       segment.number)
            self.withdraw_level(binding, level, segment)
        if not binding.on_host:
            if self.toggle_on:
                self.withdraw_switch_port(binding)
            else:
                self.withdraw_elements(binding, handler)

    def withdraw_switch_port(self, binding: Binding) -> None:
        entry = self.published.switch_ports.get(switch_interface(binding))
        if entry:
            entry.referrer.discard(binding.referrer)
            if not entry.referrer:
                del self.published.switch_ports[switch_interface(binding)]

    def withdraw_elements(self, binding: Binding, handler: str) -> None:
        _, switch_name, name = binding.key
        switch = self.published.elements.get(switch_name)
        host = self.published.elements.get(binding.host)
        if host:
            if binding.region in host.domains:
                self.drop_domain(host.domains, binding, handler)
            host.referrer.discard(binding.referrer)
        if not switch:
            return
        switch.referrer.discard(binding.referrer)
        interface = switch.interfaces.get(name)
        if not interface or (host and host.referrer):
            return
        interface.configured.discard(binding.host)
        if not interface.configured and not interface.vlans:
            self.trace(2, handler, "Removing interface : ", name, " from ", switch_name)
            del switch.interfaces[name]

    # One level of a binding.

    def carrier(self, binding: Binding) -> Carrier | None:
        """What the binding's VLANs are put on."""
        if binding.on_host:
            return self.published.hosts.get(binding.host)
        if self.toggle_on:
            return self.published.switch_ports.get(switch_interface(binding))
        switch = self.published.elements.get(binding.key[1])
        return switch.interfaces.get(binding.key[2]) if switch else None

    def publish_level(self, binding: Binding, level: int) -> None:
        """A level was added or went; what is gone was withdrawn already."""
        if binding.on_host:
            self.publish_host_level(binding, level)
        else:
            self.publish_switch_level(binding, level)

    def publish_host_level(self, binding: Binding, level: int) -> None:
        handler = f"{HOST}::handleSegment(U8)"
        segment = binding.levels.get(level)
        if not segment:
            self.trace(2, handler, "Port on ", binding.host, " unbound at level ", bytes([level]))
            return
        self.trace_bound(binding, level, segment, handler)
        host = self.published.hosts.setdefault(binding.host, Host())
        if segment.is_vlan:
            entry = host.vlan(segment.number)
            entry.referrer.add(binding.port)
            above = binding.vxlan_above(level)
            if level and above:
                self.trace(2, handler, "Establishing a VLAN to VNI mapping from ", segment.number,
                           " to ", above.number)
                entry.vnis.setdefault(above.number, set()).add(binding.port)
        elif segment.is_vxlan:
            self.map_vlan_below(host, binding, level, segment, handler)

    def publish_switch_level(self, binding: Binding, level: int) -> None:
        handler = f"{SWITCH}::handleSegment(U8)"
        self.trace(9, handler, binding.port, " is on ", binding.place)
        _, switch, interface = binding.key
        if not switch or not interface:
            self.trace(1, handler, "Map is empty!!!")
            return
        segment = binding.levels.get(level)
        if not segment:
            return
        self.trace_bound(binding, level, segment, handler)
        carrier = self.carrier(binding)
        assert carrier is not None, "the binding's switch port or interface is published"
        if segment.is_vlan:
            vlan, where = segment.number, f" on switchport {switch} : {interface}"
            self.trace(2, handler, "Adding VLAN ", vlan, where)
            entry = carrier.vlan(vlan)
            entry.referrer.add(binding.port)
            self.trace(2, handler, "VLAN ", vlan, where, " now host ", len(entry.referrer),
                       " references to it.")
            if binding.native:
                self.trace(3, handler, "Adding native vlan ", vlan)
                carrier.set_native(vlan, binding.port, self.round)
            above = binding.vxlan_above(level)
            if level and above:
                entry.vnis.setdefault(above.number, set()).add(binding.port)
        elif segment.is_vxlan:
            self.map_vlan_below(carrier, binding, level, segment, handler)

    def trace_bound(self, binding: Binding, level: int, segment: Segment, handler: str) -> None:
        self.trace(2, handler, "Port on ", binding.place, " bound to segment ", segment.id, " : ",
                   segment.kind_text, " : ", segment.number, " at level : ",
                   bytes([(ord("0") + level) % 256]))

    def map_vlan_below(self, carrier: Carrier, binding: Binding, level: int, vxlan: Segment,
                       handler: str) -> None:
        below = binding.vlan_below(level)
        if below:
            self.trace(2, handler, "Establishing a VNI to VLAN mapping from ", vxlan.number,
                       " to ", below.number)
            carrier.vlan(below.number).vnis.setdefault(vxlan.number, set()).add(binding.port)

    def withdraw_level(self, binding: Binding, level: int, segment: Segment) -> None:
        """Take back what a level published. A VXLAN segment takes back nothing by itself: its
        VNI goes with the VLAN below it."""
        handler = f"{HOST if binding.on_host else SWITCH}::KivSegment::doCleanup()"
        self.trace(9, handler, binding.port, " : ", segment.id)
        carrier = self.carrier(binding)
        if not carrier or not segment.is_vlan:
            return
        vlan = segment.number
        if binding.on_host:
            entry = carrier.vlans.get(vlan)
            if not entry:
                return
        else:
            entry = carrier.vlan(vlan)
        self.withdraw_vni(entry, binding, level, handler)
        entry.referrer.discard(binding.port)
        self.trace(2, handler, "Removing a reference to VLAN ", vlan,
                   " on host " if binding.on_host else " on switchport ", binding.place,
                   " which now has ", len(entry.referrer), " references to it.")
        if not entry.referrer:
            self.trace(3, handler, "Removing vlan ", vlan,
                       *((" from ", binding.host) if binding.on_host else ()))
            del carrier.vlans[vlan]
        if not binding.on_host and binding.native:
            carrier.clear_native()
            self.trace(3, handler, "Removing native vlan ", vlan)

    def withdraw_vni(self, entry: References, binding: Binding, level: int, handler: str) -> None:
        above = binding.vxlan_above(level)
        if not above or above.number not in entry.vnis:
            return
        entry.vnis[above.number].discard(binding.port)
        if not entry.vnis[above.number]:
            if binding.on_host:
                self.trace(3, handler, "Removing VNI ", above.number, " from ", binding.host)
            del entry.vnis[above.number]


def switch_interface(binding: Binding) -> tuple[str, str]:
    """The key of a binding's switch port."""
    return binding.key[1], binding.key[2]
