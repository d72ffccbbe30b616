"""Runs web_over_fake, and talks to it as clients do: HTTP by raw sockets, WebSocket by its frames."""
import base64
import contextlib
import os
import pathlib
import queue
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

PROGRAM = sys.argv[1] if len(sys.argv) > 1 else ""


def until(check, seconds=10, what="the condition"):
    """The first true result of check."""
    end = time.monotonic() + seconds
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come true in {seconds} s")
        time.sleep(0.02)


class Served:
    """The program, with a hub without devices."""

    def __init__(self, *options):
        self.process = subprocess.Popen([PROGRAM, *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        errors="surrogateescape")
        self.lines = queue.Queue()
        self.requests = []
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        self.url = self.lines.get(timeout=20).removeprefix("at ")
        self.host = self.url.split("//")[1].rstrip("/")
        self.port = int(self.host.rsplit(":", 1)[1])

    def read(self):
        for line in self.process.stdout:
            line = line.rstrip("\n")
            if line.startswith(("at ", "did ")):
                self.lines.put(line)
            elif line.startswith(("command ", "block ")):
                self.requests.append(line)

    def do(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = self.lines.get(timeout=30)
        assert answer == "did " + line[:60], answer

    def sent(self):
        """The lines about commands and blocks for devices. None is missing whose reply has come."""
        self.do("pass")
        return self.requests

    def forget_sent(self):
        self.sent().clear()

    def close(self):
        self.process.stdin.close()
        code = self.process.wait(timeout=30)
        self.reader.join(timeout=10)
        self.process.stdout.close()
        assert code == 0, f"web_over_fake ended with {code}"

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=20)

    def raw(self, request, connection=None):
        """Sends bytes, and gives what comes until the server closes or a whole reply is there."""
        with contextlib.ExitStack() as stack:
            connection = connection or stack.enter_context(self.connect())
            connection.sendall(request)
            return read_reply(connection)

    def ask(self, method, path, headers=None, body=None, host=None):
        """(status, headers, body) of a request on a connection of its own."""
        lines = {"Host": host or self.host, "Connection": "close", **(headers or {})}
        if body is not None and "Content-Length" not in lines:
            lines["Content-Length"] = str(len(body))
        head = f"{method} {path} HTTP/1.1\r\n" + "".join(f"{name}: {value}\r\n" for name, value in lines.items())
        return self.raw(head.encode() + b"\r\n" + (body or b""))

    def get(self, path, headers=None, **more):
        return self.ask("GET", path, headers, **more)

    def command(self, device, text, headers=None):
        headers = {"Content-Type": "application/json", **(headers or {})}
        return self.ask("POST", f"/api/devices/{device}/commands", headers, text.encode())


def received(connection):
    """The next bytes; empty at the end, however it comes."""
    try:
        return connection.recv(1 << 18)
    except ConnectionResetError:
        return b""


def read_reply(connection):
    """(status, headers, body); status 0 if the connection ended before."""
    got = b""
    while b"\r\n\r\n" not in got:
        more = received(connection)
        if not more:
            return (0, {}, got)
        got += more
    head, body = got.split(b"\r\n\r\n", 1)
    lines = head.decode("latin-1").split("\r\n")
    headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}
    length = int(headers.get("content-length", -1))
    while length < 0 or len(body) < length:
        more = received(connection)
        if not more:
            break
        body += more
    return (int(lines[0].split()[1]), headers, body)


class WebSocket:
    """A client that reads frames. Nothing is read from the network but by message()."""

    def __init__(self, served, path, headers=None, host=None, receive_buffer=0, connection=None):
        self.socket = connection or socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(20)
        if connection is None:
            self.socket.connect(("127.0.0.1", served.port))
        lines = {"Host": host or served.host, "Upgrade": "websocket", "Connection": "Upgrade",
                 "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(), "Sec-WebSocket-Version": "13",
                 **(headers or {})}
        request = f"GET {path} HTTP/1.1\r\n" + "".join(f"{name}: {value}\r\n" for name, value in lines.items()) + "\r\n"
        self.socket.sendall(request.encode())
        self.got = b""
        while b"\r\n\r\n" not in self.got:
            more = self.socket.recv(4096)
            if not more:
                break
            self.got += more
        head, _, self.got = self.got.partition(b"\r\n\r\n")
        self.status = int(head.split()[1]) if head else 0
        self.opcode = 0

    def take(self, count):
        while len(self.got) < count:
            more = self.socket.recv(1 << 18)
            if not more:
                raise EOFError("the server closed the connection")
            self.got += more
        taken, self.got = self.got[:count], self.got[count:]
        return taken

    def message(self):
        """The next message, put together from its frames. opcode: 1 text, 2 binary."""
        whole = b""
        while True:
            first, second = self.take(2)
            length = second & 127
            if length == 126:
                length = struct.unpack(">H", self.take(2))[0]
            elif length == 127:
                length = struct.unpack(">Q", self.take(8))[0]
            content = self.take(length)
            if first & 15 == 9:  # ping: answered by a pong
                self.send(content, 10)
                continue
            if first & 15 == 8:
                raise EOFError("the server closed the stream")
            if first & 15:
                self.opcode = first & 15
            whole += content
            if first & 128:
                return whole

    def block(self):
        """(number, lost, time in microseconds, bytes)"""
        message = self.message()
        version, lost, number, when = struct.unpack(">B3xIQQ", message[:24])
        assert version == 1, message[:24]
        return number, lost, when, message[24:]

    def send(self, content, opcode=2):
        mask = os.urandom(4)
        length = bytes([128 | len(content)]) if len(content) < 126 else b"\xfe" + struct.pack(">H", len(content))
        masked = bytes(byte ^ mask[at & 3] for at, byte in enumerate(content))
        self.socket.sendall(bytes([128 | opcode]) + length + mask + masked)

    def close(self):
        self.socket.close()


class Case(unittest.TestCase):
    """Each class of tests has one server, with its OPTIONS."""
    OPTIONS = ()

    @classmethod
    def setUpClass(cls):
        cls.hub = Served(*cls.OPTIONS)
        cls.hub.do("appear camera@127.0.0.1 picture level")

    @classmethod
    def tearDownClass(cls):
        cls.hub.close()

    def setUp(self):
        self.hub.forget_sent()

    def subscribers(self, service="level"):
        text = self.hub.get("/metrics")[2].decode()
        line = f'lumora_hub_consumers{{device="camera@127.0.0.1",service="{service}"}} '
        return next((int(row.removeprefix(line)) for row in text.splitlines() if row.startswith(line)), 0)

    def metric(self, name):
        text = self.hub.get("/metrics")[2].decode()
        return next(float(row.rsplit(" ", 1)[1]) for row in text.splitlines() if row.startswith(name + " "))


def page_folder():
    return pathlib.Path(__file__).resolve().parents[3] / "hub" / "web" / "page"


def main():
    unittest.main(argv=[sys.argv[0], "-v", *sys.argv[2:]])
