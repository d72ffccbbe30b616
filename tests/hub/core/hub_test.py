"""The core of the hub with real devices."""

import os
import signal
import subprocess
import time
import unittest

from child_process import ChildProcess
from hub_case import HUB, LUMORA, SILENT_NODE, HubCase, eventually


class Blocks(HubCase):
    def test_every_consumer_gets_every_block(self):
        self.device(2)
        hub = self.console()
        for name in "abc":
            self.assertTrue(hub.ask(f"subscribe {name} camera picture"))
        # The first block of each may differ; from then on none is missing.
        for name in "abc":
            consumer = hub.wait_for_blocks(name, 100)
            self.assertEqual((consumer["gaps"], consumer["repeated"], consumer["lost"]), (0, 0, 0))
        device = hub.device("camera@10.77.0.2")
        self.assertEqual((device["channel"], device["reconnects"]), ("CONNECTED", 0))

    def test_a_consumer_that_does_not_read_loses_its_own_oldest_blocks_only(self):
        self.device(2, rate=400)
        hub = self.console()
        hub.ask("subscribe quick camera picture")
        hub.ask("stuck slow camera picture 10")
        hub.wait_for_blocks("quick", 400)
        slow, quick = hub.consumer("slow"), hub.consumer("quick")
        self.assertEqual((slow["waiting"], slow["waitingBytes"]), (10, 10_000))
        self.assertGreater(slow["lost"], 300)
        self.assertEqual((quick["gaps"], quick["lost"]), (0, 0))

    def test_a_pause_of_the_hub_costs_no_small_block(self):
        self.device(2, size=100, rate=2000)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        hub.process.send_signal(signal.SIGSTOP)
        time.sleep(0.4)
        hub.process.send_signal(signal.SIGCONT)
        consumer = hub.wait_for_blocks("a", 1500)
        self.assertEqual((consumer["gaps"], consumer["lost"]), (0, 0))

    def test_large_blocks_come_whole(self):
        self.device(2, size=1_024_000, rate=20)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        consumer = hub.wait_for_blocks("a", 20)
        self.assertEqual((consumer["gaps"], consumer["bytes"]), (0, consumer["received"] * 1_024_000))

    def test_a_subscription_waits_for_a_device_that_comes_later(self):
        hub = self.console()
        self.assertTrue(hub.ask("subscribe a camera picture"))
        self.assertTrue(hub.ask("subscribe b camera@10.77.0.2 picture"))
        self.device(2)
        hub.wait_for_blocks("a")
        hub.wait_for_blocks("b")

    def test_a_channel_lives_from_the_first_consumer_to_a_while_after_the_last(self):
        device = self.device(2)
        hub = self.console("--idle", "0.3")
        hub.wait_for_device("camera@10.77.0.2", channel="IDLE")
        self.assertEqual(hub.workers(), {})
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        self.assertEqual(list(hub.workers()), ["10.77.0.2"])
        hub.ask("end a")
        hub.wait_for_device("camera@10.77.0.2", channel="IDLE")
        eventually(lambda: not hub.workers(), "the worker's end")
        self.assertEqual([device.line(), device.line()], ["subscribed", "unsubscribed"])

    def test_too_many_consumers_are_refused(self):
        self.device(2)
        hub = self.console("--consumers", "2")
        self.assertEqual([hub.ask(f"subscribe {name} camera picture") for name in "abc"], [True, True, False])
        hub.wait_for_blocks("a")
        hub.ask("end b")
        self.assertTrue(hub.ask("subscribe c camera picture"))
        hub.wait_for_blocks("c")

    def test_a_service_that_the_device_does_not_have_is_told(self):
        self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera sound")
        device = hub.wait_for_device("camera@10.77.0.2", channel="CONNECTED")
        device = eventually(lambda: (now := hub.device(device["id"]))["trouble"] and now, "the trouble")
        self.assertEqual(device["trouble"], 'the device refuses the subscription to "sound"')


class Requests(HubCase):
    def test_commands_and_blocks_reach_the_device(self):
        device = self.device(2)
        hub = self.console()
        hub.wait_for_device("camera@10.77.0.2")
        self.assertEqual(hub.ask("command camera turn left"), "DONE")
        self.assertEqual(hub.ask("block camera@10.77.0.2 5242880"), "DONE")
        self.assertEqual([device.line(), device.line()], ["command turn left", "block 5242880"])

    def test_names_and_sizes_that_cannot_be(self):
        self.device(2)
        hub = self.console()
        hub.wait_for_device("camera@10.77.0.2")
        self.assertEqual(hub.ask("command lamp turn"), "NO_DEVICE")
        self.assertEqual(hub.ask("command camera@10.77.0.3 turn"), "NO_DEVICE")
        self.assertEqual(hub.ask("command camera " + 401 * "x"), "BAD_REQUEST")
        self.assertEqual(hub.ask("command camera subscribe"), "BAD_REQUEST")
        self.assertEqual(hub.ask("block camera 0"), "BAD_REQUEST")
        self.assertEqual(hub.ask("block camera 5242881"), "BAD_REQUEST")


class Changes(HubCase):
    def test_nodes_that_are_no_devices_are_not_listed(self):
        self.device(2)
        other = self.host(3).start(LUMORA, "find", "--watch")
        self.addCleanup(other.close)
        hub = self.console()
        hub.wait_for_device("camera@10.77.0.2")
        second = self.console(host=4)
        second.wait_for_device("camera@10.77.0.2")
        self.assertEqual([device["id"] for device in hub.report()["devices"]], ["camera@10.77.0.2"])

    def test_only_named_types_are_listed(self):
        self.device(2)
        self.device(3, kind="lamp")
        hub = self.console("--type", "lamp")
        hub.wait_for_device("lamp@10.77.0.3")
        time.sleep(2)  # longer than the interval of a node's hellos
        self.assertEqual([device["id"] for device in hub.report()["devices"]], ["lamp@10.77.0.3"])

    def test_a_device_that_was_killed_comes_back_to_its_consumers(self):
        device = self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera@10.77.0.2 picture")
        hub.wait_for_blocks("a")
        for _ in range(2):
            self.kill(device)
            device = self.device(2)
            hub.wait_for_blocks("a")
        self.assertEqual([device["id"] for device in hub.report()["devices"]], ["camera@10.77.0.2"])
        self.assertEqual(hub.device("camera@10.77.0.2")["present"], True)

    def test_a_device_that_left_is_kept_for_its_consumers_and_then_forgotten(self):
        device = self.device(2)
        hub = self.console("--forget", "2")
        hub.ask("subscribe a camera@10.77.0.2 picture")
        hub.wait_for_blocks("a")
        device.process.terminate()
        hub.wait_for_device("camera@10.77.0.2", present=False, channel="IDLE")
        eventually(lambda: not hub.report()["devices"], "its end")
        events = [event.split()[0] for event in hub.report()["events"]]
        self.assertEqual((events[0], events[-2:]), ("APPEARED", ["LEFT", "FORGOTTEN"]))

    def test_a_type_stands_for_another_device_when_the_first_has_left(self):
        first = self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        second = self.device(3)
        hub.wait_for_device("camera@10.77.0.3", channel="IDLE")
        first.process.terminate()
        hub.wait_for_device("camera@10.77.0.3", channel="CONNECTED")
        hub.wait_for_blocks("a")
        self.assertEqual(second.line(), "subscribed")

    def test_a_worker_that_dies_is_replaced_and_disturbs_no_other(self):
        self.device(2)
        self.device(3)
        hub = self.console()
        hub.ask("subscribe a camera@10.77.0.2 picture")
        hub.ask("subscribe b camera@10.77.0.3 picture")
        hub.wait_for_blocks("a")
        hub.wait_for_blocks("b")
        os.kill(hub.workers()["10.77.0.2"], signal.SIGKILL)
        hub.wait_for_device("camera@10.77.0.2", channel="CONNECTED", reconnects=1)
        hub.wait_for_blocks("a")
        hub.wait_for_blocks("b", 200)
        self.assertEqual(hub.consumer("b")["gaps"], 0)
        self.assertEqual(hub.device("camera@10.77.0.3")["reconnects"], 0)

    def test_the_hub_gives_way_to_another_client(self):
        self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        other = self.host(3).start(LUMORA, "subscribe", "camera", "picture")
        self.addCleanup(other.close)
        device = hub.wait_for_device("camera@10.77.0.2", channel="FAILED")
        self.assertIn("another client", device["trouble"])
        end = time.monotonic() + 2
        while time.monotonic() < end:
            other.line()
        self.assertEqual(hub.device("camera@10.77.0.2")["channel"], "FAILED")
        other.close()
        hub.wait_for_device("camera@10.77.0.2", channel="CONNECTED")
        hub.wait_for_blocks("a")


class Limits(HubCase):
    def test_a_port_that_is_taken_is_passed_over(self):
        taken = self.host(1).start("python3", "-c", LISTEN, "6701")
        self.addCleanup(taken.close)
        self.assertEqual(taken.line(), "listening")
        self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")

    def test_a_device_without_a_port_is_told(self):
        for number in (2, 3, 4):
            self.device(number)
        hub = self.console("--ports", "6700-6703")
        for number in (2, 3, 4):
            hub.wait_for_device(f"camera@10.77.0.{number}")
            hub.ask(f"subscribe {number} camera@10.77.0.{number} picture")
        hub.wait_for_blocks("2")
        hub.wait_for_blocks("3")
        device = hub.wait_for_device("camera@10.77.0.4", channel="FAILED")
        self.assertEqual(device["trouble"], "all data ports are in use; --ports names more")

    def test_devices_that_are_there_take_the_place_of_one_that_left(self):
        first = self.device(2)
        hub = self.console("--devices", "2")
        hub.ask("subscribe a camera@10.77.0.2 picture")
        hub.wait_for_blocks("a")
        first.process.terminate()
        eventually(lambda: hub.device("camera@10.77.0.2").get("present") is False, "the end of the device")
        self.device(3)
        hub.wait_for_device("camera@10.77.0.3", present=True)
        self.assertEqual(hub.device("camera@10.77.0.2")["present"], False)
        self.device(4)
        hub.wait_for_device("camera@10.77.0.4", present=True)
        self.assertEqual(hub.device("camera@10.77.0.2"), {})

    def test_fifty_devices_at_once(self):
        count = 50
        for number in range(2, count + 2):
            self.device(number, rate=10)
        hub = self.console()
        for number in range(2, count + 2):
            hub.ask(f"subscribe {number} camera@10.77.0.{number} picture")
        for number in range(2, count + 2):
            hub.wait_for_blocks(str(number), 1)
        before = {consumer["name"]: consumer["received"] for consumer in hub.report()["consumers"]}
        time.sleep(3)
        report = hub.report()
        for consumer in report["consumers"]:
            self.assertGreater(consumer["received"], before[consumer["name"]], consumer)
            self.assertEqual((consumer["gaps"], consumer["lost"]), (0, 0), consumer)
        self.assertEqual({device["reconnects"] for device in report["devices"]}, {0})


class Strangers(HubCase):
    """One host announces very many devices."""

    SECONDS = 5

    def strangers(self, count, *words):
        """Silent nodes on host 3. Their words may have their numbers in them."""
        for number in range(count):
            node = self.host(3).start(SILENT_NODE, *(word.format(number) for word in words))
            self.addCleanup(node.close)
            self.assertEqual(node.line(), "ready")

    def assert_a_device_is_served_soon(self, hub):
        begin = time.monotonic()
        self.device(2, kind="lamp")
        hub.ask("subscribe honest lamp@10.77.0.2 picture")
        hub.wait_for_blocks("honest", 1)
        self.assertLess(time.monotonic() - begin, self.SECONDS)

    def test_nodes_of_many_types_that_answer_no_question(self):
        hub = self.console()
        self.strangers(16, "a-type-{}")
        time.sleep(1)  # the first of them are being asked
        self.assert_a_device_is_served_soon(hub)

    def test_devices_that_open_no_channel(self):
        hub = self.console()
        self.strangers(16, "camera", "picture")
        eventually(lambda: len(hub.report()["devices"]) == 16, "the devices of the stranger")
        for device in hub.report()["devices"]:
            hub.ask(f"subscribe {device['id']} {device['id']} picture")
        self.assert_a_device_is_served_soon(hub)
        self.assertEqual(len(hub.workers()), 2)  # by address
        self.assertEqual(hub.report()["refused"], {"nodes": 0, "devices": 0, "channels": 0})

    def test_more_devices_than_the_hub_may_know(self):
        hub = self.console("--devices", "8", "--ports", "6700-6707")
        self.strangers(10, "camera", "picture")
        eventually(lambda: len(hub.report()["devices"]) == 6, "the share of an address")
        for device in hub.report()["devices"]:
            hub.ask(f"subscribe {device['id']} {device['id']} picture")
        eventually(lambda: hub.report()["refused"]["channels"], "a device without a channel")
        self.assert_a_device_is_served_soon(hub)
        report = hub.report()
        self.assertEqual(len(report["devices"]), 7)
        self.assertGreater(report["refused"]["nodes"] + report["refused"]["devices"], 0)


class Ends(HubCase):
    def test_at_its_end_the_hub_says_goodbye(self):
        device = self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        begin = time.monotonic()
        self.assertEqual(hub.end(), 0)
        self.assertLess(time.monotonic() - begin, 5)
        self.assertEqual([device.line(), device.line()], ["subscribed", "unsubscribed"])

    def test_a_hub_that_is_killed_leaves_no_worker_and_another_one_takes_over(self):
        device = self.device(2)
        hub = self.console()
        hub.ask("subscribe a camera picture")
        hub.wait_for_blocks("a")
        workers = list(hub.workers().values())
        self.kill(hub)
        another = self.console()
        another.ask("subscribe a camera picture")
        begin = time.monotonic()
        another.wait_for_blocks("a", 1)
        self.assertLess(time.monotonic() - begin, 3)
        eventually(lambda: not any(os.path.exists(f"/proc/{worker}") for worker in workers), "the workers' end")
        self.assertEqual([device.line(), device.line()], ["subscribed", "unsubscribed"])
        self.assertEqual(len(another.workers()), 1)

    def test_the_program_lists_devices_and_ends_by_a_signal(self):
        device = self.device(2)
        environment = {**os.environ, "LUMORA_LINK_INTERFACE": "eth0"}
        hub = ChildProcess(self.host(1).command(HUB, "--no-web", "--list"), env=environment)
        self.addCleanup(hub.close)
        self.assertEqual(hub.line(), "+ camera@10.77.0.2  picture")
        device.process.terminate()
        self.assertEqual(hub.line(), "- camera@10.77.0.2")
        hub.process.send_signal(signal.SIGTERM)
        self.assertEqual(hub.process.wait(10), 0)

    def test_options_come_from_a_file_as_well(self):
        path = f"/tmp/lumora-hub-{os.getpid()}.toml"
        self.addCleanup(os.remove, path)
        with open(path, "w", encoding="ascii") as file:
            file.write('no-web = true\nlist = true\ntype = ["lamp"]\nports = "6700-6701"\n')
        self.device(2)
        self.device(3, kind="lamp")
        environment = {**os.environ, "LUMORA_LINK_INTERFACE": "eth0"}
        hub = ChildProcess(self.host(1).command(HUB, "--config", path), env=environment)
        self.addCleanup(hub.close)
        self.assertEqual(hub.line(), "+ lamp@10.77.0.3  picture")
        wrong = subprocess.run([HUB, "--ports", "1-2"], capture_output=True, text=True, check=False)
        self.assertEqual((wrong.returncode, wrong.stderr.count("--ports takes")), (2, 1))


LISTEN = """
import socket, sys, time
taken = socket.socket()
taken.bind(("", int(sys.argv[1])))
taken.listen()
print("listening", flush=True)
time.sleep(1000)
"""

if __name__ == "__main__":
    unittest.main(verbosity=2)
