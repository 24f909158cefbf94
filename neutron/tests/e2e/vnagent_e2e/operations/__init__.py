"""Random operations on Neutron's API, as Nova, Ironic, users and administrators do them.

A `Player` is one client: it owns its ports, trunks and routers, shares the networks and the
baremetal nodes with the other players, and does one random operation after the other. Operations
are left unfinished on purpose: a migration or a trunk of one operation is met by later ones in
whatever state it is, and anything may be deleted at any time. Where a server gives no answer, what
has become of the request is unknown; the player then reads its objects anew and goes on.
"""

from .player import Player
from .shared import Network, Shared

__all__ = ["Network", "Player", "Shared"]
