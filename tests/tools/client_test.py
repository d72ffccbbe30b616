"""lumora cmd, subscribe, send, ping: a client of a device."""

import json
import os
import re
import signal
import socket
import subprocess
import unittest

from child_process import ChildProcess
from lumora_case import ENDED_BY_CLOSED_PIPE, ENDED_BY_INTERRUPT, PROGRAM, LumoraCase, lumora

MAX_BLOCK = 5242880
PICTURE = b"\x89PNG\r\n\x1a\n" + bytes(range(256))


class Commands(LumoraCase):
    def test_reaches_the_application(self):
        device = self.device("camera", "--echo")
        self.assert_succeeds(lumora("cmd", "camera", "SetMode", "night and day"))
        event = device.event("command")
        self.assertEqual((event["command"], event["parameter"]), ("SetMode", "night and day"))

    def test_needs_no_parameter(self):
        device = self.device("camera", "--echo")
        result = lumora("cmd", "camera", "Stop", "--json")
        self.assert_succeeds(result)
        self.assertTrue(json.loads(result.stdout)["taken"])
        self.assertEqual(device.event("command")["parameter"], "")

    def test_parameter_may_begin_with_a_hyphen(self):
        device = self.device("camera", "--echo")
        self.assert_succeeds(lumora("cmd", "camera", "--", "Turn", "-90"))
        self.assertEqual(device.event("command")["parameter"], "-90")

    def test_absent_device(self):
        self.assert_fails(lumora("cmd", "camera", "Stop", "--wait", "0"), 3, '"camera"')

    def test_answer_that_does_not_come(self):
        self.device("camera", "--echo")
        result = lumora("cmd", "camera", "Stop", "--await", "echo", "--timeout", "0.1")
        self.assert_fails(result, 5, '"echo"', "--timeout")

    def test_service_that_the_device_has_not(self):
        self.device("camera", "--echo")
        self.assert_fails(lumora("cmd", "camera", "Stop", "--await", "sound"), 3, '"sound"', "lumora info camera")


class Connection(LumoraCase):
    def occupy(self, port):
        listener = socket.create_server(("", port))
        self.addCleanup(listener.close)

    def test_port_of_clients_that_is_taken(self):
        self.device("camera", "--echo")
        self.occupy(6667)
        self.assert_fails(lumora("cmd", "camera", "Stop"), 4, "6667", "another client")

    def test_port_of_devices_that_is_taken(self):
        self.device("camera", "--echo")
        self.occupy(6666)
        self.assert_fails(lumora("cmd", "camera", "Stop"), 4, "6666")

    def test_cause_of_a_failure_is_in_its_message(self):
        self.device("camera", "--echo")
        self.occupy(6666)
        self.assertRegex(lumora("cmd", "camera", "Stop").stderr, r"the device cannot be connected \(.+\); ")

    def test_client_that_is_refused_disturbs_no_other(self):
        self.device("clock", "--service", "time", "--exec", "echo tick", "--every", "0.01")
        subscribing = self.start("subscribe", "clock", "time")
        subscribing.line()
        joined = self.start("find", "lumora-cli", "--watch")
        self.assertIn("+ ", joined.line())
        self.assert_fails(lumora("send", "clock", "--text", "hi"), 4, "6667")
        for _ in range(20):
            subscribing.line()
        self.assertEqual(joined.end(), 0)
        self.assertEqual(joined.rest(), "")  # the one that was refused did not even join

    def test_several_devices_are_remarked_on(self):
        self.device("camera", "--echo")
        self.device("camera", "--service", "sound")
        result = lumora("subscribe", "camera", "sound", "--count", "1", "--timeout", "0.1")
        self.assertEqual(result.returncode, 5)
        self.assertIn('2 devices of type "camera" answered', result.stderr)


class Send(LumoraCase):
    def test_sends_each_file_as_a_block(self):
        device = self.device("archive", "--service", "none")
        folder = self.folder()
        (folder / "one").write_bytes(b"1")
        (folder / "most").write_bytes(bytes(MAX_BLOCK))
        result = lumora("send", "archive", str(folder / "one"), str(folder / "most"))
        self.assert_succeeds(result)
        self.assertEqual(result.stdout, "")
        self.assertEqual(device.event("data")["bytes"], 1)
        self.assertEqual(device.event("data")["bytes"], MAX_BLOCK)

    def test_refuses_what_does_not_fit_into_a_block(self):
        folder = self.folder()
        (folder / "long").write_bytes(bytes(MAX_BLOCK + 1))
        result = lumora("send", "archive", str(folder / "long"))
        self.assert_fails(result, 2, "long has more than the 5,242,880 bytes", "--split")

    def test_refuses_it_from_standard_input_too(self):
        self.device("archive", "--service", "none")
        result = lumora("send", "archive", "-", input="x" * (MAX_BLOCK + 1))
        self.assert_fails(result, 2, "standard input", "--split")

    def test_splits_when_told_to(self):
        device = self.device("archive", "--service", "none")
        folder = self.folder()
        (folder / "long").write_bytes(bytes(MAX_BLOCK + 1))
        result = lumora("send", "archive", str(folder / "long"), "--split", "2M", "--json")
        self.assert_succeeds(result)
        self.assertEqual(json.loads(result.stdout)["blocks"], 3)
        self.assertEqual([device.event("data")["bytes"] for _ in range(3)], [2**21, 2**21, 2**20 + 1])

    def test_sends_standard_input_as_it_comes(self):
        device = self.device("archive", "--service", "none")
        sending = self.start("send", "archive", "-", "--split", "4", stdin=subprocess.PIPE)
        sending.process.stdin.write("abcdef")
        sending.process.stdin.flush()
        self.assertEqual(device.event("data")["bytes"], 4)
        sending.process.stdin.close()
        self.assertEqual(device.event("data")["bytes"], 2)
        self.assertEqual(sending.wait(), 0)
        sending.process.stdin = None

    def test_prints_the_answer(self):
        self.device("archive", "--echo")
        result = lumora("send", "archive", "-", "--await", "echo", "--as", "raw", input="grüße\n")
        self.assert_succeeds(result)
        self.assertEqual(result.stdout, "grüße\n")

    def test_sends_texts(self):
        device = self.device("archive", "--echo")
        result = lumora("send", "archive", "--text", "one", "-m", "three", "--await", "echo", "--format", "%n %p")
        self.assert_succeeds(result)
        self.assertEqual(result.stdout, "3 one\n5 three\n")
        self.assertEqual([device.event("data")["bytes"] for _ in range(2)], [3, 5])

    def test_sends_lines_as_they_come(self):
        device = self.device("archive", "--service", "none")
        sending = self.start("send", "archive", "-", "--lines", stdin=subprocess.PIPE)
        for line in ["one\n", "\n", "three\n"]:
            sending.process.stdin.write(line)
            sending.process.stdin.flush()
        self.assertEqual([device.event("data")["bytes"] for _ in range(2)], [3, 5])
        sending.process.stdin.write("rest")
        sending.process.stdin.close()
        self.assertEqual(device.event("data")["bytes"], 4)
        self.assertEqual(sending.wait(), 0)
        sending.process.stdin = None

    def test_each_file_and_each_line_has_its_answer(self):
        self.device("archive", "--echo")
        folder = self.folder()
        (folder / "a").write_text("one")
        (folder / "b").write_text("two")
        words = ["--await", "echo", "--format", "%p"]
        result = lumora("send", "archive", str(folder / "a"), str(folder / "b"), *words)
        self.assertEqual(result.stdout, "one\ntwo\n", result)
        result = lumora("send", "archive", "-", "--lines", *words, input="1\n2\n3\n")
        self.assertEqual(result.stdout, "1\n2\n3\n", result)

    def test_interrupt_while_waiting_for_the_writer_of_a_pipe(self):
        device = self.device("archive", "--echo")
        fifo = self.folder() / "fifo"
        os.mkfifo(fifo)
        sending = self.start("send", "archive", str(fifo), "--await", "echo")
        device.event("subscribed")
        self.assertEqual(sending.end(), ENDED_BY_INTERRUPT)

    def test_sends_what_comes_through_a_pipe(self):
        device = self.device("archive", "--echo")
        fifo = self.folder() / "fifo"
        os.mkfifo(fifo)
        sending = self.start("send", "archive", str(fifo), "--await", "echo", "--format", "%p")
        device.event("subscribed")
        fifo.write_text("late")
        self.assertEqual(sending.line(), "late")
        self.assertEqual(sending.wait(), 0)

    def test_sizes_as_people_write_them(self):
        self.device("archive", "--service", "none")
        for size, blocks in [("1024", 3), ("1K", 3), ("1KiB", 3), ("1.5K", 2), ("0.5MiB", 1), ("3000B", 1)]:
            with self.subTest(size):
                words = ["--split", size, "--linger", "0", "--json"]
                result = lumora("send", "archive", "-", *words, input="x" * 3000)
                self.assertEqual(json.loads(result.stdout)["blocks"], blocks, result)

    def test_slow_device_gets_all_although_the_program_ends_at_once(self):
        key = self.folder() / "key"
        key.touch(0o600)
        key.write_text("one:5f0c3e5f0c3e5f0c3e5f0c3e5f0c3e5f\n")
        private = {**os.environ, "LUMORA_LINK_PSK_FILE": str(key), "LUMORA_LINK_CHANNEL": "require"}
        for environment in (os.environ, private):
            for size, count, pause in ((1, 50, 30), (1048576, 50, 40)):
                with self.subTest(size=size, key=environment is private):
                    command = [os.environ["LUMORA_SLOW_DEVICE"], "slow", str(pause)]
                    device = ChildProcess(command, stdin=subprocess.PIPE, env=environment)
                    self.addCleanup(device.close)
                    self.assertEqual(device.line(), "ready")
                    words = ["--split", str(size), "--linger", "0"]
                    result = lumora("send", "slow", "-", *words, input="x" * (size * count), env=environment)
                    self.assertEqual(result.returncode, 0, result)
                    device.process.stdin.write("how many\n")
                    device.process.stdin.flush()
                    self.assertEqual(device.line(), f"blocks {count}")
                    device.process.kill()
                    device.process.wait()

    def test_files_that_cannot_be_sent(self):
        folder = self.folder()
        (folder / "empty").touch()
        self.device("archive", "--echo")
        for name, part in [("absent", "No such file"), ("", "is a folder"), ("empty", "is empty")]:
            with self.subTest(name):
                self.assert_fails(lumora("send", "archive", str(folder / name)), 6, part)

    def test_interrupt_while_waiting_for_input(self):
        device = self.device("archive", "--echo")
        sending = self.start("send", "archive", "-", "--split", "1", stdin=subprocess.PIPE)
        sending.process.stdin.write("a")
        sending.process.stdin.flush()
        device.event("data")
        self.assertEqual(sending.end(), ENDED_BY_INTERRUPT)

    def test_shows_progress_on_a_terminal(self):
        device = self.device("archive", "--service", "none")
        sending = self.on_terminal("send", "archive", "-", "--split", "1", stdin=subprocess.PIPE)
        # The line comes with the first block that is sent later than a moment after the beginning.
        while "B/s" not in sending.text:
            sending.process.stdin.write(b"a")
            sending.process.stdin.flush()
            device.event("data")
            sending.read_what_is_there()
        sending.process.stdin.close()
        sending.process.stdin = None
        text = sending.read_all()
        self.assertIn("standard input", text)
        self.assertRegex(text, r"\r\x1b\[Klumora: [\d.]+ \w+ sent in [\d,]+ blocks\r\n$")

    def test_answers_begin_on_a_line_without_progress(self):
        self.device("archive", "--echo")
        words = ["--lines", "--await", "echo", "--format", "answer %p"]
        sending = self.on_terminal("send", "archive", "-", *words, stdin=subprocess.PIPE)
        number = 0
        while "B/s" not in sending.text:
            number += 1
            sending.process.stdin.write(f"{number}\n".encode())
            sending.process.stdin.flush()
            sending.read_until(f"answer {number}\r\n")
        sending.process.stdin.close()
        sending.process.stdin = None
        self.assertIn(f"\r\x1b[Kanswer {number}\r\n", sending.text)

    def test_shows_a_bar_where_the_whole_is_known(self):
        self.device("archive", "--service", "none")
        folder = self.folder()
        # So many small blocks take longer than the moment that is waited before something is shown.
        (folder / "picture").write_bytes(bytes(400_000))
        sending = self.on_terminal("send", "archive", str(folder / "picture"), "--split", "1")
        sending.read_until("left")
        self.assertRegex(sending.text, r"picture +\[#*\.*\] +\d+ % .* KiB/s  \d+:\d\d left")


class Subscribe(LumoraCase):
    """Over an echo device, to which the test's own blocks go by --await."""

    def answer(self, data, *words):
        """How the block is printed; its time is left out."""
        self.device("archive", "--echo")
        folder = self.folder()
        (folder / "block").write_bytes(data)
        result = subprocess.run(
            [PROGRAM, "send", "archive", str(folder / "block"), "--await", "echo", *words],
            capture_output=True, check=False,
        )
        self.assertEqual((result.returncode, result.stderr), (0, b""), result)
        return re.sub(rb"^\d\d:\d\d:\d\d\.\d{3}  ", b"", result.stdout)

    def json_answer(self, data):
        sent, answer = map(json.loads, self.answer(data, "--json").splitlines())
        self.assertEqual((sent["blocks"], sent["bytes"]), (1, len(data)))
        return answer

    def test_text_on_the_same_line(self):
        self.assertEqual(self.answer(b"hello\n"), b"echo  6 bytes  hello\n")

    def test_longer_text_below(self):
        self.assertEqual(self.answer(b"one\ntwo"), b"echo  7 bytes\none\ntwo\n")

    def test_other_bytes_as_hex(self):
        self.assertEqual(
            self.answer(b"\x00hi\xff"),
            b"echo  4 bytes\n  00000000  00 68 69 ff" + b" " * 38 + b".hi.\n",
        )

    def test_control_characters_are_no_text(self):
        self.assertIn(b"1b 5b 32 4a", self.answer(b"\x1b[2J"))

    def test_hex_when_told_to(self):
        self.assertIn(b"  00000000  68 69 ", self.answer(b"hi", "--as", "hex"))

    def test_text_when_told_to_is_harmless(self):
        self.assertEqual(self.answer(b"\x1bhi\xff", "--as", "text"), "echo  4 bytes  \ufffdhi\ufffd\n".encode())

    def test_raw_bytes(self):
        self.assertEqual(self.answer(PICTURE, "--as", "raw"), PICTURE)

    def test_json_of_text(self):
        line = self.json_answer('sagt "ja"\n'.encode())
        self.assertEqual((line["service"], line["bytes"], line["text"]), ("echo", 10, 'sagt "ja"\n'))
        self.assertRegex(line["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4}$")

    def test_json_of_bytes(self):
        self.assertEqual(self.json_answer(b"\x00\xff")["hex"], "00ff")

    def test_saves_blocks_to_files(self):
        folder = self.folder() / "new"
        printed = self.answer(PICTURE, "--out", str(folder))
        (saved,) = folder.iterdir()
        self.assertEqual(saved.read_bytes(), PICTURE)
        self.assertRegex(saved.name, r"^echo-\d{8}T\d{6}\.\d{3}-000001\.png$")
        self.assertEqual(printed, f"echo  {len(PICTURE)} bytes  {saved}\n".encode())

    def test_a_folder_that_cannot_be_made(self):
        result = lumora("subscribe", "archive", "echo", "--out", "/proc/no/folder")
        self.assert_fails(result, 6, "/proc/no/folder")

    @unittest.skipIf("LUMORA_COVERAGE" in os.environ, "what counts the lines that are reached writes files, too")
    def test_a_full_disk_leaves_no_half_file(self):
        self.device("archive", "--echo")
        folder = self.folder()
        # The file size that a process may write is as good as a disk that is full.
        script = 'ulimit -f 1; trap "" XFSZ; exec "$@"'
        result = subprocess.run(
            ["sh", "-c", script, "sh", PROGRAM, "send", "archive", "-", "--await", "echo", "--out", str(folder)],
            input="x" * 100_000, capture_output=True, text=True, check=False,
        )
        self.assert_fails(result, 6, "cannot be written: File too large")
        self.assertEqual(list(folder.iterdir()), [])

    def test_a_full_disk_for_standard_output(self):
        self.device("archive", "--echo")
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run(
                [PROGRAM, "send", "archive", "-", "--await", "echo"],
                input="x", stdout=full, stderr=subprocess.PIPE, text=True, check=False,
            )
        self.assert_fails(result, 6, "No space left on device")

    def test_prints_what_comes_and_ends_after_a_count(self):
        self.device("clock", "--service", "time", "--exec", "echo tick", "--every", "0.01")
        result = lumora("subscribe", "clock", "time", "--count", "3")
        self.assert_succeeds(result)
        self.assertRegex(result.stdout, r"^([\d:.]+  time  5 bytes  tick\n){3}$")

    def test_several_services_and_all(self):
        device = self.device("camera", "--service", "echo", "--service", "sound", "--service", "text")
        for words, services in [(["echo", "text"], {"echo", "text"}), (["--all"], {"echo", "sound", "text"})]:
            subscribing = self.start("subscribe", "camera", *words)
            told = {device.event("subscribed")["service"] for _ in services}
            self.assertEqual(told, services)
            self.assertEqual(subscribing.end(), 0)
            for _ in services:
                device.event("unsubscribed")

    def test_format_of_its_own(self):
        self.device("clock", "--service", "time", "--exec", "printf tick", "--every", "0.01")
        result = lumora("subscribe", "clock", "time", "-c", "1", "--format", "%s|%n|%p|%x|%%|%q")
        self.assertEqual(result.stdout, "time|4|tick|7469636b|%|%q\n", result)

    def test_again_survives_restarts_of_the_device(self):
        words = ["clock", "--service", "time", "--exec", "echo tick", "--every", "0.01"]
        subscribing = self.start("subscribe", "clock", "time", "--again", "--format", "%p")
        for number in [signal.SIGKILL, signal.SIGINT]:
            device = self.device(*words)
            device.event("subscribed")
            self.assertEqual(subscribing.line(), "tick")
            device.end(number)
        self.assertEqual(subscribing.end(), 0)

    def test_saves_what_comes(self):
        self.device("clock", "--service", "time/utc", "--exec", "echo tick", "--every", "0.01")
        folder = self.folder()
        result = lumora("subscribe", "clock", "time/utc", "--count", "2", "--out", str(folder), "--json")
        self.assert_succeeds(result)
        names = [json.loads(line)["file"] for line in result.stdout.splitlines()]
        self.assertEqual(sorted(names), sorted(map(str, folder.iterdir())))
        self.assertEqual([name.rpartition("-")[2] for name in names], ["000001.txt", "000002.txt"])

    def test_gives_up_in_time(self):
        self.device("archive", "--echo")
        result = lumora("subscribe", "archive", "echo", "--timeout", "0.2")
        self.assert_fails(result, 5, "no block came in time", "--timeout")

    def test_interrupt_is_its_end(self):
        device = self.device("archive", "--echo")
        subscribing = self.start("subscribe", "archive", "echo")
        device.event("subscribed")
        self.assertEqual(subscribing.end(), 0)
        self.assertEqual(device.event("unsubscribed")["service"], "echo")

    def test_interrupt_before_its_count_is_none(self):
        device = self.device("archive", "--echo")
        subscribing = self.start("subscribe", "archive", "echo", "--count", "1")
        device.event("subscribed")
        self.assertEqual(subscribing.end(), ENDED_BY_INTERRUPT)

    def test_ends_quietly_when_its_reader_has_left(self):
        device = self.device("archive", "--echo")
        subscribing = self.start("subscribe", "archive", "echo")
        device.event("subscribed")
        subscribing.process.stdout.close()
        self.assertEqual(subscribing.wait(), ENDED_BY_CLOSED_PIPE)
        self.assertEqual(device.event("unsubscribed")["service"], "echo")

    def test_notices_that_the_device_leaves(self):
        device = self.device("archive", "--echo")
        subscribing = self.start("subscribe", "archive", "echo")
        device.event("subscribed")
        device.end()
        self.assertEqual(subscribing.wait(), 4)
        self.assertIn("has left", subscribing.errors())

    def test_service_that_the_device_has_not(self):
        self.device("archive", "--echo")
        self.assert_fails(lumora("subscribe", "archive", "sound"), 3, '"sound"', "lumora info archive")


class Shell(LumoraCase):
    def test_obeys_lines_of_a_script(self):
        device = self.device("camera", "--echo")
        script = "subscribe echo\ntext hello\ncmd Turn left and up\nservices\nversion\nfly\nsubscrbe\n"
        result = lumora("shell", "camera", "--format", "%p", input=script)
        self.assertEqual(result.returncode, 0, result)
        lines = result.stdout.splitlines()
        self.assertRegex(lines.pop(lines.index("echo") + 1), r"^\d+\.\d+\.\d+$")
        self.assertEqual(sorted(lines), ["echo", "hello"])
        self.assertIn("unknown word fly; try help", result.stderr)
        self.assertIn("did you mean subscribe?", result.stderr)
        event = device.event("command")
        self.assertEqual((event["command"], event["parameter"]), ("Turn", "left and up"))

    def test_a_line_that_fails_does_not_end_it(self):
        self.device("camera", "--echo")
        result = lumora("shell", "camera", input="subscribe sound\nsend /no/file\nservices\n")
        self.assertEqual((result.returncode, result.stdout), (0, "echo\n"), result)
        self.assertIn('"sound"', result.stderr)
        self.assertIn("/no/file", result.stderr)

    def test_ends_when_the_device_leaves(self):
        device = self.device("camera", "--echo")
        talking = self.start("shell", "camera", stdin=subprocess.PIPE)
        talking.process.stdin.write("subscribe echo\n")
        talking.process.stdin.flush()
        device.event("subscribed")
        device.end()
        self.assertEqual(talking.wait(), 4)

    def test_completes_and_remembers_on_a_terminal(self):
        self.device("camera", "--echo")
        environment = {"HOME": str(self.folder())}
        talking = self.on_terminal("shell", "camera", "--format", "got %p", environment=environment)
        talking.read_until("lumora> ")
        talking.type("subs\tec\t\r")
        talking.type("text hello\r")
        talking.read_until("got hello")
        talking.type("quit\r")
        self.assertEqual(talking.process.wait(60), 0)
        talking = self.on_terminal("shell", "camera", environment=environment)
        talking.read_until("lumora> ")
        talking.type("\x10\x10")
        talking.read_until("text hello")


class Ping(LumoraCase):
    def test_measures_every_block(self):
        self.device("echoing", "--echo")
        result = lumora("ping", "echoing", "--count", "3", "--interval", "0")
        self.assert_succeeds(result)
        *rounds, last = result.stdout.splitlines()
        self.assertEqual(len(rounds), 3)
        self.assertRegex(rounds[2], r"^64 bytes, number 3: \d+\.\d{3} ms$")
        self.assertRegex(last, r"^3 sent, 0 lost, least [\d.]+, mean [\d.]+, median [\d.]+, p99 [\d.]+, most [\d.]+ ms$")

    def test_figures_as_json(self):
        self.device("echoing", "--echo")
        result = lumora("ping", "echoing", "--count", "4", "--interval", "0", "--size", "1000K", "--json")
        *rounds, last = map(json.loads, result.stdout.splitlines())
        self.assertEqual([line["bytes"] for line in rounds], [1024000] * 4)
        times = sorted(line["milliseconds"] for line in rounds)
        figures = last["milliseconds"]
        self.assertEqual((last["sent"], last["lost"]), (4, 0))
        self.assertEqual((figures["least"], figures["median"], figures["most"]), (times[0], times[1], times[3]))
        self.assertAlmostEqual(figures["mean"], sum(times) / 4, places=2)

    def test_a_service_that_does_not_answer(self):
        self.device("silent", "--service", "echo")
        result = lumora("ping", "silent", "--count", "2", "--interval", "0", "--timeout", "0.1")
        self.assert_fails(result, 5, "nothing came back", '"echo"')
        self.assertTrue(result.stdout.endswith("2 sent, 2 lost\n"))

    def test_another_service(self):
        self.device("echoing", "--echo", "--service", "mirror")
        self.assert_succeeds(lumora("ping", "echoing", "--service", "mirror", "--count", "1"))

    def test_without_end_until_an_interrupt(self):
        self.device("echoing", "--echo")
        pinging = self.start("ping", "echoing", "--count", "0", "--interval", "0.001")
        for _ in range(10):
            pinging.line()
        self.assertEqual(pinging.end(), 0)
        self.assertIn("0 lost", pinging.rest().splitlines()[-1])

    def test_absent_device(self):
        self.assert_fails(lumora("ping", "echoing", "--wait", "0"), 3, '"echoing"')


if __name__ == "__main__":
    unittest.main()
