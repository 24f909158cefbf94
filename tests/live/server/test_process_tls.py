"""TCP with tokens, and TLS with client certificates."""

import contextlib
import http.client
import signal
import socket
import ssl

from process import Authority  # noqa: I001  (it sets the path)
from api.agent import DEADLINE, Agent, Client, LiveTest, free_port, poll, tcp_client, token_file


class Tokens(LiveTest):
    def setUp(self) -> None:
        """serve() starts the agent."""

    def serve(self, principals: dict[str, str], address: str = "127.0.0.1:0") -> int:
        self.agent = Agent()
        self.addCleanup(self.agent.close)
        self.tokens = token_file(self.agent.folder, principals)
        self.agent.options += ["--listen", address, "--tokens", self.tokens]
        self.agent.start()
        return self.port()

    def port(self) -> int:
        line = next(line for line in self.agent.log.read_text().splitlines()
                    if line.startswith("listening on http"))
        return int(line.rpartition(":")[2])

    def test_prints_the_port_that_the_system_chose(self) -> None:
        port = self.serve({"a": "read"}, "[::1]:0")
        connection = http.client.HTTPConnection("::1", port, timeout=DEADLINE)
        connection.request("GET", "/v1", headers={"Authorization": "Bearer token-of-a"})
        self.assertEqual(connection.getresponse().status, 200)
        connection.close()

    def test_a_token_says_who_it_is(self) -> None:
        port = self.serve({"a": "read", "b": "write:R,S"})
        for name, role in (("a", "read"), ("b", "write:R,S")):
            hello = self.ok(tcp_client(port, name).get("/v1"))
            self.assertEqual((hello["principal"], hello["role"]), (name, role))

    def test_no_token_or_a_wrong_one_is_nobody(self) -> None:
        port = self.serve({"a": "admin"})
        for headers in ({}, {"Authorization": "Bearer token-of-b"}, {"Authorization": "Bearer "},
                        {"Authorization": "Basic YTp0b2tlbi1vZi1h"},
                        {"Authorization": "Bearer token-of-a token-of-a"}):
            client = Client(lambda: http.client.HTTPConnection("127.0.0.1", port,
                                                               timeout=DEADLINE), headers)
            with self.subTest(headers=headers):
                self.refused(client.get("/v1"), 401, "unauthenticated")
                self.refused(client.patch({"region": {"R": {}}}), 401, "unauthenticated")
                self.assertEqual(client.get("/healthz").status, 200)
                self.assertEqual(client.get("/readyz").status, 200)
        self.assertEqual(self.agent.client.revision(), 0)

    def test_a_body_of_nobody_is_not_waited_for(self) -> None:
        port = self.serve({"a": "admin"})
        with socket.create_connection(("127.0.0.1", port), DEADLINE) as connection:
            connection.sendall(b"PATCH /v1/cloud HTTP/1.1\r\nHost: a\r\n"
                               b"Content-Length: 1000000\r\n\r\n{")
            self.assertTrue(connection.recv(100).startswith(b"HTTP/1.1 401 "))

    def test_a_hangup_reads_tokens_anew_and_keeps_them_when_it_cannot(self) -> None:
        port = self.serve({"a": "read"})
        token_file(self.agent.folder, {"b": "read"})
        self.agent.process.send_signal(signal.SIGHUP)
        poll(lambda: tcp_client(port, "b").get("/v1").status == 200, "the new token counts")
        self.assertEqual(tcp_client(port, "a").get("/v1").status, 401)
        with open(self.tokens, "a", encoding="utf-8") as file:
            file.write("not a line\n")
        self.agent.process.send_signal(signal.SIGHUP)
        poll(lambda: "keeps the certificates and tokens" in self.agent.log.read_text(), "it says so")
        self.assertEqual(tcp_client(port, "b").get("/v1").status, 200)

    def test_the_log_has_no_token(self) -> None:
        port = self.serve({"a": "write"})
        self.ok(tcp_client(port, "a").patch({"region": {"R": {}}}))
        tcp_client(port, "nobody").patch({})
        self.agent.terminate()
        log = self.agent.log.read_text()
        self.assertIn("principal=a", log)
        self.assertNotIn("token-of", log)


class Tls(LiveTest):
    cost = 5

    def setUp(self) -> None:
        self.agent = Agent()
        self.addCleanup(self.agent.close)
        self.authority = Authority(self.agent.folder)
        self.certificate, self.key = self.authority.sign("server")
        self.tokens = token_file(self.agent.folder, {"holder": "write"})
        with open(self.tokens, "a", encoding="utf-8") as file:
            file.write("driver write:R -\n")
        self.port_ = free_port()
        self.agent.options += ["--listen", f"0.0.0.0:{self.port_}", "--tls-cert", self.certificate,
                               "--tls-key", self.key, "--client-ca",
                               str(self.authority.certificate), "--tokens", self.tokens]
        self.agent.start()

    def context(self, name: str | None = None, authority: Authority | None = None) \
            -> ssl.SSLContext:
        context = ssl.create_default_context(cafile=str(self.authority.certificate))
        if name:
            context.load_cert_chain(*(authority or self.authority).sign(name))
        return context

    def client(self, context: ssl.SSLContext, token: str | None = None) -> Client:
        return Client(lambda: http.client.HTTPSConnection("127.0.0.1", self.port_, context=context,
                                                          timeout=DEADLINE),
                      {"Authorization": f"Bearer {token}"} if token else {})

    def test_a_certificate_says_who_it_is(self) -> None:
        hello = self.ok(self.client(self.context("driver")).get("/v1"))
        self.assertEqual((hello["principal"], hello["role"]), ("driver", "write:R"))

    def test_a_certificate_without_a_line_may_read(self) -> None:
        client = self.client(self.context("stranger"))
        hello = self.ok(client.get("/v1"))
        self.assertEqual((hello["principal"], hello["role"]), ("stranger", "read"))
        self.refused(client.patch({"region": {"R": {}}}), 403, "forbidden")

    def test_a_token_does_without_a_certificate(self) -> None:
        hello = self.ok(self.client(self.context(), "token-of-holder").get("/v1"))
        self.assertEqual((hello["principal"], hello["role"]), ("holder", "write"))

    def test_a_wrong_token_is_not_overlooked_for_a_certificate(self) -> None:
        self.refused(self.client(self.context("driver"), "wrong").get("/v1"), 401)

    def test_nobody_may_only_probe(self) -> None:
        client = self.client(self.context())
        self.refused(client.get("/v1"), 401, "unauthenticated")
        self.assertEqual(client.get("/readyz").status, 200)

    def test_a_certificate_of_another_authority_is_refused(self) -> None:
        other = self.agent.folder / "other"
        other.mkdir()
        with self.assertRaises(OSError):
            self.client(self.context("driver", Authority(other, "other"))).get("/v1")

    def test_versions_before_1_2_are_refused(self) -> None:
        context = self.context("driver")
        with contextlib.suppress(ValueError):
            context.minimum_version = ssl.TLSVersion.TLSv1
        context.maximum_version = ssl.TLSVersion.TLSv1_1
        with self.assertRaises(OSError):
            self.client(context).get("/v1")

    def test_plain_text_is_no_request(self) -> None:
        with socket.create_connection(("127.0.0.1", self.port_), DEADLINE) as connection:
            connection.sendall(b"GET /v1 HTTP/1.1\r\nHost: a\r\n\r\n")
            self.assertNotIn(b"HTTP/1.1 200", connection.recv(1000))

    def test_streams_and_keeps_connections(self) -> None:
        client = self.client(self.context("driver"))
        stream = client.stream("/v1/watch?of=cloud")
        self.assertEqual(stream.next().name, "snapshot")
        self.agent.client.patch({"region": {"R": {}}})
        self.assertIn("R", stream.next().data["region"])
        stream.close()
        connection = client.connect()
        for _ in range(3):
            connection.request("GET", "/v1")
            self.assertEqual(connection.getresponse().read()[:1], b"{")
        connection.close()

    def test_a_hangup_reads_the_certificate_anew(self) -> None:
        def shown() -> bytes:
            with socket.create_connection(("127.0.0.1", self.port_), DEADLINE) as plain, \
                    self.context().wrap_socket(plain, server_hostname="127.0.0.1") as secure:
                return secure.getpeercert(binary_form=True)
        before = shown()
        self.authority.sign("server")
        self.agent.process.send_signal(signal.SIGHUP)
        poll(lambda: shown() != before, "the new certificate is shown")
