"""The test case of this folder: a network with a device, a client and strangers, and bounds for the honest ones."""

import os
import pathlib
import sys
import threading
import time
import unittest

import network

PROGRAMS = pathlib.Path(os.environ["LUMORA_PROGRAMS"])
STRANGER = pathlib.Path(__file__).with_name("stranger.py")
SANITIZED = bool(os.environ.get("LUMORA_SANITIZED"))
# Seconds that a busy machine or a sanitizer may add to a bound.
SLACK = float(os.environ.get("LINK_TEST_SLACK", "0")) / 1000

CLIENT_HOST, DEVICE_HOST, STRANGER_HOST, OTHER_HOST, NEW_HOST = 1, 2, 3, 4, 5


class StrangerCase(unittest.TestCase):
    def setUp(self):
        print(f"== {self.id().rpartition('__.')[2]}", flush=True)
        self.failed = []
        self.network = network.Network()
        self.addCleanup(self.network.close)

    def tearDown(self):
        if self.failed:
            self.fail(f"{len(self.failed)} bounds do not hold, the first: {self.failed[0]}")

    def host(self, number):
        return self.network.host(number)

    def start(self, host, name, *words, **options):
        program = network.Program(self.host(host), [PROGRAMS / name, *words], **options)
        self.addCleanup(program.close)
        return program

    def ready(self, program):
        self.assertIsNotNone(program.line("ready"), program.log)
        return program

    def device(self, host=DEVICE_HOST):
        """Starts the echo device of the examples."""
        return self.ready(self.start(host, "device"))

    def client(self, host=CLIENT_HOST):
        """Starts a client that does what standard input says."""
        return self.start(host, "lasting_client")

    def connected_client(self):
        client = self.client()
        answer, _ = client.ask("connect", "connect (done|failed)")
        self.assertEqual(answer[1], "done", client.log[-20:])
        return client

    def node(self, host=OTHER_HOST):
        """Starts a node that prints events, searches and asks."""
        return self.ready(self.start(host, "asking_node"))

    def stranger(self, *words, host=STRANGER_HOST):
        """Starts an attack. Returns when it has begun."""
        program = network.Program(self.host(host), [sys.executable, "-B", STRANGER, *words])
        self.addCleanup(program.close)
        return self.ready(program)

    def attack(self, *words):
        """Runs an attack to its end. Returns its figures."""
        return self.over(self.stranger(*words))

    def over(self, attack):
        done = attack.line("done (.*)")
        self.assertIsNotNone(done, attack.log)
        print(f"    the stranger: {done[1]}", flush=True)
        return done[1]

    def is_true(self, what, holds, seen=""):
        """Prints what was seen. A failure ends the test only when all has been seen."""
        print(f"{'ok     ' if holds else 'FAILED '} {what} {seen}".rstrip(), flush=True)
        if not holds:
            self.failed.append(what)

    def is_equal(self, what, seen, wanted):
        self.is_true(what, seen == wanted, f"({seen}, wanted {wanted})")

    def at_most(self, what, seen, bound, unit=""):
        self.is_true(what, seen <= bound, f"({seen:.3g} {unit}, at most {bound:g})")

    def within(self, what, seconds, bound):
        self.at_most(what, seconds, bound + SLACK, "s")

    # What clients, devices and other nodes do, each with its bound in seconds.

    def command_is_answered(self, client, what, seconds=1.0):
        answer, took = client.ask("version", "version (done|failed)", limit=seconds + SLACK + 5)
        self.is_true(f"{what}: a request is answered", bool(answer) and answer[1] == "done")
        self.within(f"{what}: the request", took, seconds)

    def device_is_found(self, client, what, seconds=1.0):
        answer, took = client.ask("find", "find (done|failed)", limit=seconds + SLACK + 5)
        self.is_true(f"{what}: the device is found", bool(answer) and answer[1] == "done")
        self.within(f"{what}: the search and the request behind it", took, seconds)

    def node_finds(self, node, kind, what, addresses, seconds=1.0):
        """Searches and compares the addresses found; no request follows."""
        answer, took = node.ask(f"find {kind}", r"found (\d+)(.*)", limit=seconds + SLACK + 5)
        found = sorted({place.split(":")[0] for place in answer[2].split()}) if answer else None
        self.is_equal(f"{what}: the addresses that a search tells", found, addresses)
        self.within(f"{what}: the search", int(answer[1]) / 1000 if answer else took, seconds)

    def node_is_answered(self, node, what, key="GetVersion", seconds=1.0):
        answer, took = node.ask(f"get {key}", r"got (\d+) (\d+) ?(.*)", limit=seconds + SLACK + 5)
        self.is_true(f"{what}: a request of a node is answered", bool(answer) and answer[2] == "1")
        self.within(f"{what}: that request", took, seconds)
        return answer[3] if answer else None


class Stream:
    """Texts that a client sends and that come back from the device, until the block ends."""

    PAUSE = 0.02

    def __init__(self, case, client):
        self.case = case
        self.client = client
        self.sent = 0
        self.running = True
        self.thread = threading.Thread(target=self.run, daemon=True)

    def run(self):
        while self.running:
            self.client.tell(f"text-{self.sent}")
            self.sent += 1
            time.sleep(self.PAUSE)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *failure):
        self.running = False
        self.thread.join()
        if failure[0] is None:
            self.check()

    def check(self):
        last = self.sent - 1
        self.client.line(f"text-{last} ", limit=15)
        self.client.line(f"echo: text-{last}$", limit=5)
        wanted = [f"echo: text-{at}" for at in range(self.sent)]
        came = [line for line in self.client.lines if line.startswith("echo: text-")]
        self.case.is_equal("each text of the stream was sent", self.client.count(r"text-\d+ done"), self.sent)
        self.case.is_true("and came back, once and in order", came == wanted, f"({len(came)} of {self.sent})")


def main():
    network.enter_own_network()
    unittest.main(verbosity=1)
