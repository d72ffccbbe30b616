"""The real program, as a user runs it, in a network of its own."""

import json
import os
import pathlib
import pty
import select
import signal
import subprocess
import tempfile
import time
import unittest

from child_process import LIMIT, ChildProcess

PROGRAM = os.environ["LUMORA_PROGRAM"]
SOURCES = pathlib.Path(__file__).resolve().parents[2]

ENDED_BY_INTERRUPT = 128 + signal.SIGINT
ENDED_BY_CLOSED_PIPE = 128 + signal.SIGPIPE


def lumora(*words, **options):
    """Runs the program to its end."""
    options.setdefault("input", "")
    return subprocess.run(
        [PROGRAM, *words], capture_output=True, text=True, timeout=LIMIT, check=False, **options
    )


class Running(ChildProcess):
    """The program while it runs."""

    def __init__(self, *words, **options):
        super().__init__([PROGRAM, *words], **options)

    def wait(self):
        return self.process.wait(timeout=LIMIT)

    def end(self, number=signal.SIGINT):
        """Ends it as Ctrl-C does, and returns its exit code."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.wait()


class Device(Running):
    """lumora serve, ready to be found."""

    def __init__(self, device_type, *words, **options):
        super().__init__("--json", "serve", device_type, *words, **options)
        ready = self.event()
        assert ready["event"] == "ready", ready

    def event(self, name=None):
        """The next event, or the next one of that name."""
        while True:
            event = json.loads(self.line())
            if name in (None, event["event"]):
                return event


class OnTerminal:
    """A program with its output and errors on a terminal, and its input too if no other is given."""

    def __init__(self, *words, environment=None, **options):
        self.ours, theirs = pty.openpty()
        self.text = ""
        options.setdefault("stdin", theirs)
        options.setdefault("stdout", theirs)
        self.process = subprocess.Popen(
            words,
            stderr=theirs,
            env={**os.environ, "TERM": "xterm", **(environment or {})},
            **options,
        )
        os.close(theirs)

    def type(self, text):
        os.write(self.ours, text.encode())

    def read_until(self, wanted):
        end = time.monotonic() + LIMIT
        while wanted not in self.text:
            ready, _, _ = select.select([self.ours], [], [], max(0, end - time.monotonic()))
            if not ready or not self.read_some():
                raise AssertionError(f"{wanted!r} is not in {self.text!r}")

    def read_all(self):
        while self.read_some():
            pass
        return self.text

    def read_what_is_there(self):
        while select.select([self.ours], [], [], 0)[0] and self.read_some():
            pass

    def read_some(self):
        try:
            data = os.read(self.ours, 65536)
        except OSError:  # a terminal that is closed everywhere
            data = b""
        self.text += data.decode(errors="replace")
        return bool(data)

    def close(self):
        os.close(self.ours)
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout):
            if stream:
                stream.close()


class LumoraCase(unittest.TestCase):
    """What the tests share: devices that end with them, and a folder that goes."""

    def start(self, *words, **options):
        running = Running(*words, **options)
        self.addCleanup(running.close)
        return running

    def device(self, device_type, *words, **options):
        device = Device(device_type, *words, **options)
        self.addCleanup(device.close)
        return device

    def on_terminal(self, *words, **options):
        terminal = OnTerminal(PROGRAM, *words, **options)
        self.addCleanup(terminal.close)
        return terminal

    def folder(self):
        return pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def assert_fails(self, result, code, *parts):
        """One line on standard error, with these parts, and this exit code."""
        self.assertEqual(result.returncode, code, result)
        self.assertEqual(result.stderr.count("\n"), 1, result)
        self.assertTrue(result.stderr.startswith("lumora: "), result)
        for part in parts:
            self.assertIn(part, result.stderr)

    def assert_succeeds(self, result):
        self.assertEqual((result.returncode, result.stderr), (0, ""), result)
