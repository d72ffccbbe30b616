"""The package over the real library, in a network of its own; the other side runs in another process."""

import os
import pathlib
import select
import signal
import subprocess
import sys
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2]

# Bounds a failing test only.
LIMIT = 60

# What it cannot send it leaves: its client may have gone. Its blocks are longer than the heads of frames: the
# library leaves a frame that is shorter than the head of the one before until more comes.
DEVICE = """
import lumora

def send(service, data):
    try:
        device.send(service, data)
    except lumora.SendFailed:
        pass

with lumora.Device("echo-device", ["echo", "numbers", "silence"]) as device:
    print("ready", flush=True)
    for event in device:
        print(event, flush=True)
        if isinstance(event, lumora.Data) and len(event.data) <= 1024000:
            send("echo", event.data)
        elif isinstance(event, lumora.Command) and event.name == "count":
            for number in range(int(event.parameter)):
                send("numbers", f"{number:40}".encode())
        elif isinstance(event, lumora.Command) and event.name == "leave":
            break
print("left", flush=True)
"""


class Peer:
    """A Python program while it runs; its output is read by lines."""

    def __init__(self, *words, **environment):
        self.process = subprocess.Popen(
            [sys.executable, "-B", *words],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env={**os.environ, **environment},
        )
        self.unread = b""

    def line(self):
        """The next line; fails when none comes."""
        output = self.process.stdout.fileno()
        while b"\n" not in self.unread:
            data = os.read(output, 65536) if select.select([output], [], [], LIMIT)[0] else b""
            if not data:
                self.process.kill()
                raise AssertionError(f"it wrote no more: {self.process.stderr.read().decode()}")
            self.unread += data
        line, _, self.unread = self.unread.partition(b"\n")
        return line.decode()

    def signal(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def end(self):
        """Its exit code, what else it printed, and its errors."""
        try:
            output, errors = self.process.communicate(timeout=LIMIT)
        finally:
            self.close()
        return self.process.returncode, (self.unread + output).decode(), errors.decode()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


class PythonCase(unittest.TestCase):
    def peer(self, script, **environment):
        peer = Peer("-c", script, **environment)
        self.addCleanup(peer.close)
        return peer

    def device(self):
        """Ready to be found."""
        device = self.peer(DEVICE)
        self.assertEqual(device.line(), "ready")
        return device
