"""A program while it runs; its output is read by lines."""

import os
import select
import subprocess

# Bounds a failing test only.
LIMIT = 60


class ChildProcess:
    def __init__(self, command, **options):
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("stderr", subprocess.PIPE)
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, **options)
        self.unread = b""

    def line(self):
        """The next line; fails when none comes."""
        output = self.process.stdout.fileno()
        while b"\n" not in self.unread:
            data = os.read(output, 65536) if select.select([output], [], [], LIMIT)[0] else b""
            if not data:
                self.process.kill()
                raise AssertionError(f"{self.process.args} wrote no more: {self.errors()}")
            self.unread += data
        line, _, self.unread = self.unread.partition(b"\n")
        return line.decode()

    def rest(self):
        """What it wrote after the last line that was read; for one that has ended."""
        return self.unread.decode() + self.process.stdout.read()

    def errors(self):
        """For one that has ended."""
        return self.process.stderr.read()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()
