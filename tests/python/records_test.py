"""What the package knows of the C header, and its queue: all that needs no network."""

import asyncio
import copy
import ctypes
import os
import pickle
import subprocess
import threading
import unittest

import lumora
from lumora import _library, _records
from lumora._inbox import Inbox


def compiled(kind):
    """What the compiler makes of the header."""
    output = subprocess.run([os.environ["LUMORA_LAYOUT"]], check=True, capture_output=True, text=True).stdout
    lines = [line.split() for line in output.splitlines()]
    return [words[1:] for words in lines if words[0] == kind]


class Header(unittest.TestCase):
    def test_constants(self):
        known = {name: value for name, value in vars(_records).items() if isinstance(value, int)}
        self.assertEqual(known, {name: int(value) for name, value in compiled("constant")})

    def test_sizes_of_records(self):
        known = {record.__name__: ctypes.sizeof(record) for record in _records.RECORDS}
        self.assertEqual(known, {name: int(size) for name, size in compiled("record")})

    def test_every_record_is_compared(self):
        known = {value for value in vars(_records).values() if isinstance(value, type(ctypes.Structure))}
        self.assertEqual(known & set(_records.RECORDS), set(_records.RECORDS))
        self.assertEqual({record.__name__ for record in known if issubclass(record, ctypes.Structure)},
                         {record.__name__ for record in _records.RECORDS})

    def test_places_of_fields(self):
        known = []
        for record in _records.RECORDS:
            for name, _ in record._fields_:
                field = getattr(record, name)
                known.append([record.__name__, name, str(field.offset), str(field.size)])
        self.assertEqual(known, compiled("field"))

    def test_every_exported_function(self):
        symbols = subprocess.run(
            [os.environ["NM"], "-D", "--defined-only", os.environ["LUMORA_LIBRARY"]],
            check=True, capture_output=True, text=True,
        ).stdout.split()
        self.assertEqual(set(_records.FUNCTIONS), {name for name in symbols if name.startswith("LUM_")})

    def test_version_of_the_package(self):
        self.assertEqual(lumora.__version__, os.environ["LUMORA_VERSION"])


class Library(unittest.TestCase):
    def setUp(self):
        self.addCleanup(_library.library.cache_clear)
        self.addCleanup(os.environ.update, LUMORA_LIBRARY=os.environ["LUMORA_LIBRARY"])
        _library.library.cache_clear()

    def test_that_is_not_there(self):
        os.environ["LUMORA_LIBRARY"] = "/nowhere/liblumora_cpp.so"
        with self.assertRaisesRegex(lumora.LibraryNotFound, "/nowhere/liblumora_cpp.so.*LUMORA_LIBRARY"):
            lumora.Client()

    def test_that_is_another_one(self):
        os.environ["LUMORA_LIBRARY"] = "libc.so.6"
        with self.assertRaisesRegex(lumora.LibraryNotFound, "LUM_InitClient"):
            lumora.Device("camera", ["picture"])


class Errors(unittest.TestCase):
    def test_have_the_code_and_the_function(self):
        error = lumora.SendFailed("not sent", "LUM_SendData", -1)
        self.assertEqual((error.function, error.code, str(error)),
                         ("LUM_SendData", -1, "not sent (LUM_SendData: -1)"))

    def test_can_be_copied_and_sent_to_other_processes(self):
        for error in (lumora.SendIncomplete("part", "LUM_SendData", 0, 7), lumora.DeviceLeft("gone")):
            for other in (copy.copy(error), pickle.loads(pickle.dumps(error))):
                self.assertEqual((type(other), str(other), vars(other)),
                                 (type(error), str(error), vars(error)))

    def test_are_python_s_own_where_those_have_a_name(self):
        self.assertTrue(issubclass(lumora.ReceiveTimeout, TimeoutError))
        self.assertTrue(issubclass(lumora.ConnectionLost, ConnectionError))


class Blocks(unittest.TestCase):
    def bytes_of(self, data):
        pointer, length = _library.block_argument(data, 100)
        return ctypes.string_at(ctypes.cast(pointer, ctypes.c_void_p), length)

    def test_of_every_kind_of_buffer(self):
        for data in (b"abc", bytearray(b"abc"), memoryview(b"abc"), memoryview(bytearray(b"abc")),
                     memoryview(b"a-b-c")[::2], memoryview(bytearray(b"a-b-c"))[::2]):
            self.assertEqual(self.bytes_of(data), b"abc")

    def test_are_counted_in_bytes(self):
        self.assertEqual(self.bytes_of(memoryview(bytearray(8)).cast("I")), bytes(8))

    def test_of_no_or_too_many_bytes(self):
        for data in (b"", bytes(101)):
            with self.assertRaisesRegex(ValueError, "1 to 100 bytes"):
                self.bytes_of(data)

    def test_texts_are_none(self):
        with self.assertRaises(TypeError):
            self.bytes_of("abc")


class Queue(unittest.TestCase):
    def inbox(self, overflow, sizes, max_blocks=2, max_bytes=10):
        inbox = Inbox(max_blocks, max_bytes, overflow)
        for number, size in enumerate(sizes):
            inbox.put_block(number, size)
        return inbox

    def rest(self, inbox):
        items = []
        try:
            while True:
                items.append(inbox.take(0))
        except lumora.ReceiveTimeout:
            return items

    def test_drops_the_oldest(self):
        inbox = self.inbox(lumora.Overflow.DROP_OLDEST, [1, 1, 1])
        self.assertEqual((self.rest(inbox), inbox.dropped), ([1, 2], 1))

    def test_drops_the_newest(self):
        inbox = self.inbox(lumora.Overflow.DROP_NEWEST, [1, 1, 1])
        self.assertEqual((self.rest(inbox), inbox.dropped), ([0, 1], 1))

    def test_fails(self):
        inbox = self.inbox(lumora.Overflow.FAIL, [1, 1, 1, 1])
        self.assertEqual([inbox.take(0), inbox.take(0)], [0, 1])
        with self.assertRaises(lumora.QueueOverflow):
            inbox.take(0)
        self.assertEqual(inbox.dropped, 1)

    def test_counts_bytes_too(self):
        inbox = self.inbox(lumora.Overflow.DROP_OLDEST, [4, 4, 4, 4], max_blocks=9)
        self.assertEqual(self.rest(inbox), [2, 3])

    def test_has_room_again_for_what_was_taken(self):
        inbox = self.inbox(lumora.Overflow.DROP_NEWEST, [5, 5])
        self.assertEqual(self.rest(inbox), [0, 1])
        inbox.put_block(2, 10)
        self.assertEqual((self.rest(inbox), inbox.dropped), ([2], 0))

    def test_that_is_empty_takes_any_block(self):
        self.assertEqual(self.rest(self.inbox(lumora.Overflow.DROP_NEWEST, [11])), [0])

    def test_keeps_notes_and_their_order(self):
        inbox = Inbox(1, 10, lumora.Overflow.DROP_OLDEST)
        inbox.put_note("begin")
        inbox.put_block("first", 1)
        inbox.put_note("more")
        inbox.put_block("second", 1)
        self.assertEqual(self.rest(inbox), ["begin", "more", "second"])

    def test_bounds_notes(self):
        inbox = Inbox(1, 1, lumora.Overflow.DROP_OLDEST)
        for number in range(1025):
            inbox.put_note(number)
        self.assertEqual((self.rest(inbox), inbox.dropped), (list(range(1024)), 1))

    def test_that_has_ended_gives_what_it_has(self):
        inbox = self.inbox(lumora.Overflow.FAIL, [1])
        inbox.end(lumora.DeviceLeft("gone"))
        inbox.put_block(1, 1)
        self.assertEqual(inbox.take(), 0)
        for _ in range(2):
            with self.assertRaises(lumora.DeviceLeft):
                inbox.take()

    def test_that_is_closed_gives_nothing(self):
        inbox = self.inbox(lumora.Overflow.FAIL, [1])
        inbox.close(lumora.Closed("closed"))
        with self.assertRaises(lumora.Closed):
            inbox.take()

    def test_wakes_a_thread(self):
        inbox = self.inbox(lumora.Overflow.FAIL, [])
        timer = threading.Timer(0.01, inbox.put_block, (7, 1))
        timer.start()
        self.assertEqual(inbox.take(), 7)
        timer.join()

    def test_needs_bounds(self):
        with self.assertRaises(ValueError):
            Inbox(0, 1, lumora.Overflow.FAIL)


class QueueOfCoroutines(unittest.IsolatedAsyncioTestCase):
    def setUp(self):
        self.inbox = Inbox(9, 9, lumora.Overflow.FAIL)

    async def test_wakes_each_of_them(self):
        taking = [asyncio.create_task(self.inbox.take_async()) for _ in range(3)]
        await asyncio.sleep(0)
        await asyncio.to_thread(lambda: [self.inbox.put_block(number, 1) for number in range(3)])
        self.assertEqual(sorted(await asyncio.gather(*taking)), [0, 1, 2])

    async def test_gives_up_in_time(self):
        with self.assertRaises(lumora.ReceiveTimeout):
            await self.inbox.take_async(0.001)

    async def test_one_that_gives_up_takes_nothing(self):
        taking = asyncio.create_task(self.inbox.take_async())
        await asyncio.sleep(0)
        taking.cancel()
        self.inbox.put_block(5, 1)
        with self.assertRaises(asyncio.CancelledError):
            await taking
        self.assertEqual(await self.inbox.take_async(), 5)

    async def test_tells_all_of_the_end(self):
        taking = [asyncio.create_task(self.inbox.take_async()) for _ in range(2)]
        await asyncio.sleep(0)
        await asyncio.to_thread(self.inbox.end, lumora.DeviceLeft("gone"))
        for task in taking:
            with self.assertRaises(lumora.DeviceLeft):
                await task

    def test_does_not_mind_a_loop_that_is_closed(self):
        loop = asyncio.new_event_loop()
        task = loop.create_task(self.inbox.take_async())
        loop.run_until_complete(asyncio.sleep(0))
        task.cancel()
        # The cancellation is on its way, but the loop will not run any more.
        loop.close()
        with self.assertLogs("asyncio"):
            self.inbox.put_block(5, 1)
            del task
        self.assertEqual(self.inbox.take(0), 5)


if __name__ == "__main__":
    unittest.main()
