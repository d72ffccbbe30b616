"""lumora record, replay and info: what a device sends, in a file and out of it."""

import json
import os
import pathlib
import resource
import shutil
import signal
import sqlite3
import subprocess
import time
import unittest

from lumora_case import ENDED_BY_INTERRUPT, PROGRAM, LumoraCase, lumora

SLOW_DISK = os.environ["LUMORA_SLOW_DISK"]
SANITIZED = os.environ.get("LUMORA_SANITIZED", "") != ""
SECOND = 1_000_000
# As docs/recordings.md has it.
TABLES = """
    PRAGMA application_id = 0x4C554D52;
    PRAGMA user_version = 1;
    CREATE TABLE device(type TEXT, version TEXT, address TEXT, start INTEGER, end INTEGER);
    CREATE TABLE services(id INTEGER PRIMARY KEY, name TEXT, transport INTEGER, output_bytes INTEGER,
        recorded INTEGER, blocks INTEGER DEFAULT 0, bytes INTEGER DEFAULT 0, first INTEGER, last INTEGER);
    CREATE TABLE blocks(id INTEGER PRIMARY KEY, time INTEGER, service INTEGER, bytes BLOB);
    CREATE TABLE gaps(id INTEGER PRIMARY KEY, begin INTEGER, end INTEGER, reason TEXT, lost INTEGER);
"""
START = 1_700_000_000 * SECOND


def rows(path, query):
    """What any program reads."""
    with sqlite3.connect(path) as database:
        result = database.execute(query).fetchall()
    database.close()
    return result


def blocks(path):
    """Service and bytes, in the order of the file."""
    return rows(path, "SELECT name, b.bytes FROM blocks b JOIN services s ON s.id = b.service ORDER BY b.id")


@unittest.skipIf("without SQLite" in lumora("replay", "absent").stderr, "built without SQLite")
class RecordingCase(LumoraCase):
    def setUp(self):
        self.path = self.folder()

    def make(self, name, content, interval=SECOND // 10, services=("picture", "sound"), device_type="camera"):
        """A recording by hand: content is service numbers (1 is the first) and bytes."""
        path = self.path / name
        database = sqlite3.connect(path)
        database.executescript(TABLES)
        database.execute("INSERT INTO device VALUES(?, '1.1.1', '192.0.2.7', ?, NULL)", (device_type, START))
        for service in services:
            database.execute(
                "INSERT INTO services(name, transport, output_bytes, recorded) VALUES(?, 2, 1024000, 1)", (service,)
            )
        database.executemany(
            "INSERT INTO blocks(time, service, bytes) VALUES(?, ?, ?)",
            ((START + i * interval, service, data) for i, (service, data) in enumerate(content)),
        )
        database.commit()
        database.close()
        return str(path)

    def replay(self, *words, **options):
        """lumora replay, ready to be found."""
        running = self.start("--json", "replay", *words, **options)
        ready = json.loads(running.line())
        self.assertEqual(ready["event"], "ready")
        running.ready = ready
        return running

    def record(self, name, *words, **options):
        """lumora record, subscribed."""
        running = self.start("--json", "record", str(self.path / name), *words, **options)
        begun = json.loads(running.line())
        self.assertEqual(begun["event"], "recording")
        running.begun = begun
        return running

    def ended(self, running):
        """The last event of one that has ended."""
        return json.loads(running.rest().splitlines()[-1])

    def info(self, path):
        result = lumora("--json", "info", str(path))
        self.assert_succeeds(result)
        return json.loads(result.stdout)


class Record(RecordingCase):
    def clock(self, *words, every="0.02"):
        return self.device("clock", "--service", "time", "--exec", "date +%N", "--every", every, *words)

    def test_file_holds_what_came(self):
        self.clock("--service", "other")
        before = time.time()
        running = self.record("a.rec", "clock", "--count", "10")
        self.assertEqual(running.begun["services"], ["time", "other"])
        self.assertEqual(running.wait(), 0)
        ended = self.ended(running)
        self.assertEqual((ended["blocks"], ended["lost"]), (10, 0))
        path = self.path / "a.rec"
        self.assertEqual(os.listdir(self.path), ["a.rec"])
        (device,) = rows(path, "SELECT type, version, address, start, end FROM device")
        self.assertEqual((device[0], device[2]), ("clock", "127.0.0.1"))
        self.assertRegex(device[1], r"^\d+\.\d+\.\d+$")
        times = [row[0] for row in rows(path, "SELECT time FROM blocks ORDER BY id")]
        self.assertEqual(times, sorted(times))
        self.assertLess(before * SECOND, device[3] + SECOND)
        self.assertTrue(device[3] <= times[0] <= times[-1] <= device[4])
        self.assertEqual(len(blocks(path)), 10)
        sums = "SELECT blocks, bytes, first, last FROM services WHERE name = 'time'"
        lengths = sum(len(data) for _, data in blocks(path))
        self.assertEqual(rows(path, sums), [(10, lengths, times[0], times[-1])])
        self.assertEqual(ended["bytes"], lengths)

    def test_only_the_services_that_are_named(self):
        first = self.make("made.rec", [(1, b"one"), (2, b"two"), (1, b"three")])
        self.replay(first)
        running = self.record("b.rec", "camera", "sound", "--count", "1")
        self.assertEqual(running.begun["services"], ["sound"])
        self.assertEqual(running.wait(), 0)
        self.assertEqual(blocks(self.path / "b.rec"), [("sound", b"two")])
        told = {one["name"]: one for one in self.info(self.path / "b.rec")["services"]}
        self.assertFalse(told["picture"]["recorded"])
        self.assertEqual((told["sound"]["recorded"], told["sound"]["blocks"]), (True, 1))

    def test_ends_after_a_time(self):
        self.clock()
        running = self.record("a.rec", "clock", "--duration", "0.5")
        self.assertEqual(running.wait(), 0)
        self.assertGreaterEqual(self.ended(running)["seconds"], 0.5)
        self.assertGreater(len(blocks(self.path / "a.rec")), 0)

    def test_signal_is_the_end_of_an_endless_recording(self):
        self.clock()
        running = self.record("a.rec", "clock")
        self.assertEqual(running.end(), 0)
        self.assertIsNotNone(self.info(self.path / "a.rec")["end"])

    def test_signal_before_the_count_is_told(self):
        self.clock()
        running = self.record("a.rec", "clock", "--count", "1000000")
        self.assertEqual(running.end(), ENDED_BY_INTERRUPT)
        self.assertIsNotNone(self.info(self.path / "a.rec")["end"])

    def test_device_that_leaves_ends_it_and_the_file_is_whole(self):
        device = self.clock()
        running = self.record("a.rec", "clock")
        time.sleep(0.3)
        self.assertEqual(device.end(), 0)
        self.assertEqual(running.wait(), 4)
        self.assertGreater(self.info(self.path / "a.rec")["services"][0]["blocks"], 0)
        self.assertEqual(os.listdir(self.path), ["a.rec"])

    def test_reader_of_its_output_that_leaves_ends_it_and_the_file_is_whole(self):
        self.clock()
        for name, reader in (("a.rec", "head -1"), ("b.rec", "true")):
            path = self.path / name
            line = f'{PROGRAM} record {path} clock | {reader}; echo "${{PIPESTATUS[0]}}"'
            result = subprocess.run(["bash", "-c", line], capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual(result.stdout.split()[-1], "141")
            self.assertRegex(result.stderr, f"the reader of standard output has left: [0-9]+ blocks?, .* in {path}\n$")
            self.assertIsNotNone(self.info(path)["end"])
        self.assertEqual(sorted(os.listdir(self.path)), ["a.rec", "b.rec"])

    def test_again_records_the_gap(self):
        first = self.clock()
        running = self.record("a.rec", "clock", "--again")
        self.assertEqual(first.end(), 0)
        self.assertEqual(json.loads(running.line())["event"], "disconnected")
        self.clock()
        self.assertEqual(json.loads(running.line())["event"], "connected")
        time.sleep(1)
        self.assertEqual(running.end(), 0)
        (gap,) = self.info(self.path / "a.rec")["gaps"]
        self.assertEqual((gap["reason"], gap["lost"]), ("disconnected", 0))
        ((begin, end),) = rows(self.path / "a.rec", "SELECT begin, end FROM gaps")
        self.assertLess(begin, end)
        inside = f"SELECT count(*) FROM blocks WHERE time > {begin} AND time < {end}"
        behind = f"SELECT count(*) FROM blocks WHERE time >= {end}"
        self.assertEqual(rows(self.path / "a.rec", inside), [(0,)])
        self.assertGreater(rows(self.path / "a.rec", behind)[0][0], 0)

    def test_existing_file_stays(self):
        (self.path / "a.rec").write_text("mine")
        result = lumora("record", str(self.path / "a.rec"), "clock")
        self.assert_fails(result, 6, "is there already")
        self.assertEqual((self.path / "a.rec").read_text(), "mine")

    def test_standard_output_is_no_file_for_it(self):
        self.assert_fails(lumora("record", "-", "nothing"), 2, "standard output")

    def test_folder_that_is_not_there(self):
        self.assert_fails(lumora("record", str(self.path / "no" / "a.rec"), "clock"), 6, "No such file")

    def test_without_a_device_there_is_no_file(self):
        self.assert_fails(lumora("record", str(self.path / "a.rec"), "clock", "--wait", "0"), 3, '"clock"')
        self.assertEqual(os.listdir(self.path), [])

    def test_service_that_the_device_has_not(self):
        self.clock()
        self.assert_fails(lumora("record", str(self.path / "a.rec"), "clock", "sound"), 3, '"sound"')
        self.assertEqual(os.listdir(self.path), [])


class Crash(RecordingCase):
    def test_kill_costs_no_more_than_the_last_second(self):
        content = [(1, i.to_bytes(4, "big") * 5000) for i in range(400)]
        source = self.make("made.rec", content, interval=SECOND // 100)
        self.replay(source)
        running = self.record("a.rec", "camera")
        time.sleep(3.2)
        running.process.kill()
        running.process.wait()
        info = self.info(self.path / "a.rec")
        self.assertIsNone(info["end"])
        kept = blocks(self.path / "a.rec")
        self.assertEqual(kept, [("picture", data) for _, data in content[: len(kept)]])
        self.assertEqual(info["services"][0]["blocks"], len(kept))
        # 3.2 s passed at 100 blocks a second; a commit is at most a second and its own time old.
        self.assertGreater(len(kept), 120)
        self.assertEqual(rows(self.path / "a.rec", "PRAGMA integrity_check"), [("ok",)])
        # What a reader has put right once is whole in one file.
        shutil.copy(self.path / "a.rec", self.path / "alone.rec")
        self.assertEqual(blocks(self.path / "alone.rec"), kept)

    def test_recording_that_goes_on_can_be_read(self):
        source = self.make("made.rec", [(1, bytes(50_000))] * 300, interval=SECOND // 50)
        self.replay(source)
        running = self.record("a.rec", "camera")
        end = time.monotonic() + 30
        counts = []
        while len(set(counts)) < 3:
            self.assertLess(time.monotonic(), end)
            counts.append(self.info(self.path / "a.rec")["services"][0]["blocks"])
            time.sleep(0.2)
        self.assertEqual(running.end(), 0)
        self.assertEqual(self.info(self.path / "a.rec")["gaps"], [])


class FullDisk(RecordingCase):
    def assert_ends_cleanly(self, code, errors, path, content):
        self.assertEqual(code, 6, errors)
        self.assertEqual(errors.count("\n"), 1, errors)
        kept = blocks(path)
        self.assertIn(f"{len(kept)} blocks are in it", errors)
        self.assertGreater(len(kept), 0)
        self.assertEqual(kept, [("picture", data) for _, data in content[: len(kept)]])
        self.assertEqual(rows(path, "PRAGMA integrity_check"), [("ok",)])
        info = self.info(path)
        self.assertEqual(info["services"][0]["blocks"], len(kept))
        return info

    def content(self):
        return [(1, i.to_bytes(4, "big") * 2500) for i in range(1000)]

    def test_limit_of_a_file(self):
        content = self.content()
        self.replay(self.make("made.rec", content, interval=SECOND // 100))
        limit = 2 * 1024 * 1024
        running = self.record(
            "a.rec", "camera", preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        )
        code = running.wait()
        info = self.assert_ends_cleanly(code, json.loads(running.errors())["error"] + "\n", self.path / "a.rec", content)
        self.assertIsNotNone(info["end"])
        (gap,) = info["gaps"]
        self.assertEqual(gap["reason"], "not written")
        self.assertGreater(gap["lost"], 0)
        self.assertEqual(sorted(os.listdir(self.path)), ["a.rec", "made.rec"])

    def test_disk_without_room(self):
        disk = self.path / "disk"
        disk.mkdir()
        script = 'mount -t tmpfs -o size=3M tmpfs "$1" || exit 77; shift; "$@"; code=$?; cp -r "$0" "$0.kept"; exit $code'
        content = self.content()
        self.replay(self.make("made.rec", content, interval=SECOND // 100))
        result = subprocess.run(
            ["unshare", "-m", "sh", "-c", script, str(disk), str(disk), PROGRAM, "record", str(disk / "a.rec"), "camera"],
            capture_output=True, text=True, timeout=60, check=False,
        )
        if result.returncode == 77 or "unshare failed" in result.stderr:
            self.skipTest("no file system can be mounted here")
        kept = pathlib.Path(str(disk) + ".kept")
        self.assertIn("a.rec cannot be written: the disk is full", result.stderr)
        self.assert_ends_cleanly(result.returncode, result.stderr, kept / "a.rec", content)
        self.assertEqual(os.listdir(kept), ["a.rec"])


class SlowDisk(RecordingCase):
    def environment(self, milliseconds):
        before = os.environ.get("LD_PRELOAD", "")
        return {**os.environ, "LD_PRELOAD": f"{before} {SLOW_DISK}".strip(), "LUMORA_TEST_SYNC_MS": str(milliseconds)}

    @unittest.skipIf(SANITIZED, "a sanitizer must be loaded first")
    def test_blocks_wait_in_memory(self):
        content = [(1, i.to_bytes(4, "big") * 250) for i in range(200)]
        self.replay(self.make("made.rec", content, interval=SECOND // 100))
        running = self.record("a.rec", "camera", "--count", "200", env=self.environment(700))
        self.assertEqual(running.wait(), 0)
        self.assertEqual(self.ended(running)["lost"], 0)
        self.assertEqual([data for _, data in blocks(self.path / "a.rec")], [data for _, data in content])

    @unittest.skipIf(SANITIZED, "a sanitizer must be loaded first")
    def test_blocks_that_do_not_fit_into_memory_are_counted(self):
        content = [(1, i.to_bytes(4, "big") * 250_000) for i in range(8)]
        device = self.replay(self.make("made.rec", content), "--speed", "0", "--loop")
        running = self.record("a.rec", "camera", "--duration", "3", env=self.environment(2000))
        self.assertEqual(running.wait(), 0)
        ended = self.ended(running)
        self.assertGreater(ended["lost"], 0)
        self.assertIn("they came faster than they could be written", running.errors())
        info = self.info(self.path / "a.rec")
        self.assertEqual({gap["reason"] for gap in info["gaps"]}, {"too slow"})
        self.assertLess(len(info["gaps"]), 50)
        self.assertEqual(sum(gap["lost"] for gap in info["gaps"]), ended["lost"])
        self.assertEqual(info["services"][0]["blocks"], ended["blocks"])
        # Between gaps none is missing: the blocks repeat in their order.
        numbers = [int.from_bytes(data[:4], "big") for _, data in blocks(self.path / "a.rec")]
        breaks = sum(1 for one, other in zip(numbers, numbers[1:]) if other != (one + 1) % len(content))
        self.assertLessEqual(breaks, len(info["gaps"]))
        device.end()


class Replay(RecordingCase):
    CONTENT = [(1, b"first"), (2, b"\0\xff" * 9), (2, b"third"), (1, bytes(1_024_000)), (1, b"last")]

    def recorded(self, name, *words, count):
        running = self.record(name, "camera", *words, "--count", str(count))
        self.assertEqual(running.wait(), 0, running.errors())
        return blocks(self.path / name)

    def test_sends_what_was_recorded_and_that_can_be_recorded_again(self):
        source = self.make("made.rec", self.CONTENT)
        device = self.replay(source)
        self.assertEqual((device.ready["type"], device.ready["services"]), ("camera", ["picture", "sound"]))
        first = self.recorded("a.rec", count=5)
        self.assertEqual(first, blocks(source))
        self.assertEqual(device.wait(), 0)
        self.assertEqual(self.ended(device)["blocks"], 5)
        again = self.replay(str(self.path / "a.rec"))
        self.assertEqual(self.recorded("b.rec", count=5), first)
        self.assertEqual(again.wait(), 0)
        services = "SELECT name, transport, output_bytes FROM services"
        self.assertEqual(rows(self.path / "b.rec", services), rows(source, services))

    def test_keeps_the_distances(self):
        self.replay(self.make("made.rec", [(1, b"x")] * 5, interval=SECOND // 5))
        self.recorded("a.rec", count=5)
        times = [row[0] for row in rows(self.path / "a.rec", "SELECT time FROM blocks ORDER BY id")]
        self.assertGreater(times[-1] - times[0], 4 * SECOND // 5 - SECOND // 20)

    def test_speed(self):
        source = self.make("made.rec", [(1, b"x")] * 11, interval=SECOND)
        device = self.replay(source, "--speed", "10")
        begin = time.monotonic()
        self.recorded("a.rec", count=11)
        self.assertTrue(0.95 < time.monotonic() - begin < 9)
        self.assertEqual(device.wait(), 0)
        device = self.replay(source, "--speed", "0")
        begin = time.monotonic()
        self.recorded("b.rec", count=11)
        self.assertLess(time.monotonic() - begin, 5)
        self.assertEqual(device.wait(), 0)

    def test_part(self):
        source = self.make("made.rec", [(1, b"%d" % i) for i in range(20)])
        device = self.replay(source, "--from", "0.45", "--to", "0.85")
        self.assertEqual([data for _, data in self.recorded("a.rec", count=4)], [b"5", b"6", b"7", b"8"])
        self.assertEqual(device.wait(), 0)
        self.assertEqual(self.ended(device)["blocks"], 4)

    def test_loop(self):
        device = self.replay(self.make("made.rec", [(1, b"a"), (1, b"b"), (1, b"c")]), "--loop", "--speed", "5")
        kept = [data for _, data in self.recorded("a.rec", count=8)]
        self.assertEqual(kept, [b"a", b"b", b"c", b"a", b"b", b"c", b"a", b"b"])
        self.assertEqual(device.end(), 0)

    def test_other_type(self):
        device = self.replay(self.make("made.rec", self.CONTENT), "--as", "test-camera")
        self.assertEqual(device.ready["type"], "test-camera")
        self.assertEqual(lumora("record", str(self.path / "a.rec"), "test-camera", "--count", "1").returncode, 0)
        self.assertEqual(rows(self.path / "a.rec", "SELECT type FROM device"), [("test-camera",)])

    def test_services_without_subscribers_are_left_out(self):
        device = self.replay(self.make("made.rec", self.CONTENT))
        self.assertEqual(self.recorded("a.rec", "sound", count=2), [("sound", b"\0\xff" * 9), ("sound", b"third")])
        self.assertEqual(device.wait(), 0)
        self.assertEqual(self.ended(device)["blocks"], 2)

    def test_words_that_contradict(self):
        source = self.make("made.rec", self.CONTENT)
        self.assert_fails(lumora("replay", source, "--from", "5", "--to", "5"), 2, "--to")
        self.assert_fails(lumora("replay", source, "--from", "100"), 2, "has no block in the time")
        self.assert_fails(lumora("replay", source, "--speed", "-1"), 2, "--speed")
        self.assert_fails(lumora("replay", source, "--as", "T" * 40), 2, "39")


class WrongFiles(RecordingCase):
    def assert_refused(self, path, *parts):
        for command in ("replay", "info"):
            with self.subTest(command):
                self.assert_fails(lumora(command, str(path)), 6, str(path), *parts)

    def test_absent(self):
        self.assert_refused(self.path / "a.rec", "No such file")

    def test_folder(self):
        self.assert_refused(self.path, "no regular file")

    def test_fifo(self):
        os.mkfifo(self.path / "fifo")
        self.assert_refused(self.path / "fifo", "no regular file")

    def test_no_database(self):
        (self.path / "text").write_text("no recording, " * 1000)
        self.assert_refused(self.path / "text", "no SQLite database")

    def test_empty(self):
        (self.path / "empty").touch()
        self.assert_refused(self.path / "empty", "no recording")

    def test_other_schema(self):
        database = sqlite3.connect(self.path / "other")
        database.execute("CREATE TABLE blocks(a)")
        database.commit()
        database.close()
        self.assert_refused(self.path / "other", "no recording")

    def test_later_version(self):
        path = self.make("made.rec", [])
        database = sqlite3.connect(path)
        database.execute("PRAGMA user_version = 2")
        database.close()
        self.assert_refused(path, "another version")

    def test_tables_that_are_missing_or_views(self):
        path = self.make("made.rec", [])
        database = sqlite3.connect(path)
        database.execute("DROP TABLE gaps")
        database.commit()
        self.assert_refused(path, "tables")
        endless = "WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i + 1 FROM n) SELECT i FROM n"
        database.execute(f"CREATE VIEW gaps AS {endless}")
        database.commit()
        database.close()
        self.assert_refused(path, "tables")

    def test_values_that_cannot_be(self):
        for change in [
            "UPDATE device SET start = -1",
            "UPDATE device SET start = 9223372036854775807",
            "DELETE FROM device",
            "UPDATE services SET transport = 99",
            "INSERT INTO services(name, transport, output_bytes, recorded) SELECT 'x' || id, 2, 1, 1 FROM blocks",
        ]:
            with self.subTest(change):
                path = self.make(f"{abs(hash(change))}.rec", [(1, b"x")] * 8)
                database = sqlite3.connect(path)
                database.execute(change)
                database.commit()
                database.close()
                self.assert_refused(path, "damaged")

    def test_damaged_in_the_middle(self):
        path = self.make("made.rec", [(1, bytes([i]) * 20_000) for i in range(50)], interval=0)
        size = os.path.getsize(path)
        with open(path, "r+b") as file:
            file.seek(size // 3)
            file.write(os.urandom(size // 3))
        device = self.replay(path)
        running = self.record("a.rec", "camera")
        self.assertEqual(device.wait(), 6)
        self.assertIn("damaged", device.errors())
        running.end(signal.SIGTERM)

    def test_block_that_no_device_can_send(self):
        device = self.replay(self.make("made.rec", [(1, b""), (1, bytes(1_024_001)), (1, b"good")]))
        running = self.record("a.rec", "camera", "--count", "1")
        self.assertEqual(running.wait(), 0)
        self.assertEqual(blocks(self.path / "a.rec"), [("picture", b"good")])
        self.assertEqual(device.wait(), 0)
        self.assertEqual(self.ended(device)["failed"], 2)


class Info(RecordingCase):
    def test_word_that_is_a_type_and_one_that_is_a_file(self):
        self.make("camera", [(1, b"x")])
        options = {"cwd": self.path}
        self.assertIn("192.0.2.7", lumora("info", "camera", **options).stdout)
        self.assertIn("192.0.2.7", lumora("info", "./camera", **options).stdout)
        # With --address it is a type again.
        result = lumora("info", "camera", "--address", "127.0.0.1", "--wait", "0", **options)
        self.assert_fails(result, 3, "no device")
        (self.path / "reader").write_text("a file, but no database")
        self.assert_fails(lumora("info", "reader", "--wait", "0", **options), 3, "no device")
        self.assert_fails(lumora("info", "typo.rec", "--wait", "0", **options), 3, "a recording is named as ./typo.rec")

    def test_names_of_a_stranger_do_not_steer_the_terminal(self):
        path = self.make("made.rec", [], services=("\x1b[2Jclear",), device_type="\x1b]0;title\x07")
        database = sqlite3.connect(path)
        database.execute("INSERT INTO gaps VALUES(1, 1, 2, '\x1b[31m', 3)")
        database.commit()
        database.close()
        result = lumora("info", path)
        self.assert_succeeds(result)
        self.assertNotIn("\x1b", result.stdout)

    def test_text_tells_services_and_gaps(self):
        path = self.make("made.rec", [])
        database = sqlite3.connect(path)
        database.execute("UPDATE services SET blocks = 2, bytes = 2048, first = ?, last = ?", (START, START + SECOND))
        database.execute("INSERT INTO gaps VALUES(1, ?, NULL, 'disconnected', 0)", (START + SECOND,))
        database.execute("INSERT INTO gaps VALUES(2, ?, ?, 'too slow', 1234)", (START, START + SECOND))
        database.commit()
        database.close()
        text = lumora("info", path).stdout
        self.assertIn("picture, tcp, 2 blocks, 2.0 KiB", text)
        self.assertIn("too slow, 1,234 blocks lost", text)
        self.assertIn("to the end, disconnected", text)

    def test_text_shows_the_first_gaps_and_sums_up_the_others(self):
        path = self.make("made.rec", [])
        database = sqlite3.connect(path)
        database.executemany("INSERT INTO gaps VALUES(?, ?, ?, 'too slow', 100)", ((i, START + i, START + i + 1)
                                                                                   for i in range(1, 1001)))
        database.commit()
        database.close()
        text = lumora("info", path).stdout
        self.assertEqual(text.count("too slow"), 20)
        self.assertIn("1,000 in all, 100,000 blocks lost", text)
        self.assertEqual(len(self.info(path)["gaps"]), 1000)


if __name__ == "__main__":
    unittest.main()
