"""Hosts on a bridge, each a network namespace, devices on them, and a hub's core that is driven by lines."""

import json
import os
import signal
import subprocess
import time
import unittest

from child_process import ChildProcess

CONSOLE = os.environ["HUB_CONSOLE"]
DEVICE = os.environ["HUB_DEVICE"]
HUB = os.environ["LUMORA_HUB"]
LUMORA = os.environ.get("LUMORA_PROGRAM")
# Bounds a failing test only.
LIMIT = 60
MOST_HOSTS = 60


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def has_namespaces():
    return subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0


def eventually(condition, what):
    end = time.monotonic() + LIMIT
    while True:
        result = condition()
        if result or time.monotonic() > end:
            assert result, f"not within {LIMIT} s: {what}"
            return result
        time.sleep(0.05)


def hardware_address(number):
    return f"02:00:0a:4d:00:{number:02x}"


class Host:
    """A network namespace with an address."""

    def __init__(self, number):
        self.name = f"h{number}"
        # It ends with this process, however that ends.
        self.holder = subprocess.Popen(["unshare", "-n", "setpriv", "--pdeathsig", "KILL", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        eventually(lambda: os.readlink(self.namespace()) != own, "a namespace")
        self.address = f"10.77.0.{number}"
        run("ip", "link", "add", self.name, "type", "veth", "peer", "name", "eth0", "netns", str(self.holder.pid))
        run("ip", "link", "set", self.name, "master", "br0", "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "link", "set", "eth0", "address", hardware_address(number))
        self.run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self.run("ip", "link", "set", "eth0", "up")
        self.learn_neighbours()

    def learn_neighbours(self):
        """The kernel has one table of 1,024 neighbours for all namespaces together, which fifty hosts that know
        each other fill. Entries that are set by hand do not count."""
        lines = "".join(
            f"neighbour add 10.77.0.{number} lladdr {hardware_address(number)} nud permanent dev eth0\n"
            for number in range(1, MOST_HOSTS + 1)
        )
        subprocess.run(self.command("ip", "-batch", "-"), input=lines, text=True, check=True)

    def namespace(self):
        return f"/proc/{self.holder.pid}/ns/net"

    def command(self, *words):
        return ["nsenter", f"--net={self.namespace()}", *words]

    def run(self, *words):
        run(*self.command(*words))

    def start(self, *words, **options):
        environment = {**os.environ, "LUMORA_LINK_INTERFACE": "eth0", **options.pop("env", {})}
        return ChildProcess(self.command(*words), env=environment, stderr=subprocess.DEVNULL, **options)

    def close(self):
        # The kernel takes its time to remove the interface of a namespace that has ended.
        run("ip", "link", "delete", self.name)
        self.holder.kill()
        self.holder.wait()


class Console(ChildProcess):
    """The core of a hub on a host."""

    def __init__(self, host, *options):
        environment = {**os.environ, "LUMORA_LINK_INTERFACE": "eth0", "LUMORA_LOG_LEVEL": "4"}
        super().__init__(host.command(CONSOLE, *options), env=environment, stdin=subprocess.PIPE, stderr=None)

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return json.loads(self.line())

    def report(self):
        return self.ask("report")

    def device(self, name):
        """What is known of the device with this id; empty if nothing is."""
        return next((device for device in self.report()["devices"] if device["id"] == name), {})

    def consumer(self, name):
        return next(consumer for consumer in self.report()["consumers"] if consumer["name"] == name)

    def wait_for_device(self, name, **wanted):
        def has_it():
            device = self.device(name)
            return device if device and all(device[key] == value for key, value in wanted.items()) else None

        return eventually(has_it, f"{name} with {wanted}")

    def wait_for_blocks(self, consumer, more=5):
        """Until so many more have come."""
        before = self.consumer(consumer)["received"]
        return eventually(
            lambda: (now := self.consumer(consumer))["received"] >= before + more and now, f"blocks for {consumer}"
        )

    def workers(self):
        """The process of each worker, by the address of its device."""
        pid = self.process.pid
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            mine = children.read().split()
        # Any thread may have started a worker.
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as children:
                mine += children.read().split()
        found = {}
        for child in mine:
            with open(f"/proc/{child}/cmdline", "rb") as line:
                words = line.read().decode().split("\0")
            if len(words) > 2:
                found[words[2]] = int(child)
        return found

    def end(self):
        self.process.stdin.close()
        return self.process.wait(LIMIT)


@unittest.skipUnless(has_namespaces(), "network namespaces are not permitted here")
class HubCase(unittest.TestCase):
    """Host 1 has the hub."""

    def setUp(self):
        self.hosts = {}
        run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        self.addCleanup(run, "ip", "link", "delete", "br0")
        run("ip", "link", "set", "br0", "up")

    def host(self, number):
        if number not in self.hosts:
            self.hosts[number] = Host(number)
            self.addCleanup(self.hosts[number].close)
        return self.hosts[number]

    def console(self, *options, host=1):
        console = Console(self.host(host), *options)
        self.addCleanup(console.close)
        return console

    def device(self, host, kind="camera", size=1000, rate=100):
        device = self.host(host).start(DEVICE, kind, "picture", str(size), str(rate))
        self.addCleanup(device.close)
        self.assertEqual(device.line(), "ready")
        return device

    def kill(self, child):
        child.process.send_signal(signal.SIGKILL)
        child.process.wait()
