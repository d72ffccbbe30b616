"""Devices on hosts of their own, and a hub's core that is driven by lines."""

import json
import os
import signal
import subprocess
import unittest

import hosts
from child_process import ChildProcess
from hosts import LIMIT, eventually, has_namespaces

CONSOLE = os.environ["HUB_CONSOLE"]
DEVICE = os.environ["HUB_DEVICE"]
HUB = os.environ["LUMORA_HUB"]
SILENT_NODE = os.environ["SILENT_NODE"]
LUMORA = os.environ.get("LUMORA_PROGRAM")


class Host(hosts.Host):
    """One on which programs are started."""

    def start(self, *words, **options):
        environment = {**os.environ, "LUMORA_LINK_INTERFACE": "eth0", **options.pop("env", {})}
        return ChildProcess(self.command(*words), env=environment, stderr=subprocess.DEVNULL, **options)


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
        hosts.make_bridge()
        self.addCleanup(hosts.remove_bridge)

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
