"""Hosts on a bridge, each a network namespace, and programs that run on them.

Hosts and programs end with the process that made them, also if that one is killed.
"""

import os
import pathlib
import re
import resource
import subprocess
import sys
import threading
import time

# Bounds a failing test only.
LIMIT = 60
NOT_PERMITTED = 77
DESCRIPTORS = 1024  # the usual limit of a process; some machines allow more


def enter_own_network():
    """Runs this program again in a network namespace of its own. Exits with 77 if that is not permitted."""
    if "IN_OWN_NETWORK" in os.environ:
        return
    for command in (["true"], ["ip", "link", "add", "br0", "type", "bridge"], ["nft", "list", "ruleset"]):
        if subprocess.run(["unshare", "-n", *command], capture_output=True, check=False).returncode != 0:
            print(f"skipped: not permitted in a network namespace: {' '.join(command)}")
            sys.exit(NOT_PERMITTED)
    os.environ["IN_OWN_NETWORK"] = "1"
    os.execvp("unshare", ["unshare", "-n", sys.executable, "-B", *sys.argv])


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Program:
    """A program that runs on a host. Threads gather the lines that it writes."""

    def __init__(self, host, words, environment=None, descriptors=DESCRIPTORS):
        self.lines = []
        self.changed = threading.Condition()
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *host.prefix(), *map(str, words)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            bufsize=1,
            env={**os.environ, "LUMORA_LINK_INTERFACE": "eth0", **(environment or {})},
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors)),
        )
        self.log = []
        self.readers = [
            threading.Thread(target=self._gather, args=pair, daemon=True)
            for pair in ((self.process.stdout, self.lines), (self.process.stderr, self.log))
        ]
        for reader in self.readers:
            reader.start()

    def _gather(self, stream, lines):
        for line in stream:
            with self.changed:
                lines.append(line.rstrip("\n"))
                self.changed.notify_all()

    # One write: a stream may tell lines on another thread.
    def tell(self, line):
        os.write(self.process.stdin.fileno(), f"{line}\n".encode())

    def line(self, pattern, start=0, limit=LIMIT):
        """Waits for a line behind the first `start` that begins with the pattern. None if it does not come."""
        end = time.monotonic() + limit
        with self.changed:
            while True:
                for line in self.lines[start:]:
                    match = re.match(pattern, line)
                    if match:
                        return match
                start = len(self.lines)
                left = end - time.monotonic()
                if left <= 0 or not self.changed.wait(min(left, 0.2)) and self.process.poll() is not None:
                    return None

    def ask(self, line, pattern, limit=LIMIT):
        """Tells the program a line and waits for the answer. Returns it, None without one, and the seconds."""
        with self.changed:
            start = len(self.lines)
        begin = time.monotonic()
        self.tell(line)
        answer = self.line(pattern, start, limit)
        return answer, time.monotonic() - begin if answer else float(limit)

    def count(self, pattern):
        with self.changed:
            return sum(re.match(pattern, line) is not None for line in self.lines)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def processor_seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def resident_megabytes(self):
        pages = int(pathlib.Path(f"/proc/{self.process.pid}/statm").read_text().split()[1])
        return pages * os.sysconf("SC_PAGE_SIZE") / 1e6

    def wait(self, limit=LIMIT):
        return self.process.wait(timeout=limit)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for reader in self.readers:
            reader.join()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            try:
                stream.close()
            except BrokenPipeError:
                pass


class Host:
    def __init__(self, number):
        self.number = number
        self.address = f"10.77.0.{number}"
        # Keeps the namespace. Its input, and so the keeper, ends when this process does.
        self.keeper = subprocess.Popen(["unshare", "-n", "cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        own = os.readlink("/proc/self/ns/net")
        while os.readlink(f"/proc/{self.keeper.pid}/ns/net") == own:
            time.sleep(0.005)
        run("ip", "link", "add", f"h{number}", "type", "veth", "peer", "name", "eth0", "netns", str(self.keeper.pid))
        run("ip", "link", "set", f"h{number}", "master", "br0", "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self.run("ip", "link", "set", "eth0", "up")

    def prefix(self):
        return ["nsenter", f"--net=/proc/{self.keeper.pid}/ns/net"]

    def run(self, *command):
        return run(*self.prefix(), *command)

    def drop_tcp(self):
        """From here on the host answers no connection, not even by a refusal."""
        self.run("nft", "add table ip silent")
        self.run("nft", "add chain ip silent input { type filter hook input priority 0; }")
        self.run("nft", "add rule ip silent input ip protocol tcp drop")

    # The link is deleted first: the kernel ends an unused namespace only some time later.
    def close(self):
        run("ip", "link", "delete", f"h{self.number}")
        self.keeper.stdin.close()
        self.keeper.wait()


class Network:
    def __init__(self):
        run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        run("ip", "link", "set", "br0", "up")
        run("ip", "link", "set", "lo", "up")
        self.hosts = {}

    def host(self, number):
        if number not in self.hosts:
            self.hosts[number] = Host(number)
        return self.hosts[number]

    def close(self):
        for host in self.hosts.values():
            host.close()
        run("ip", "link", "delete", "br0")
