"""lumora.Client, with a device in another process."""

import array
import asyncio
import signal
import socket
import tempfile
import threading
import time
import unittest
import unittest.mock

import lumora
from lumora._library import library
from python_case import DEVICE, LIMIT, Peer, PythonCase

try:
    import numpy
except ImportError:
    numpy = None

HELLO = b"hello" * 8
LARGEST_BLOCK_OF_DEVICES = 1024000
LARGEST_BLOCK_OF_CLIENTS = 5242880


class WithoutDevice(PythonCase):
    def test_tells_its_version(self):
        with lumora.Client() as client:
            self.assertRegex(client.version(), r"\d+\.\d+")

    def test_device_that_is_not_there(self):
        with lumora.Client() as client:
            with self.assertRaisesRegex(lumora.DeviceNotFound, '"camera"') as caught:
                client.find("camera", timeout=0)
        self.assertEqual((caught.exception.function, caught.exception.code), ("LUM_GetAiDeviceList", -1))

    def test_needs_a_device_for_most(self):
        with lumora.Client() as client:
            self.assertFalse(client.is_connected)
            for call in (lambda: client.send(b"a"), lambda: client.command("stop"),
                         lambda: client.subscribe("echo"), client.device_version):
                self.assertRaises(lumora.NotConnected, call)

    def test_arguments_that_cannot_be(self):
        with lumora.Client() as client:
            for call in (lambda: client.find(""), lambda: client.find("x" * 40), lambda: client.find("a\0b"),
                         lambda: client.subscribe(""), lambda: client.subscribe("ä" * 20),
                         lambda: client.subscribe("echo", max_blocks=0), lambda: client.command(""),
                         lambda: client.command("subscribe"), lambda: client.command("a", "x" * 400),
                         lambda: client.send(b""), lambda: client.send(b"a", timeout=2.1),
                         lambda: client.send(bytes(LARGEST_BLOCK_OF_CLIENTS + 1)),
                         lambda: client.send(b"a", timeout=-1), lambda: lumora.Client("")):
                self.assertRaises(ValueError, call)

    def test_device_that_was_not_found_last(self):
        with lumora.Client() as client:
            with self.assertRaises(lumora.DeviceNotFound):
                client.connect(lumora.DeviceInfo("camera", ()))

    def test_twenty_of_a_process(self):
        clients = [lumora.Client() for _ in range(20)]
        for client in clients:
            self.addCleanup(client.close)
        self.assertEqual([client.id for client in clients], list(range(1, 21)))
        with self.assertRaises(lumora.TooManyClients):
            lumora.Client()
        clients[4].close()
        with lumora.Client() as another:
            self.assertEqual(another.id, 5)

    def test_that_is_closed(self):
        client = lumora.Client()
        client.close()
        client.close()
        for call in (client.version, lambda: client.find("camera"), lambda: client.connect("camera"),
                     lambda: client.send(b"a")):
            self.assertRaises(lumora.Closed, call)

    def test_search_ends_when_another_thread_closes(self):
        client = lumora.Client()
        timer = threading.Timer(0.1, client.close)
        timer.start()
        with self.assertRaises(lumora.Closed):
            client.connect("camera", timeout=LIMIT)
        timer.join()


class WithDevice(PythonCase):
    """One device and one client for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.peer = Peer("-c", DEVICE)
        cls.addClassCleanup(cls.peer.close)
        assert cls.peer.line() == "ready"
        cls.client = lumora.Client()
        cls.addClassCleanup(cls.client.close)
        cls.client.connect("echo-device", timeout=LIMIT)

    def subscribe(self, *arguments, **options):
        subscription = self.client.subscribe(*arguments, **options)
        self.addCleanup(subscription.close)
        return subscription

    def another_client(self):
        client = lumora.Client()
        self.addCleanup(client.close)
        client.connect("echo-device", timeout=LIMIT)
        return client

    def test_finds_its_services(self):
        (found,) = self.client.find("echo-device")
        self.assertEqual(found, lumora.DeviceInfo("echo-device", (
            lumora.Service("echo", 1024000, lumora.Transport.TCP),
            lumora.Service("numbers", 1024000, lumora.Transport.TCP),
            lumora.Service("silence", 1024000, lumora.Transport.TCP),
        )))

    def test_connects_to_what_was_found(self):
        with lumora.Client() as another:
            another.connect(another.find("echo-device")[0])
            self.assertTrue(another.is_connected)

    def test_connects_once(self):
        self.assertRaises(lumora.ConnectFailed, self.client.connect, "echo-device")

    def test_tells_the_version_of_the_device(self):
        self.assertEqual(self.client.device_version(), self.client.version())

    def test_blocks_of_every_kind_come_back(self):
        echoes = self.subscribe("echo")
        numbers = array.array("H", range(20))
        for data in (HELLO, bytearray(40), memoryview(HELLO * 2)[::2], numbers,
                     bytes(LARGEST_BLOCK_OF_DEVICES)):
            self.client.send(data)
            self.assertEqual(echoes.get(LIMIT), lumora.Block("echo", bytes(memoryview(data))))

    @unittest.skipIf(numpy is None, "numpy is not installed")
    def test_arrays_of_numpy_come_back(self):
        echoes = self.subscribe("echo")
        picture = numpy.arange(12, dtype=numpy.float32).reshape(3, 4)
        self.client.send(picture)
        back = numpy.frombuffer(echoes.get(LIMIT).data, dtype=numpy.float32).reshape(3, 4)
        self.assertTrue((back == picture).all())

    def test_largest_block(self):
        self.client.send(bytes(LARGEST_BLOCK_OF_CLIENTS))
        while self.peer.line() != f"Data(client={self.client.id}, {LARGEST_BLOCK_OF_CLIENTS} bytes)":
            pass

    def test_iteration_has_every_block_in_order_and_ends_by_close(self):
        taken = []
        with self.client.subscribe("numbers", max_blocks=1000) as numbers:
            self.client.command("count", "500")
            for block in numbers:
                taken.append(int(block.data))
                if taken[-1] == 499:
                    numbers.close()
        self.assertEqual(taken, list(range(500)))

    def test_a_slow_taker_loses_the_oldest(self):
        numbers = self.subscribe("numbers", max_blocks=3)
        end = self.subscribe("numbers", max_blocks=1000)
        self.client.command("count", "50")
        while int(end.get(LIMIT).data) != 49:
            pass
        self.assertEqual([int(numbers.get(LIMIT).data) for _ in range(3)], [47, 48, 49])
        self.assertEqual((numbers.dropped, end.dropped), (47, 0))

    def test_only_what_was_subscribed_to(self):
        silence = self.subscribe("silence")
        echoes = self.subscribe("echo")
        self.client.send(HELLO)
        self.assertEqual(echoes.get(LIMIT).service, "echo")
        with self.assertRaises(lumora.ReceiveTimeout):
            silence.get(0)

    def test_after_its_end_another_of_the_service_goes_on(self):
        with self.client.subscribe("echo"):
            echoes = self.subscribe("echo")
        self.client.send(HELLO)
        self.assertEqual(echoes.get(LIMIT).data, HELLO)

    def test_again_after_the_last_of_a_service(self):
        for _ in range(2):
            with self.client.subscribe("echo") as echoes:
                self.client.send(HELLO)
                self.assertEqual(echoes.get(LIMIT).data, HELLO)

    def test_gives_up_in_time(self):
        echoes = self.subscribe("echo")
        with self.assertRaisesRegex(TimeoutError, "0.001 seconds"):
            echoes.get(0.001)

    def test_callbacks_may_use_the_client(self):
        sizes = []
        grown = threading.Event()

        def grow(block):
            sizes.append(len(block.data))
            if len(sizes) < 4:
                self.client.send(block.data * 2)
            else:
                grown.set()

        self.subscribe("echo", grow)
        self.client.send(HELLO)
        self.assertTrue(grown.wait(LIMIT))
        self.assertEqual(sizes, [40, 80, 160, 320])

    def test_callbacks_may_close_the_client(self):
        closed = threading.Event()
        client = self.another_client()

        def close(_):
            client.close()
            closed.set()

        client.subscribe("echo", close)
        client.send(HELLO)
        self.assertTrue(closed.wait(LIMIT))

    def test_no_callback_after_close(self):
        client = self.another_client()
        client.subscribe("numbers", lambda block: None)
        client.command("count", "100")
        threads = set(threading.enumerate())
        client.close()
        ended = threads - set(threading.enumerate())
        self.assertEqual({thread.name for thread in ended}, {"lumora-numbers", "lumora-watch"})

    def test_close_ends_an_iteration_in_another_thread(self):
        client = self.another_client()
        echoes = client.subscribe("echo")
        thread = threading.Thread(target=lambda: list(echoes))
        thread.start()
        client.close()
        thread.join(LIMIT)
        self.assertFalse(thread.is_alive())

    def test_service_that_the_device_has_not(self):
        with self.assertRaisesRegex(lumora.SubscriptionRefused, '"sound"') as caught:
            self.client.subscribe("sound")
        self.assertEqual((caught.exception.function, caught.exception.code), ("LUM_SendCmd", -1))

    def test_command_that_does_not_fit(self):
        # Each of these takes six characters on its way.
        with self.assertRaises(lumora.CommandRefused):
            self.client.command("note", "\1" * 300)

    def test_two_clients_have_their_own_blocks(self):
        another = self.another_client()
        ours, theirs = self.subscribe("echo"), another.subscribe("numbers")
        self.client.send(HELLO)
        another.command("count", "1")
        self.assertEqual((ours.get(LIMIT).data, int(theirs.get(LIMIT).data)), (HELLO, 0))

    def test_coroutines_take_blocks(self):
        async def count():
            taken = []
            self.client.command("count", "5")
            async for block in numbers:
                taken.append(int(block.data))
                if len(taken) == 5:
                    await asyncio.to_thread(numbers.close)
            return taken

        numbers = self.subscribe("numbers")
        self.assertEqual(asyncio.run(count()), list(range(5)))

    def test_coroutines_give_up_in_time(self):
        echoes = self.subscribe("echo")
        with self.assertRaises(lumora.ReceiveTimeout):
            asyncio.run(echoes.get_async(0.001))


class Ends(PythonCase):
    def setUp(self):
        self.set_check_interval(0.1)

    def set_check_interval(self, seconds):
        patch = unittest.mock.patch("lumora._client._CHECK_INTERVAL", seconds)
        patch.start()
        self.addCleanup(patch.stop)

    def client(self):
        client = lumora.Client()
        self.addCleanup(client.close)
        client.connect("echo-device", timeout=LIMIT)
        return client

    def assert_ends(self, blocks):
        with self.assertRaises(lumora.ConnectionLost):
            while True:
                blocks.get(LIMIT)

    def test_device_leaves_and_comes_back(self):
        device = self.device()
        client = self.client()
        numbers = client.subscribe("numbers")
        client.command("count", "1")
        self.assertEqual(numbers.get(LIMIT).data, b"0".rjust(40))
        client.command("leave")
        self.assert_ends(numbers)
        self.assertEqual(device.end()[0], 0)
        self.assertFalse(client.is_connected)
        self.assertRaises(lumora.ConnectionLost, client.send, HELLO)

        self.device()
        client.connect("echo-device", timeout=LIMIT)
        echoes = client.subscribe("echo")
        client.send(HELLO)
        self.assertEqual(echoes.get(LIMIT).data, HELLO)

    def test_reconnects_by_itself_and_its_subscriptions_go_on(self):
        device = self.device()
        client = lumora.Client(reconnect=True)
        self.addCleanup(client.close)
        client.connect("echo-device", timeout=LIMIT)
        echoes = client.subscribe("echo")
        for end in (lambda: device.signal(signal.SIGKILL), lambda: client.command("leave")):
            self.send_until_it_comes_back(client, echoes)
            end()
            device.end()
            device = self.device()
        self.send_until_it_comes_back(client, echoes)

    def send_until_it_comes_back(self, client, echoes):
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            try:
                client.send(HELLO)
                self.assertEqual(echoes.get(1).data, HELLO)
                return
            except (lumora.ConnectionLost, lumora.SendFailed, lumora.ReceiveTimeout):
                time.sleep(0.01)
        self.fail("nothing comes back")

    def test_close_ends_reconnecting(self):
        device = self.device()
        client = lumora.Client(reconnect=True)
        client.connect("echo-device", timeout=LIMIT)
        echoes = client.subscribe("echo")
        device.signal(signal.SIGKILL)
        device.end()
        end = time.monotonic() + LIMIT
        while client.is_connected:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.01)
        client.close()
        with self.assertRaises(lumora.Closed):
            echoes.get(LIMIT)
        self.assertNotIn("lumora-watch", {thread.name for thread in threading.enumerate()})

    def test_block_of_which_no_byte_was_sent(self):
        self.device()
        client = self.client()
        with unittest.mock.patch.object(library(), "LUM_SendData", lambda *_: 0):
            self.assertRaises(lumora.ConnectionLost, client.send, HELLO)
        self.assertFalse(client.is_connected)
        client.connect("echo-device", timeout=LIMIT)
        echoes = client.subscribe("echo")
        client.send(HELLO)
        self.assertEqual(echoes.get(LIMIT).data, HELLO)

    def test_device_is_killed(self):
        device = self.device()
        echoes = self.client().subscribe("echo")
        device.signal(signal.SIGKILL)
        self.assert_ends(echoes)

    def test_coroutine_learns_that_the_device_leaves(self):
        async def take():
            async for _ in echoes:
                pass

        self.device()
        client = self.client()
        echoes = client.subscribe("echo")
        client.command("leave")
        self.assertRaises(lumora.ConnectionLost, asyncio.run, take())

    def test_another_client_turns_to_another_device(self):
        self.set_check_interval(LIMIT)
        self.device()
        camera = self.peer("import lumora\nwith lumora.Device('camera', ['picture']) as device:\n"
                           "    print('ready', flush=True)\n    list(device)")
        self.assertEqual(camera.line(), "ready")
        echoes = self.client().subscribe("echo")
        with lumora.Client() as another:
            try:
                another.connect("camera", timeout=LIMIT)
            except lumora.ConnectFailed:
                pass  # on one host the first device may not have given up its port yet
            with self.assertRaisesRegex(lumora.ConnectionLost, "turned to another"):
                echoes.get(LIMIT)

    def test_port_of_clients_that_is_taken(self):
        self.device()
        with socket.create_server(("", 6667)), self.assertRaisesRegex(lumora.ConnectFailed, "6667 is taken"):
            self.client()


PRIVATE_DEVICE = """
import lumora
with lumora.Device("camera", ["picture"]) as device:
    print("ready", flush=True)
    for event in device:
        print(device.peer, flush=True)
"""
PRIVATE_CLIENT = """
import lumora
with lumora.Client() as client:
    print(client.peer)
    client.connect("camera", timeout=60)
    client.subscribe("picture")
    print(client.peer)
"""


class PrivateChannel(PythonCase):
    def test_is_not_private_without_a_key(self):
        self.device()
        with lumora.Client() as client:
            client.connect("echo-device", timeout=LIMIT)
            self.assertEqual(client.peer, lumora.Peer(is_private=False, identity=""))

    def test_both_ends_tell_with_whom(self):
        with tempfile.NamedTemporaryFile("w") as keys:
            keys.write("camera-1:0123456789abcdef\n")
            keys.flush()
            environment = {"LUMORA_LINK_PSK_FILE": keys.name, "LUMORA_LOG_LEVEL": "5"}
            device = self.peer(PRIVATE_DEVICE, **environment)
            self.assertEqual(device.line(), "ready")
            peer = str(lumora.Peer(True, "camera-1"))
            output = f"{lumora.Peer()}\n{peer}\n"
            self.assertEqual(self.peer(PRIVATE_CLIENT, **environment).end(), (0, output, ""))
            self.assertEqual(device.line(), peer)


if __name__ == "__main__":
    unittest.main()
