"""Clients that want to use up what the web face has: each ends, and clients of another address notice nothing."""
import contextlib
import os
import pathlib
import socket
import ssl
import subprocess
import tempfile
import time

import served
from served import Case, Served, WebSocket, until

API = "/api/devices/camera@127.0.0.1"
STREAM = API + "/services/level/stream"
ATTACKER, OTHER = "127.0.0.2", "127.0.0.3"
EMPTY_FRAGMENT, EMPTY_CONTINUATION, PING = b"\x01\x80mask", b"\x00\x80mask", b"\x89\x84maskmask"
# A sanitizer keeps what was freed.
MOST_GROWTH_KB = 40_000 if not os.environ.get("SANITIZED") else 400_000


class AttackCase(Case):
    def connect(self, address):
        connection = socket.create_connection(("127.0.0.1", self.hub.port), timeout=20, source_address=(address, 0))
        self.addCleanup(connection.close)
        return connection

    def get(self, address, path):
        request = f"GET {path} HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n"
        return self.hub.raw(request.encode(), self.connect(address))[0]

    def head(self, path, length, kind="application/json"):
        return (f"POST {path} HTTP/1.1\r\nHost: {self.hub.host}\r\nContent-Type: {kind}\r\n"
                f"Content-Length: {length}\r\n\r\n").encode()

    def command(self, address, wait=True):
        body = b'{"name":"zoom"}'
        connection = self.connect(address)
        connection.sendall(self.head(API + "/commands", len(body)) + body)
        return served.read_reply(connection)[0] if wait else connection

    def memory(self):
        status = pathlib.Path(f"/proc/{self.hub.process.pid}/status").read_text(encoding="ascii")
        return int(status.split("VmRSS:")[1].split()[0])


class Shares(AttackCase):
    """An attacker has 2 of everything at most, and all together 3."""
    OPTIONS = ("--pending", "3", "--streams", "3", "--news-streams", "3", "--latest-services", "3", "--of-address", "2",
               "--uploading", "3000", "--uploading-of-address", "2000")

    def tearDown(self):
        self.doCleanups()
        until(lambda: self.metric("lumora_hub_http_connections") == 1, seconds=30)

    def statuses(self, path, count, address=ATTACKER):
        streams = [WebSocket(self.hub, path, connection=self.connect(address)) for _ in range(count)]
        return [stream.status for stream in streams]

    def test_streams(self):
        self.assertEqual(self.statuses(STREAM, 4), [101, 101, 503, 503])
        self.assertEqual(self.statuses(STREAM, 2, OTHER), [101, 503])
        self.doCleanups()
        until(lambda: self.metric("lumora_hub_web_streams") == 0)
        self.assertEqual(self.statuses(STREAM, 1), [101])

    def test_news_of_devices(self):
        self.assertEqual(self.statuses("/api/events", 4), [101, 101, 503, 503])
        self.assertEqual(self.statuses("/api/events", 2, OTHER), [101, 503])

    def test_commands_for_a_device_that_does_not_answer(self):
        self.hub.do("outcome -1")
        self.addCleanup(self.hub.do, "outcome 0")
        waiting = [self.command(ATTACKER, wait=False) for _ in range(2)]
        until(lambda: len(self.hub.sent()) == 2)
        self.assertEqual(self.command(ATTACKER), 503)
        waiting.append(self.command(OTHER, wait=False))
        until(lambda: len(self.hub.sent()) == 3)
        self.hub.do("outcome 0")
        self.assertEqual([served.read_reply(connection)[0] for connection in waiting], [200] * 3)

    def test_bodies_that_never_come(self):
        for expected in (None, None, 503):
            connection = self.connect(ATTACKER)
            connection.sendall(self.head(API + "/data", 1000, "application/octet-stream"))
            connection.settimeout(0.5 if expected is None else 20)
            with contextlib.suppress(TimeoutError):
                self.assertEqual(served.read_reply(connection)[0], expected)
        body = b"x" * 1000
        connection = self.connect(OTHER)
        connection.sendall(self.head(API + "/data", len(body)) + body)
        self.assertEqual(served.read_reply(connection)[0], 200)

    def test_latest_blocks_of_services_that_are_not_there(self):
        waiting = [self.connect(ATTACKER) for _ in range(2)]
        for number, connection in enumerate(waiting):
            connection.sendall(f"GET {API}/services/none{number}/latest HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
        until(lambda: self.subscribers("none1") == 1)
        self.assertEqual(self.get(ATTACKER, API + "/services/none2/latest"), 503)
        connection = self.connect(OTHER)
        connection.sendall(f"GET {API}/services/level/latest HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
        until(lambda: self.subscribers() == 1)
        self.hub.do("text camera@127.0.0.1 level fine")
        self.assertEqual(served.read_reply(connection)[0], 200)


class Floods(AttackCase):
    def flood(self, connection, content, seconds=5):
        """Sends until the server closes or the time is over, and reads nothing. True if it was closed."""
        connection.settimeout(1)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            try:
                connection.sendall(content)
            except TimeoutError:
                pass
            except (ConnectionResetError, BrokenPipeError):
                return True
        return False

    def flood_websocket(self, content):
        before = self.memory()
        closed = self.flood(WebSocket(self.hub, STREAM, connection=self.connect(ATTACKER)).socket, content)
        self.assertLess(self.memory(), before + MOST_GROWTH_KB)
        self.assertEqual(self.get(OTHER, "/healthz"), 200)
        return closed

    def test_fragments_without_end_end_the_stream(self):
        self.assertTrue(self.flood_websocket(EMPTY_FRAGMENT + EMPTY_CONTINUATION * 10000))
        self.assertTrue(self.flood_websocket(b"\x01\x84maskmask" + b"\x00\x84maskmask" * 10000))
        self.assertTrue(self.flood_websocket(b"\x82\xff\x7f\xff\xff\xff\xff\xff\xff\xffmask" + b"x" * 100000))

    def test_pings_that_are_never_read_fill_nothing(self):
        self.flood_websocket(PING * 10000)

    def test_requests_whose_replies_are_never_read_fill_nothing(self):
        before = self.memory()
        request = f"GET /api/openapi.json HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n"
        self.flood(self.connect(ATTACKER), request.encode() * 1000)
        self.assertLess(self.memory(), before + MOST_GROWTH_KB)
        self.assertEqual(self.get(OTHER, "/healthz"), 200)

    def test_connections_that_come_and_go_leave_nothing(self):
        before = self.memory()
        for _ in range(3000):
            with contextlib.suppress(OSError):
                self.hub.connect().close()
        until(lambda: self.metric("lumora_hub_http_connections") == 1)
        self.assertLess(self.memory(), before + MOST_GROWTH_KB)


class Tls(AttackCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        key, cls.certificate = (f"{cls.folder.name}/{name}.pem" for name in ("key", "certificate"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1", "-days", "2",
                        "-keyout", key, "-out", cls.certificate], check=True, capture_output=True)
        cls.hub = Served("--token", "x" * 16, "--certificate", cls.certificate, "--key", key, "--times-ms", "2000",
                         "--connections", "20", "--connections-of-address", "10")

    def test_handshakes_that_are_not_finished_are_given_up(self):
        hello = b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"
        silent = [self.connect(ATTACKER) for _ in range(10)]
        for connection in silent[5:]:
            connection.sendall(hello)
        context = ssl.create_default_context(cafile=self.certificate)
        with context.wrap_socket(self.connect(OTHER), server_hostname="127.0.0.1") as connection:
            connection.sendall(f"GET /healthz HTTP/1.1\r\nHost: {self.hub.host}\r\n\r\n".encode())
            self.assertEqual(served.read_reply(connection)[0], 200)
        for connection in silent:
            connection.settimeout(8)
            self.assertEqual(served.received(connection), b"")


if __name__ == "__main__":
    served.main()
