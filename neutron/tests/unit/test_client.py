"""The client, with agents that behave badly."""
import http.server
import json
import socket
import ssl
import subprocess
import tempfile
import threading
import time
import unittest

from networking_vnagent import client as agent_client

HELLO = {"api": 1, "revision": 7, "instance": "i", "version": "1"}


class BadAgent:
    """Answers each request with the next of its answers, each a function of the handler."""

    def __init__(self, *answers, context=None):
        self.requests = []
        remaining = list(answers)

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def answer(handler):
                length = int(handler.headers.get("Content-Length") or 0)
                handler.body = handler.rfile.read(length)
                self.requests.append((handler.command, handler.path, dict(handler.headers),
                                      handler.body))
                (remaining.pop(0) if len(remaining) > 1 else remaining[0])(handler)

            do_GET = do_PATCH = do_PUT = do_POST = do_DELETE = answer

            def log_message(handler, *_):
                """Says nothing."""

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        if context is not None:
            self.server.socket = context.wrap_socket(self.server.socket, server_side=True)
        self.server.daemon_threads = True
        self.port = self.server.server_address[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        """Without a selector: those do not know the green threads of Neutron's tests."""
        while True:
            try:
                connection, address = self.server.get_request()
            except OSError:
                if self.server.socket.fileno() < 0:
                    return
                continue
            self.server.process_request(connection, address)

    def stop(self):
        self.server.socket.close()


def says(status, body, **headers):
    def answer(handler):
        data = body if isinstance(body, bytes) else json.dumps(body).encode()
        handler.send_response(status)
        for name, value in headers.items():
            handler.send_header(name, value)
        handler.send_header("Content-Length", str(len(data)))
        handler.end_headers()
        handler.wfile.write(data)
    return answer


def cuts_off(handler):
    handler.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"revi")
    handler.wfile.flush()
    handler.close_connection = True
    handler.connection.shutdown(socket.SHUT_RDWR)


def drips(handler):
    handler.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
    try:
        for _ in range(100):
            handler.wfile.write(b" ")
            handler.wfile.flush()
            time.sleep(0.05)
    except OSError:
        handler.close_connection = True


def closes(handler):
    handler.close_connection = True
    handler.connection.shutdown(socket.SHUT_RDWR)


class ClientTest(unittest.TestCase):
    def client(self, *answers, timeout=5):
        self.bad = BadAgent(*answers)
        self.addCleanup(self.bad.stop)
        client = agent_client.Client(f"http://127.0.0.1:{self.bad.port}", "R", timeout=timeout)
        self.addCleanup(client.close)
        return client

    def fails(self, kind, *answers, timeout=5):
        client = self.client(*answers, timeout=timeout)
        with self.assertRaises(kind) as raised:
            client.hello()
        return str(raised.exception)

    def test_what_is_no_json_is_nonsense(self):
        self.assertIn("is that address a live agent's?",
                      self.fails(agent_client.Nonsense, says(200, b"<html>")))

    def test_a_list_is_nonsense(self):
        self.fails(agent_client.Nonsense, says(200, b"[]"))

    def test_another_program_is_nonsense(self):
        self.fails(agent_client.Nonsense, says(200, {"hello": "world"}))

    def test_a_document_without_a_revision_is_nonsense(self):
        client = self.client(says(200, {"hello": "world"}))
        with self.assertRaises(agent_client.Nonsense):
            client.region_document()

    def test_a_redirection_is_nonsense(self):
        self.fails(agent_client.Nonsense, says(302, {}))

    def test_an_endless_answer_is_nonsense(self):
        longest = agent_client.LONGEST_ANSWER
        self.fails(agent_client.Nonsense, says(200, b" " * (longest + 1)))

    def test_an_answer_that_breaks_off_is_none(self):
        self.fails(agent_client.NoAnswer, cuts_off)

    def test_an_answer_that_drips_is_given_up(self):
        self.assertIn("no whole answer in time",
                      self.fails(agent_client.NoAnswer, drips, timeout=0.3))

    def test_nobody_there_says_what_to_look_at(self):
        client = agent_client.Client("unix:///nowhere/agent.sock", "R")
        with self.assertRaises(agent_client.NoAnswer) as raised:
            client.hello()
        self.assertIn("vnagent serve", str(raised.exception))

    def test_a_full_disk_is_for_later(self):
        self.assertIn("make room", self.fails(agent_client.TryLater, says(
            507, {"type": "/problems/no-space", "detail": "no space"})))

    def test_a_wrong_token_says_what_to_look_at(self):
        self.assertIn("token_file", self.fails(agent_client.Refused, says(
            403, {"type": "/problems/forbidden", "detail": "not this region"})))

    def test_another_instance_is_noticed(self):
        client = self.client(says(200, HELLO), says(200, HELLO | {"instance": "other"}))
        client.hello()
        with self.assertRaises(agent_client.AnotherInstance):
            client.hello()
        self.assertEqual("other", client.hello()["instance"])

    def test_a_connection_that_was_idle_is_made_again(self):
        client = self.client(says(200, HELLO), closes, says(200, HELLO),
                             says(200, {"a": 1}, **{"Vnagent-Revision": "7"}))
        client.hello()
        self.assertEqual({"a": 1}, client.request("GET", "/v1/cloud").body)

    def test_the_last_answer_of_a_connection_is_read_whole(self):
        def says_slowly(handler):
            data = json.dumps(HELLO | {"revision": 8}).encode()
            handler.send_response(200)
            handler.send_header("Connection", "close")
            handler.send_header("Content-Length", str(len(data)))
            handler.end_headers()
            handler.wfile.flush()
            time.sleep(0.1)
            handler.wfile.write(data)
        client = self.client(says_slowly, says(200, HELLO))
        self.assertEqual(8, client.hello()["revision"])
        self.assertFalse(client.is_connected)
        self.assertEqual(7, client.hello()["revision"])

    def test_a_change_is_sent_again_with_its_key_only_to_the_same_instance(self):
        client = self.client(says(200, HELLO), closes, says(200, HELLO | {"instance": "other"}))
        client.hello()
        with self.assertRaises(agent_client.AnotherInstance):
            client.change(agent_client.Change("PATCH", client.place, {}, {}))
        self.assertEqual(1, sum(method == "PATCH" for method, *_ in self.bad.requests))

    def test_the_token_is_read_at_each_connection(self):
        with tempfile.NamedTemporaryFile("w", suffix=".token") as file:
            file.write("secret\n")
            file.flush()
            bad = BadAgent(says(200, HELLO))
            self.addCleanup(bad.stop)
            client = agent_client.Client(f"http://127.0.0.1:{bad.port}", "R",
                                         token_file=file.name)
            client.hello()
            client.close()
        self.assertEqual("Bearer secret", bad.requests[0][2]["Authorization"])

    def test_an_url_that_is_none_is_refused(self):
        for url in ("", "ftp://x", "/run/vnagent.sock"):
            with self.assertRaises(ValueError):
                agent_client.Client(url, "R")


class TlsTest(unittest.TestCase):
    def test_a_certificate_of_an_unknown_authority_says_what_to_do(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days",
                            "1", "-subj", "/CN=127.0.0.1", "-addext",
                            "subjectAltName=IP:127.0.0.1", "-keyout", f"{folder}/key",
                            "-out", f"{folder}/cert"], check=True, capture_output=True)
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(f"{folder}/cert", f"{folder}/key")
            bad = BadAgent(says(200, HELLO), context=context)
            self.addCleanup(bad.stop)
            url = f"https://127.0.0.1:{bad.port}"
            with self.assertRaises(agent_client.NoAnswer) as raised:
                agent_client.Client(url, "R").hello()
            self.assertIn("ca_file", str(raised.exception))
            trusting = agent_client.Client(url, "R", ca_file=f"{folder}/cert")
            self.assertEqual("i", trusting.hello()["instance"])
            trusting.close()

    def test_a_certificate_that_is_not_valid_yet_points_to_the_clock(self):
        with tempfile.TemporaryDirectory() as folder:
            self.make_certificate(folder, "20980101000000Z", "20990101000000Z")
            text = self.refused(folder)
        self.assertIn("not yet valid", text)
        self.assertIn("compare the clocks", text)

    def test_a_certificate_that_has_expired_is_to_be_renewed(self):
        with tempfile.TemporaryDirectory() as folder:
            self.make_certificate(folder, "20000101000000Z", "20010101000000Z")
            self.assertIn("renew the agent's certificate", self.refused(folder))

    @staticmethod
    def make_certificate(folder, first, last):
        """Signed by itself, for 127.0.0.1."""
        with open(f"{folder}/ca.cnf", "w", encoding="utf-8") as file:
            file.write(f"[ca]\ndefault_ca=own\n[own]\nnew_certs_dir={folder}\n"
                       f"database={folder}/index\nrand_serial=yes\ndefault_md=sha256\n"
                       "policy=any\nx509_extensions=ext\n[any]\ncommonName=supplied\n"
                       "[ext]\nsubjectAltName=IP:127.0.0.1\n")
        open(f"{folder}/index", "w", encoding="utf-8").close()
        for command in (
                ["req", "-new", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1",
                 "-keyout", f"{folder}/key", "-out", f"{folder}/request"],
                ["ca", "-batch", "-selfsign", "-notext", "-config", f"{folder}/ca.cnf",
                 "-startdate", first, "-enddate", last, "-keyfile", f"{folder}/key",
                 "-in", f"{folder}/request", "-out", f"{folder}/cert"]):
            subprocess.run(["openssl", *command], check=True, capture_output=True)

    def refused(self, folder):
        """What a client says that trusts this certificate otherwise."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(f"{folder}/cert", f"{folder}/key")
        bad = BadAgent(says(200, HELLO), context=context)
        self.addCleanup(bad.stop)
        client = agent_client.Client(f"https://127.0.0.1:{bad.port}", "R",
                                     ca_file=f"{folder}/cert")
        with self.assertRaises(agent_client.NoAnswer) as raised:
            client.hello()
        return str(raised.exception)
