"""The client of the database against servers that know less, cut what they send into pieces, end
the connection at any message, refuse a change, or send what the protocol does not know."""

import json
import socket
import threading
import unittest
from pathlib import Path
from typing import Any

from database import wait_for
from exporter import ExportTest, host, output

UNKNOWN = {"error": "unknown method", "details": "not here", "syntax": ""}


class Proxy:
    """Stands between an exporter and a database."""

    def __init__(self, path: Path, target: Path, refused: frozenset[str] = frozenset(),
                 piece: int = 1 << 20, last: int | None = None,
                 lies: tuple[bytes, ...] = (), unwanted: str | None = None) -> None:
        self.target = target
        self.refused = refused
        self.piece = piece
        self.last = last  # how many messages of the first connection pass; None: all
        self.lies = list(lies)  # the first answers
        self.unwanted = unwanted  # a transaction with this text in it is refused
        self.methods: list[str] = []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self) -> None:
        self.listener.close()

    def accept(self) -> None:
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            server = socket.socket(socket.AF_UNIX)
            server.connect(str(self.target))
            last, self.last = self.last, None
            threading.Thread(target=self.answer, args=(server, client), daemon=True).start()
            threading.Thread(target=self.ask, args=(client, server, last), daemon=True).start()

    def ask(self, client: socket.socket, server: socket.socket, last: int | None) -> None:
        decoder, rest = json.JSONDecoder(), ""
        try:
            while data := client.recv(1 << 20):
                rest += data.decode()
                while rest:
                    try:
                        message, end = decoder.raw_decode(rest)
                    except json.JSONDecodeError:
                        break
                    text, rest = rest[:end], rest[end:].lstrip()
                    self.pass_on(message, text, client, server)
                    if last is not None and (last := last - 1) == 0:
                        return
        except OSError:
            pass
        finally:
            for one in (client, server):
                try:
                    one.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def pass_on(self, message: Any, text: str, client: socket.socket,
                server: socket.socket) -> None:
        self.methods.append(message.get("method", ""))
        if self.lies:
            client.sendall(self.lies.pop(0))
        elif (message.get("method") == "transact" and self.unwanted is not None
                and self.unwanted in text):
            fault = {"error": "constraint violation", "details": f"no {self.unwanted}"}
            reply = {"result": [None, fault], "error": None, "id": message["id"]}
            client.sendall(json.dumps(reply).encode())
        elif message.get("method") in self.refused:
            reply = {"result": None, "error": UNKNOWN, "id": message["id"]}
            client.sendall(json.dumps(reply).encode())
        else:
            server.sendall(text.encode())

    def answer(self, server: socket.socket, client: socket.socket) -> None:
        try:
            while data := server.recv(1 << 20):
                for at in range(0, len(data), self.piece):
                    client.sendall(data[at:at + self.piece])
        except OSError:
            pass


class ProtocolTest(ExportTest):
    first = output({"compute-1": host({100: [1], 101: []}), "compute-2": host({5: [1]})})
    second = output({"compute-1": host({100: [2]}), "compute-2": host({5: [1], 6: [2]})})

    def proxies(self, number: int, **options: Any) -> list[Proxy]:
        found = []
        for i, (name, database) in enumerate(self.databases.items()):
            path = self.folder / f"proxy{number}-{i}"
            found.append(Proxy(path, database.socket, **options))
            self.addCleanup(found[-1].close)
            self.map["switches"][name]["database"] = f"unix:{path}"
        return found

    def check(self, number: int) -> None:
        exporter = self.exporter(name=f"exporter{number}")
        for document in (self.first, self.second, output()):
            self.export(exporter, document)
        exporter.kill()

    def test_older_ways_to_monitor_do_as_well(self) -> None:
        for number, refused in enumerate((["monitor_cond_since"],
                                          ["monitor_cond_since", "monitor_cond"])):
            with self.subTest(refused=refused):
                proxies = self.proxies(number, refused=frozenset(refused))
                self.check(number)
                for proxy in proxies:
                    self.assertLessEqual({*refused, "lock"}, set(proxy.methods))

    def test_messages_arrive_in_pieces(self) -> None:
        self.proxies(0, piece=3)
        self.check(0)

    def test_the_connection_ends_after_any_message(self) -> None:
        for last in range(1, 7):
            with self.subTest(last=last):
                self.proxies(last, last=last)
                self.check(last)

    def test_what_the_protocol_does_not_know_ends_the_connection(self) -> None:
        for number, (lie, reason) in enumerate((
                (b'{"id":1,"result":nul,"error":null}', "the server sent what is not JSON: "),
                (b'{"id":1,"result":"\xff","error":null}', "the server sent what is not JSON: "),
                (b"[]", "the server sent what is not JSON-RPC"),
                (b'{"id":1,"result":' + 200 * b"[", "the server sent what is not JSON-RPC"),
                (b'{"id":1}', "the server sent what is neither a request nor a reply"),
                (b'{"method":1,"params":[]}', "a request without method or params"),
                (b'{"method":"update3","params":["vnagent"]}', "update3 has another form"),
                (b'{"id":1,"result":[],"error":null}', "the database's schema has no tables"),
                (b'{"id":1,"result":null,"error":"no such database"}', "no such database"))):
            with self.subTest(lie=lie[:50]):
                self.proxies(number, lies=(lie,))
                self.check(number)
                self.assertIn(reason, (self.folder / f"exporter{number}.log").read_text())

    def test_what_a_switch_refuses_is_alone_and_the_rest_is_done(self) -> None:
        leaf = self.proxies(0, unwanted="vni66")[0]
        exporter = self.exporter()
        document = output({"compute-1": host({vlan: [vlan] for vlan in (64, 65, 66, 67)}),
                           "compute-2": host({64: [64]})})
        exporter.send(document)
        wait_for("the change is refused",
                 lambda: ("refused", "leaf-1") in exporter.problems())
        exporter.wait("leaf-1")
        wait_for("the rest is there", lambda: self.databases["leaf-1"].view()["bindings"].get(
            "swp1") == {64: "vni64", 65: "vni65", 67: "vni67"})
        self.expect(document, only={"leaf-2", "leaf-3"})
        self.assertIn("leaf-1: the database refuses a change: constraint violation: no vni66",
                      exporter.log.read_text())
        self.assertGreater(exporter.status()["switches"]["leaf-1"]["failures"], 0)
        leaf.unwanted = None
        exporter.wait_until_gone("refused")
        exporter.wait()
        self.expect(document)


if __name__ == "__main__":
    unittest.main()
