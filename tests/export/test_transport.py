"""Databases that are reached by TCP and by TLS, with certificates made for the test."""

from __future__ import annotations

import subprocess
import unittest
from pathlib import Path

from database import wait_for
from exporter import Exporter, ExportTest, host, output


def openssl(*arguments: str | Path) -> None:
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


class Authority:
    """A certificate authority in a folder, which signs what it is asked for."""

    def __init__(self, folder: Path, name: str) -> None:
        self.folder = folder / name
        self.folder.mkdir()
        self.certificate = self.folder / "ca.pem"
        self.key = self.folder / "ca-key.pem"
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                f"/CN={name}", "-keyout", self.key, "-out", self.certificate)

    def issue(self, name: str) -> tuple[Path, Path]:
        """A certificate of that name, and its key."""
        request, certificate, key = (self.folder / f"{name}{suffix}.pem"
                                     for suffix in ("-request", "", "-key"))
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-keyout", key,
                "-out", request)
        openssl("x509", "-req", "-days", "2", "-in", request, "-CA", self.certificate, "-CAkey",
                self.key, "-CAcreateserial", "-out", certificate)
        return certificate, key


class TransportTest(ExportTest):
    """leaf-1 by its Unix socket, leaf-2 by TCP, leaf-3 by TLS, in one map."""

    first = output({"compute-1": host({100: [1], 101: []}), "compute-2": host({5: [1]}),
                    "bonded": host({7: [1]})},
                   {"leaf-3": {"swp1": {"vlan": host({9: [1]})["vlan"], "nativeVlan": 9}}})
    second = output({"compute-1": host({100: [2]}), "compute-2": host({5: [1], 6: [2]})},
                    {"leaf-3": {"swp1": {"vlan": host({9: [2]})["vlan"], "nativeVlan": 0}}})

    def setUp(self) -> None:
        super().setUp()
        self.authority = Authority(self.folder, "fabric-ca")
        certificate, key = self.authority.issue("leaf-3")
        options: list[str]
        for name, options in (("leaf-2", []),
                              ("leaf-3", [f"--certificate={certificate}", f"--private-key={key}",
                                          f"--ca-cert={self.authority.certificate}"])):
            database = self.databases[name]
            self.map["switches"][name]["tunnelIp"] = self.addresses[name]
            self.map["switches"][name]["database"] = database.listen(
                "ssl" if options else "tcp", *options)
        self.client(self.authority)

    def client(self, authority: Authority, authorities: Path | None = None) -> None:
        """The exporter's side: a certificate of this authority, and whom the exporter trusts."""
        certificate, key = authority.issue("exporter")
        self.map["tls"] = {"certificate": str(certificate), "privateKey": str(key),
                           "authorities": str(authorities or self.authority.certificate)}

    def test_the_transport_makes_no_difference(self) -> None:
        exporter = self.exporter()
        for document in (self.first, self.second, output()):
            self.export(exporter, document)

    def test_servers_are_followed_over_restarts(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.first)
        for name in ("leaf-2", "leaf-3"):
            self.databases[name].kill()
        exporter.send(self.second)
        exporter.wait("leaf-2", "leaf-3")
        for name in ("leaf-2", "leaf-3"):
            wait_for("the loss is noticed", lambda: ("unreachable", name) in exporter.problems())
        for name in ("leaf-2", "leaf-3"):
            self.databases[name].start()
        exporter.wait()
        self.expect(self.second)
        self.assertEqual(set(), exporter.problems())

    def test_a_full_transaction_goes_through_tls(self) -> None:
        vlans = {vlan: [vlan] for vlan in range(1, 1001)}
        document = output(ports={"leaf-3": {"swp1": {"vlan": host(vlans)["vlan"],
                                                     "nativeVlan": 0}}})
        self.export(self.exporter(), document)

    def refused(self, exporter: Exporter) -> None:
        """leaf-3 is not written, and that is reported; the others are."""
        exporter.send(self.first)
        exporter.wait("leaf-3")
        wait_for("it is reported", lambda: ("unreachable", "leaf-3") in exporter.problems())
        self.expect(self.first, only={"leaf-1"})
        self.assertEqual({}, self.databases["leaf-3"].view()["bindings"])
        self.assertFalse(exporter.status()["switches"]["leaf-3"]["synced"])

    def test_a_server_of_another_authority_is_not_written(self) -> None:
        stranger = Authority(self.folder, "other-ca")
        self.client(self.authority, stranger.certificate)
        exporter = self.exporter()
        self.refused(exporter)
        self.assertIn("certificate verify failed", exporter.log.read_text())

    def test_a_server_that_refuses_the_certificate_is_reported(self) -> None:
        self.client(Authority(self.folder, "other-ca"))
        self.refused(self.exporter())

    def test_files_that_are_missing_are_reported(self) -> None:
        self.map["tls"]["authorities"] = str(self.folder / "nothing.pem")
        exporter = self.exporter()
        self.refused(exporter)
        self.assertIn("nothing.pem", exporter.log.read_text())


if __name__ == "__main__":
    unittest.main()
