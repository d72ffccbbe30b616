"""Flows through the whole hub, while consumers stall and peers die. Every block is looked at: none may be damaged,
repeated or out of order, and what is missing must be what the hub has counted."""

import os
import signal
import time
import unittest

from hosts import eventually, has_namespaces
from hub_field import Field

STALL_S = 4
# A hub that is killed has its consumers back within it, as the page promises.
BACK_S = 3


@unittest.skipUnless(has_namespaces(), "network namespaces are not permitted here")
class FlowCase(unittest.TestCase):
    def setUp(self):
        self.field = Field(os.environ["PEER"], os.environ["LUMORA_HUB"], os.environ["MOSQUITTO"])
        self.addCleanup(self.field.close)
        self.field.start_broker()

    def readers(self, kind, device="camera", count=2, query=""):
        return self.field.start_readers(kind, device, count, query)

    def assert_unharmed(self, *readers):
        for reader in readers:
            self.assertEqual(reader.faults, [])


class Stalls(FlowCase):
    def setUp(self):
        super().setUp()
        self.device = self.field.start_device(2)
        self.field.start_hub()
        self.others = [self.readers("websocket"), self.readers("events")]

    def stall(self, stop, go):
        """What the others saw meanwhile."""
        self.field.seconds_until_fresh(self.others)
        for other in self.others:
            other.ask()
        stop()
        time.sleep(STALL_S)
        seen = [other.ask() for other in self.others]
        go()
        for figures in seen:
            self.assertGreater(figures["blocks"], 100)
            self.assertEqual((figures["missing"], figures["breaks"]), (0, 0))
            self.assertLess(figures["longest_pause_ms"], 1500)

    def check_stalled(self, kind):
        slow = self.readers(kind, query="?blocks=64")  # a stall sends more
        self.field.seconds_until_fresh([slow])
        self.stall(lambda: slow.tell("stall"), lambda: slow.tell("go"))
        self.field.seconds_until_fresh([slow])
        eventually(lambda: slow.ask()["missing"] > 0, "the gap that the stall has left")
        # What waited in the kernel is read, so the numbers are up to date.
        self.field.seconds_until_fresh([slow])
        figures = slow.ask()
        self.assertEqual(figures["breaks"], 0)
        self.assertEqual(self.field.metric("lumora_hub_web_lost_blocks_total"), figures["missing"])
        self.assertEqual(figures["connects"], 2)
        if kind == "websocket":
            self.assertEqual(figures["told_lost"], figures["missing"])
        self.assert_unharmed(slow, *self.others)

    def test_a_websocket_that_stops_reading(self):
        self.check_stalled("websocket")

    def test_a_stream_of_events_that_stops_being_read(self):
        self.check_stalled("events")

    def test_a_broker_that_freezes(self):
        slow = self.readers("mqtt", "camera@10.77.0.2", 1)
        self.field.seconds_until_fresh([slow])
        self.stall(lambda: self.field.broker.send(signal.SIGSTOP), lambda: self.field.broker.send(signal.SIGCONT))
        self.field.seconds_until_fresh([slow])
        self.assertEqual(slow.ask()["breaks"], 0)
        self.assert_unharmed(slow, *self.others)


class Deaths(FlowCase):
    def setUp(self):
        super().setUp()
        self.device = self.field.start_device(2)
        self.field.start_hub()
        self.all = [self.readers("websocket"), self.readers("events"), self.readers("mqtt", "camera@10.77.0.2", 1)]
        self.field.seconds_until_fresh(self.all)

    def tearDown(self):
        self.assert_unharmed(*self.all)

    def test_a_hub_that_is_killed_again_and_again(self):
        for _ in range(4):
            workers = self.field.workers()
            self.assertEqual(len(workers), 1)
            self.field.drop(self.field.hub)
            self.field.start_hub()
            self.assertLess(self.field.seconds_until_fresh(self.all), BACK_S)
            self.field.await_end_of(workers)

    def test_a_hub_whose_workers_are_killed_with_it(self):
        for worker in self.field.workers():
            os.kill(worker, signal.SIGKILL)
        self.field.drop(self.field.hub)
        self.field.start_hub()
        self.assertLess(self.field.seconds_until_fresh(self.all), BACK_S)

    def test_a_worker_that_is_killed(self):
        for _ in range(3):
            os.kill(self.field.workers()[0], signal.SIGKILL)
            self.assertLess(self.field.seconds_until_fresh(self.all), BACK_S)

    def test_a_device_that_is_killed_and_started_again(self):
        for _ in range(3):
            self.field.drop(self.device)
            self.device = self.field.start_device(2)
            self.assertLess(self.field.seconds_until_fresh(self.all), BACK_S)

    def test_a_device_whose_address_changes(self):
        self.field.host(2).move("10.77.0.9")
        self.field.seconds_until_fresh(self.all[:2])
        another = self.readers("mqtt", "camera@10.77.0.9", 1)
        self.field.seconds_until_fresh([another])
        self.assert_unharmed(another)

    def test_a_short_cut_of_the_network_is_not_taken_for_another_client(self):
        # It fills its buffers within the cut, and closes the channel half a second later.
        self.field.start_device(3, "screen", 1000000, 500)
        reader = self.readers("websocket", "screen", 1)
        self.field.seconds_until_fresh([reader])
        time.sleep(6)  # a connection that has shown that it is good
        self.field.host(3).cut(True)
        time.sleep(2.3)
        self.field.host(3).cut(False)
        # TCP tells of the end when it repeats a segment, which may be seconds after the network is whole again.
        eventually(lambda: self.field.metric("lumora_hub_channels", "connected") == 1, "the end of the channel")
        begin = time.monotonic()
        # Blocks that waited at the device come first, so they do not tell that there is a channel again.
        eventually(lambda: self.field.metric("lumora_hub_reconnects_total", "screen") > 0, "another channel")
        self.field.seconds_until_fresh([reader])
        self.assertLess(time.monotonic() - begin, BACK_S)
        self.assert_unharmed(reader)

    def test_a_long_cut_of_the_network(self):
        self.field.host(2).cut(True)
        # So long that the hub looks for it at pauses of five seconds. It is back when it is heard.
        time.sleep(10)
        self.field.host(2).cut(False)
        self.assertLess(self.field.seconds_until_fresh(self.all), BACK_S)


if __name__ == "__main__":
    unittest.main(verbosity=2)
