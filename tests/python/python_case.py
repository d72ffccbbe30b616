"""The package over the real library, in a network of its own; the other side runs in another process."""

import os
import pathlib
import signal
import sys
import unittest

from child_process import LIMIT, ChildProcess

SOURCES = pathlib.Path(__file__).resolve().parents[2]

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


class Peer(ChildProcess):
    """A Python program while it runs."""

    def __init__(self, *words, **environment):
        super().__init__([sys.executable, "-B", *words], env={**os.environ, **environment})

    def signal(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def end(self):
        """Its exit code, what else it printed, and its errors."""
        try:
            output, errors = self.process.communicate(timeout=LIMIT)
        finally:
            self.close()
        return self.process.returncode, self.unread.decode() + output, errors


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
