"""The hub as a whole between devices on hosts of their own, consumers on its own host, and a broker there."""

import contextlib
import json
import os
import pathlib
import queue
import signal
import subprocess
import tempfile
import threading
import time
import urllib.request

import hosts
from hosts import LIMIT, eventually

BROKER_PORT = 1883
HUB_PORT = 8666


class Program:
    """A process; its lines are read all the time, so that it never waits for us."""

    def __init__(self, command, log=None, **environment):
        self.lines, self.faults = queue.Queue(), []
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=log, text=True, env={**os.environ, **environment})
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            if line.startswith("FAULT"):
                self.faults.append(line.rstrip("\n"))
            else:
                self.lines.put(line.rstrip("\n"))

    def line(self):
        return self.lines.get(timeout=LIMIT)

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def ask(self, line="report"):
        self.tell(line)
        return json.loads(self.line())

    def send(self, what):
        self.process.send_signal(what)

    def is_running(self):
        return self.process.poll() is None

    def end(self, how=signal.SIGKILL):
        """Its exit code."""
        if self.is_running():
            self.send(how)
            self.send(signal.SIGCONT)
        code = self.process.wait(LIMIT)
        self.reader.join()
        self.process.stdout.close()
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        return code


class Field:
    """The namespace of this process is the hub's host."""

    def __init__(self, peer, hub, mosquitto="mosquitto", log=None):
        """log is a file for what the hub writes."""
        self.peer, self.program, self.mosquitto, self.log = peer, hub, mosquitto, log
        self.programs, self.hosts = [], {}
        self.folder = tempfile.TemporaryDirectory()
        self.hub = self.broker = None
        hosts.run("ip", "link", "set", "lo", "up")
        hosts.make_bridge()
        hosts.run("ip", "link", "set", "br0", "address", hosts.hardware_address(1))
        hosts.run("ip", "address", "add", "10.77.0.1/24", "dev", "br0")

    def close(self):
        for program in self.programs:
            program.end()
        for host in self.hosts.values():
            host.close()
        hosts.remove_bridge()
        self.folder.cleanup()

    def add(self, program):
        self.programs.append(program)
        return program

    def drop(self, program, how=signal.SIGKILL):
        self.programs.remove(program)
        return program.end(how)

    def host(self, number):
        if number not in self.hosts:
            self.hosts[number] = hosts.Host(number)
        return self.hosts[number]

    def start_broker(self):
        settings = pathlib.Path(self.folder.name) / "broker.conf"
        settings.write_text(f"listener {BROKER_PORT} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n"
                            "log_type none\n", encoding="ascii")
        self.broker = self.add(Program([self.mosquitto, "-c", settings]))

    def start_hub(self, *options):
        self.hub = self.add(Program([self.program, "--listen", f"127.0.0.1:{HUB_PORT}", "--mqtt", f"127.0.0.1:{BROKER_PORT}",
                                     *options], self.log, LUMORA_LINK_INTERFACE="br0"))
        assert self.hub.line().startswith("The page is at")

    def start_device(self, number, kind="camera", longest=100000, rate=200):
        device = self.add(Program(self.host(number).command(self.peer, "device", kind, longest, rate),
                                  LUMORA_LINK_INTERFACE="eth0", LUMORA_LOG_LEVEL="5"))
        assert device.line() == "ready"
        return device

    def start_readers(self, kind, device, count=1, query=""):
        port = BROKER_PORT if kind == "mqtt" else HUB_PORT
        return self.add(Program([self.peer, "readers", kind, port, count, device, query]))

    @staticmethod
    def seconds_until_fresh(readers):
        """Until each consumer of each process has a new block."""
        begin = time.monotonic()
        for reader in readers:
            reader.tell("fresh")
        for reader in readers:
            reader.line()
        return time.monotonic() - begin

    def workers(self):
        """The process of each worker of the hub."""
        found = []
        for task in pathlib.Path(f"/proc/{self.hub.process.pid}/task").iterdir():
            with contextlib.suppress(OSError):
                found += [int(child) for child in (task / "children").read_text(encoding="ascii").split()]
        return found

    @staticmethod
    def await_end_of(pids):
        eventually(lambda: not any(is_alive(pid) for pid in pids), "the end of all workers")

    @staticmethod
    def metric(name, labels=""):
        """The sum of all lines of this metric that have the text in their labels."""
        with urllib.request.urlopen(f"http://127.0.0.1:{HUB_PORT}/metrics", timeout=LIMIT) as reply:
            lines = reply.read().decode().splitlines()
        return sum(float(line.rsplit(" ", 1)[1]) for line in lines
                   if line.split("{")[0].split(" ")[0] == name and labels in line)


def is_alive(pid):
    """Not if it only waits for its parent."""
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()[0] != "Z"
    return False
