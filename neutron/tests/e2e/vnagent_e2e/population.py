"""Many bound ports at once: copies of the rows of ports that were bound through the API.

Through the API, a few hundred ports take minutes. What is copied is as the API made it, but for the
host, which is another one of the same rack, and so has the same VLAN.
"""

from __future__ import annotations

import uuid
from collections.abc import Mapping, Sequence
from typing import Any

from .database import Database

Json = dict[str, Any]


def insert(cursor: Any, table: str, row: Json) -> None:
    columns = ", ".join(f"`{name}`" for name in row)
    values = ", ".join(["%s"] * len(row))
    cursor.execute(f"INSERT INTO {table} ({columns}) VALUES ({values})", list(row.values()))


def clone_ports(database: Database, racks: Mapping[str, Sequence[str]], templates: Sequence[str],
                count: int, names: Sequence[str] = ("",)) -> None:
    """Adds `count` ports, each a copy of one of `templates`, on the hosts of their racks in turn.
    `racks` has the hosts of each rack; the ports get `names` in turn."""
    rack_of = {host: rack for rack, hosts in racks.items() for host in hosts}
    with database.connect() as connection, connection.cursor() as cursor:
        def select(table: str, column: str, value: Any) -> list[Json]:
            cursor.execute(f"SELECT * FROM {table} WHERE {column} = %s", value)
            return list(cursor.fetchall())

        rows = []
        for port in templates:
            own = select("ports", "id", port)[0]
            rows.append((own, select("standardattributes", "id", own["standard_attr_id"])[0],
                         select("ml2_port_bindings", "port_id", port)[0],
                         select("ml2_port_binding_levels", "port_id", port)))
        for number in range(count):
            own, attributes, binding, levels = rows[number % len(rows)]
            hosts = racks[rack_of[binding["host"]]]
            host = hosts[number // len(rows) % len(hosts)]
            new = str(uuid.UUID(int=(0xc10e << 112) + number))
            address = ":".join(f"{byte:02x}" for byte in number.to_bytes(5, "big"))
            insert(cursor, "standardattributes", {**attributes, "id": None})
            insert(cursor, "ports", {
                **own, "id": new, "standard_attr_id": cursor.lastrowid,
                "name": names[number % len(names)], "device_id": new,
                "mac_address": "02:" + address})
            insert(cursor, "ml2_port_bindings", {**binding, "port_id": new, "host": host})
            for level in levels:
                insert(cursor, "ml2_port_binding_levels", {**level, "port_id": new, "host": host})
        connection.commit()
