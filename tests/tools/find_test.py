"""lumora find, info, version: who is there, and what they say of themselves."""

import json
import os
import signal
import socket
import subprocess
import unittest

from lumora_case import ENDED_BY_CLOSED_PIPE, ENDED_BY_INTERRUPT, PROGRAM, LumoraCase, lumora


class Find(LumoraCase):
    def test_shows_address_port_type_and_services(self):
        self.device("camera", "--service", "picture:udp:1024", "--service", "sound")
        result = lumora("find", "camera")
        self.assert_succeeds(result)
        head, first, second = result.stdout.splitlines()
        self.assertEqual(head.split("  ")[0], "ADDRESS")
        self.assertRegex(first, r"^127\.0\.0\.1 +\d+ +camera +picture +udp +1,024$")
        self.assertRegex(second, r"^127\.0\.0\.1 +\d+ +camera +sound +tcp +1,024,000$")

    def test_as_json(self):
        self.device("camera", "--service", "picture:rtp:7")
        result = lumora("find", "camera", "--json")
        self.assert_succeeds(result)
        (device,) = json.loads(result.stdout)
        self.assertEqual((device["address"], device["type"]), ("127.0.0.1", "camera"))
        self.assertEqual(device["services"], [{"name": "picture", "transport": "rtp", "outputBytes": 7}])

    def test_finds_all_of_a_type(self):
        for service in ["one", "two", "three"]:
            self.device("camera", "--service", service)
        self.device("reader", "--echo")
        found = json.loads(lumora("find", "camera", "--json").stdout)
        self.assertEqual({device["services"][0]["name"] for device in found}, {"one", "two", "three"})

    def test_without_a_type_finds_every_device(self):
        self.device("camera", "--echo")
        self.device("reader", "--echo")
        result = lumora("find", "--json")
        self.assert_succeeds(result)
        self.assertEqual([device["type"] for device in json.loads(result.stdout)], ["camera", "reader"])

    def test_absent_device(self):
        self.assert_fails(lumora("find", "camera", "--wait", "0"), 3, '"camera"', "lumora doctor")

    def test_absent_device_as_json(self):
        result = lumora("find", "camera", "--wait", "0", "--json")
        self.assertEqual((result.returncode, result.stdout), (3, "[]\n"))
        self.assertEqual(json.loads(result.stderr)["exit"], 3)

    def test_no_device_at_all(self):
        self.assert_fails(lumora("find", "--wait", "0.1"), 3, "no device was found")

    def test_waits_for_a_device_that_comes_later(self):
        searching = self.start("find", "camera", "--json", "--wait", "60")
        self.device("camera", "--echo")
        self.assertEqual(len(json.loads(searching.line())), 1)
        self.assertEqual(searching.wait(), 0)

    def test_interrupt_ends_a_search(self):
        watching = self.start("find", "lumora-cli", "--watch")
        searching = self.start("cmd", "camera", "Stop", "--wait", "600")
        self.assertIn("+ ", watching.line())  # it has joined the network
        self.assertEqual(searching.end(), ENDED_BY_INTERRUPT)

    def test_types_that_steer_terminals_are_shown_harmless(self):
        self.device("cam\x1b[31mera", "--echo")
        self.assertNotIn("\x1b", lumora("find").stdout)


class Watch(LumoraCase):
    def test_tells_who_comes_and_goes(self):
        watching = self.start("find", "--watch")
        device = self.device("camera", "--service", "picture")
        self.assertRegex(
            watching.line(), r"^[\d:.]+  \+ 127\.0\.0\.1:\d+  camera  picture \(tcp, 1,024,000\)$"
        )
        device.end()
        self.assertRegex(watching.line(), r"^[\d:.]+  - 127\.0\.0\.1:\d+  camera$")
        self.assertEqual(watching.end(), 0)

    def test_keeps_to_its_type_and_writes_json(self):
        watching = self.start("find", "camera", "--watch", "--json")
        self.device("reader", "--echo")
        self.device("camera", "--echo")
        event = json.loads(watching.line())
        self.assertEqual((event["event"], event["device"]["type"]), ("added", "camera"))
        self.assertEqual(watching.end(signal.SIGTERM), 0)

    def test_ends_quietly_when_its_reader_has_left(self):
        watching = self.start("find", "--watch")
        watching.process.stdout.close()
        self.assertEqual(watching.wait(), ENDED_BY_CLOSED_PIPE)
        self.assertEqual(watching.errors(), "")


class Info(LumoraCase):
    def test_tells_what_a_device_says(self):
        self.device("camera", "--service", "picture:tcp:0")
        result = lumora("info", "camera")
        self.assert_succeeds(result)
        self.assertRegex(result.stdout, r"(?m)^camera\n  address  127\.0\.0\.1, UDP port \d+$")
        self.assertRegex(result.stdout, r"(?m)^  version  \d+\.\d+\.\d+$")
        self.assertIn("  service  picture, tcp, output of any length\n", result.stdout)

    def test_every_device_as_json(self):
        self.device("camera", "--echo")
        self.device("reader", "--echo")
        found = json.loads(lumora("info", "--json").stdout)
        self.assertEqual([device["answers"] for device in found], [True, True])

    def test_absent_device(self):
        self.assert_fails(lumora("info", "camera", "--wait", "0"), 3, '"camera"', "lumora find")


class Addresses(LumoraCase):
    """Several devices of one type; on one host their ports tell them apart."""

    def addresses(self):
        found = json.loads(lumora("find", "camera", "--json").stdout)
        return {device["services"][0]["name"]: f"{device['address']}:{device['port']}" for device in found}

    def test_choose_the_device(self):
        devices = {service: self.device("camera", "--service", service) for service in ["one", "two", "three"]}
        for service, address in self.addresses().items():
            self.assert_succeeds(lumora("cmd", f"camera@{address}", "Stop", service))
            self.assertEqual(devices[service].event("command")["parameter"], service)
            self.assert_succeeds(lumora("cmd", "camera", "Go", service, "--address", address))
            self.assertEqual(devices[service].event("command")["parameter"], service)

    def test_hold_for_commands_that_look(self):
        self.device("camera", "--service", "one")
        self.device("camera", "--service", "two")
        address = self.addresses()["two"]
        for command in ["find", "info"]:
            (found,) = json.loads(lumora(command, f"camera@{address}", "--json").stdout)
            self.assertEqual(found["services"][0]["name"], "two")
        self.assert_succeeds(lumora("version", f"camera@{address}"))

    def test_that_no_device_has(self):
        self.device("camera", "--echo")
        for words in [["cmd", "camera@192.0.2.1", "Stop"], ["info", "camera@192.0.2.1"], ["version", "camera@192.0.2.1"]]:
            self.assert_fails(lumora(*words, "--wait", "0"), 3, '"camera" at 192.0.2.1')

    def test_an_at_sign_in_a_type_is_a_letter(self):
        self.device("camera@home", "--echo")
        self.assert_succeeds(lumora("info", "camera@home"))

    def test_a_service_is_found_among_many_devices(self):
        services = ["one", "two", "three", "four", "five", "six"]
        for service in services:
            self.device("camera", "--service", service)
        for service in services:
            result = lumora("subscribe", "camera", service, "--timeout", "0.1")
            self.assertEqual(result.returncode, 5, result)


class Version(LumoraCase):
    def test_of_program_and_library(self):
        result = lumora("version")
        self.assert_succeeds(result)
        self.assertRegex(result.stdout, r"^program  (\d+\.\d+\.\d+)\nlibrary  \1\n$")

    def test_without_a_device_touches_no_network(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as ear:
            ear.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            ear.bind(("224.0.1.187", 5683))
            membership = socket.inet_aton("224.0.1.187") + socket.inet_aton("127.0.0.1")
            ear.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
            ear.setblocking(False)
            self.assert_succeeds(lumora("version"))
            self.assertRaises(BlockingIOError, ear.recv, 1)
            lumora("find", "camera", "--wait", "0")
            ear.recv(1)  # this one does

    def test_of_a_device_too(self):
        self.device("camera", "--echo")
        versions = json.loads(lumora("version", "camera", "--json").stdout)
        self.assertEqual(versions["device"], versions["library"])

    def test_of_an_absent_device(self):
        self.assert_fails(lumora("version", "camera", "--wait", "0"), 3, '"camera"')


class Output(LumoraCase):
    def test_a_full_disk_is_told(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run(
                [PROGRAM, "version"], stdout=full, stderr=subprocess.PIPE, text=True, check=False
            )
        self.assertEqual(result.returncode, 6)
        self.assertEqual(result.stderr, "lumora: standard output cannot be written: No space left on device\n")

    def test_an_output_that_is_closed_is_told(self):
        script = 'exec "$0" version >&-'
        result = subprocess.run(["sh", "-c", script, PROGRAM], stderr=subprocess.PIPE, text=True, check=False)
        self.assert_fails(result, 6, "standard output cannot be written")

    def test_an_input_that_is_closed_is_empty(self):
        self.device("archive", "--echo")
        script = 'exec "$0" send archive - <&-'
        result = subprocess.run(["sh", "-c", script, PROGRAM], stderr=subprocess.PIPE, text=True, check=False)
        self.assert_fails(result, 6, "standard input is empty")

    def test_a_closed_pipe_is_not(self):
        reading, writing = os.pipe()
        os.close(reading)
        result = subprocess.run([PROGRAM, "version"], stdout=writing, stderr=subprocess.PIPE, text=True, check=False)
        os.close(writing)
        self.assertEqual(result.returncode, ENDED_BY_CLOSED_PIPE)
        self.assertEqual(result.stderr, "")

    def test_the_log_is_silent_unless_it_is_asked_for(self):
        self.assertEqual(lumora("version").stderr, "")
        self.assertIn("LUMRA", lumora("version", "--log", "trace").stderr)
        self.assertIn("LUMRA", lumora("version", "--log", "detail").stderr)

    def test_colours_are_for_terminals_that_want_them(self):
        self.assertIn("\x1b[31m", self.errors_on_terminal({}))
        self.assertNotIn("\x1b[", self.errors_on_terminal({"NO_COLOR": "1"}))
        self.assertNotIn("\x1b[", self.errors_on_terminal({"TERM": "dumb"}))
        self.assertNotIn("\x1b[", lumora("nothing").stderr)

    def errors_on_terminal(self, environment):
        return self.on_terminal("nothing", environment=environment).read_all()


if __name__ == "__main__":
    unittest.main()
