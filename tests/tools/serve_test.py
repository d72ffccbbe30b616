"""lumora serve: a device from the command line."""

import json
import pathlib
import signal
import socket
import time
import unittest

from lumora_case import ENDED_BY_CLOSED_PIPE, LumoraCase, lumora


class Serve(LumoraCase):
    def test_tells_what_clients_do(self):
        device = self.start("serve", "camera", "--echo")
        self.assertRegex(device.line(), r"^[\d:.]+  camera is ready with echo; Ctrl-C ends it$")
        lumora("cmd", "camera", "Turn", "left")
        lumora("send", "camera", "-", "--await", "echo", input="hi")
        told = [device.line().partition("  ")[2] for _ in range(4)]
        self.assertEqual(
            told,
            ["command Turn left", "client 1 subscribed to echo", "client 1 sent 2 bytes", "client 1 left echo"],
        )
        self.assertEqual(device.end(), 0)

    def test_a_signal_ends_it_well_and_clients_hear_of_it(self):
        watching = self.start("find", "camera", "--watch")
        for number in [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]:
            with self.subTest(number):
                device = self.device("camera", "--echo")
                self.assertIn("  + ", watching.line())
                self.assertEqual(device.end(number), 0)
                self.assertIn("  - ", watching.line())

    def test_signals_that_it_was_told_to_ignore_do_not_end_it(self):
        device = self.device("camera", "--echo", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        device.process.send_signal(signal.SIGHUP)
        self.assert_succeeds(lumora("cmd", "camera", "Stop"))
        device.event("command")
        self.assertEqual(device.end(), 0)

    def test_ends_quietly_when_its_reader_has_left(self):
        device = self.device("camera", "--echo")
        device.process.stdout.close()
        self.assertEqual(device.wait(), ENDED_BY_CLOSED_PIPE)
        self.assertEqual(device.errors(), "")

    def test_port_of_devices_that_is_taken(self):
        listener = socket.create_server(("", 6666))
        self.addCleanup(listener.close)
        self.assert_fails(lumora("serve", "camera", "--echo"), 4, "6666", "another device")

    def test_what_is_too_long_to_go_back(self):
        device = self.device("camera", "--echo")
        lumora("send", "camera", "-", input="x" * 1_024_001)
        self.assertIn("1,024,000", device.event("data")["fault"])

    def test_a_client_that_is_killed_leaves_its_service(self):
        device = self.device("camera", "--echo")
        client = self.start("subscribe", "camera", "echo")
        device.event("subscribed")
        client.process.kill()
        self.assertEqual(device.event("unsubscribed")["service"], "echo")
        self.assert_succeeds(lumora("send", "camera", "-", "--await", "echo", input="hi"))


class Exec(LumoraCase):
    def answer(self, program, text="", *words):
        """What a client gets whose text the program is given."""
        device = self.device("script", "--service", "answer", "--exec", program, *words)
        result = lumora("send", "script", "-", "--await", "answer", "--as", "raw", input=text or "x")
        self.assert_succeeds(result)
        self.assertEqual(device.event("answer")["bytes"], len(result.stdout.encode()))
        return result.stdout

    def fault(self, program, *words, text="x"):
        """What is told of a program that sends nothing."""
        device = self.device("script", "--service", "answer", "--exec", program, *words)
        lumora("send", "script", "-", input=text)
        return device.event("answer")["fault"]

    def test_program_gets_the_block_and_its_output_comes_back(self):
        self.assertEqual(self.answer("tr a-z A-Z", "lumora\n"), "LUMORA\n")

    def test_large_blocks_both_ways(self):
        text = "0123456789" * 100_000
        self.assertEqual(self.answer("cat", text), text)

    def test_program_knows_client_and_service(self):
        self.assertEqual(self.answer('echo "$LUMORA_CLIENT $LUMORA_SERVICE"'), "1 answer\n")

    def test_program_starts_with_the_usual_signals_and_descriptors(self):
        masks = self.answer("grep -E '^Sig(Blk|Ign)' /proc/self/status").split()
        ordinary = (1 << 31) - 1  # those above are the C library's own
        self.assertEqual({int(mask, 16) & ordinary for mask in masks[1::2]}, {0})
        self.assertEqual(self.answer_of_a_second_device("ls /proc/self/fd"), "0\n1\n2\n3\n")

    def answer_of_a_second_device(self, program):
        self.device("other", "--service", "answer", "--exec", program)
        return lumora("send", "other", "-", "--await", "answer", "--as", "raw", input="x").stdout

    def test_program_need_not_read(self):
        self.assertEqual(self.answer("echo no", "x" * 1_000_000), "no\n")

    def test_program_that_fails(self):
        self.assertEqual(self.fault("echo lost; exit 3"), "the program ended with 3")
        self.assertEqual(self.fault_of_a_second_device("kill -9 $$"), "the program ended with 137")

    def fault_of_a_second_device(self, program):
        device = self.device("other", "--service", "answer", "--exec", program)
        lumora("send", "other", "-", input="x")
        return device.event("answer")["fault"]

    def test_program_that_writes_nothing(self):
        self.assertEqual(self.fault("true"), "the program wrote nothing")

    def test_program_that_writes_too_much(self):
        self.assertIn("1,024,000", self.fault("head -c 1024001 /dev/zero"))

    def test_program_that_takes_too_long_is_ended_with_all_it_started(self):
        marker = self.folder() / "pid"
        fault = self.fault(f"sleep 600 & echo $! >{marker}; wait", "--timeout", "0.5")
        self.assertIn("--timeout", fault)
        self.assert_gone(marker)

    def test_signal_ends_the_program_too(self):
        marker = self.folder() / "pid"
        device = self.device("script", "--service", "answer", "--exec", f"echo $$ >{marker}; exec sleep 600")
        lumora("send", "script", "-", input="x")
        self.until(lambda: marker.exists() and marker.read_text())
        self.assertEqual(device.end(), 0)
        self.assert_gone(marker)

    def test_blocks_are_answered_one_after_the_other(self):
        folder = self.folder()
        (folder / "a").write_text("1\n")
        (folder / "b").write_text("2\n")
        device = self.device("script", "--service", "answer", "--exec", f"cat >>{folder}/all; cat {folder}/all")
        lumora("send", "script", str(folder / "a"), str(folder / "b"))
        self.assertEqual([device.event("answer")["bytes"] for _ in range(2)], [2, 4])
        self.assertEqual((folder / "all").read_text(), "1\n2\n")

    def test_commands_reach_the_script_and_it_answers(self):
        program = 'echo "$LUMORA_COMMAND [$LUMORA_PARAMETER] $(cat) $LUMORA_SERVICE"'
        device = self.device("lamp", "--service", "state", "--on-command", program)
        result = lumora("cmd", "lamp", "Turn", "on", "--await", "state", "--as", "raw")
        self.assert_succeeds(result)
        self.assertEqual(result.stdout, "Turn [on] on state\n")
        self.assertEqual(device.event("answer")["service"], "state")

    def test_sizes_as_people_write_them(self):
        self.device("camera", "--service", "picture:tcp:1.5M")
        (found,) = json.loads(lumora("info", "camera", "--json").stdout)
        self.assertEqual(found["services"][0]["outputBytes"], 1572864)

    def test_runs_by_itself_while_a_client_is_subscribed(self):
        folder = self.folder()
        device = self.device(
            "clock", "--service", "time", "--exec", f"echo \"[$LUMORA_CLIENT]\" | tee -a {folder}/runs", "--every", "0.01"
        )
        self.assertEqual(list(folder.iterdir()), [])
        result = lumora("subscribe", "clock", "time", "--count", "2", "--as", "raw")
        self.assertEqual(result.stdout, "[]\n[]\n")
        device.event("unsubscribed")
        self.assertEqual(device.end(), 0)
        told = [json.loads(line)["event"] for line in device.rest().splitlines()]
        self.assertNotIn("answer", told)

    def until(self, condition):
        end = time.monotonic() + 60
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.01)

    def assert_gone(self, marker):
        process = pathlib.Path("/proc") / marker.read_text().strip()
        self.until(lambda: not process.exists() or " Z " in (process / "stat").read_text())


if __name__ == "__main__":
    unittest.main()
