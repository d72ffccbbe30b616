"""lumora.Device, with clients in other processes."""

import asyncio
import threading
import unittest
import unittest.mock

import lumora
from lumora._library import library
from python_case import LIMIT, PythonCase

# Subscribes, sends and commands, and ends when it has got an answer.
CLIENT = """
import lumora
with lumora.Client() as client:
    client.connect("camera", timeout=60)
    with client.subscribe("picture") as pictures:
        client.command("mode", "night")
        client.send(b"a block")
        print(pictures.get(60).data.decode(), flush=True)
"""

EVENTS = [
    lumora.Subscribed(1, "picture"),
    lumora.Command("mode", "night"),
    lumora.Data(1, b"a block"),
    lumora.Unsubscribed(1, "picture"),
]


class Alone(PythonCase):
    def test_one_of_a_process_at_a_time(self):
        with lumora.Device("camera", ["picture"]):
            self.assertRaises(lumora.DeviceExists, lumora.Device, "camera", ["picture"])
        with lumora.Device("camera", ["picture"]):
            pass

    def test_arguments_that_cannot_be(self):
        for call in (lambda: lumora.Device("", ["picture"]), lambda: lumora.Device("x" * 40, ["picture"]),
                     lambda: lumora.Device("camera", []), lambda: lumora.Device("camera", [""]),
                     lambda: lumora.Device("camera", list("123456789")),
                     lambda: lumora.Device("camera", [lumora.Service("picture", transport=6)]),
                     lambda: lumora.Device("camera", [lumora.Service("picture", -1)]),
                     lambda: lumora.Device("camera", ["picture"], max_bytes=0)):
            self.assertRaises(ValueError, call)
        with lumora.Device("camera", ["picture"]) as device:
            for call in (lambda: device.send("sound", b"a"), lambda: device.send("picture", b""),
                         lambda: device.send("picture", bytes(1024001)),
                         lambda: device.send("picture", b"a", timeout=3.1)):
                self.assertRaises(ValueError, call)

    def test_description_that_is_too_long(self):
        # Each of these takes six characters in it.
        names = [str(number) + "\1" * 30 for number in range(8)]
        with self.assertRaises(lumora.RegistrationFailed) as caught:
            lumora.Device("camera", names)
        self.assertEqual((caught.exception.function, caught.exception.code), ("LUM_RegisterAiDevInfo", -1))
        with lumora.Device("camera", ["picture"]):
            pass

    def test_block_of_which_no_byte_was_sent(self):
        with lumora.Device("camera", ["picture"]) as device:
            with unittest.mock.patch.object(library(), "LUM_SendDataToClient", lambda *_: 0):
                self.assertRaises(lumora.NoClient, device.send, "picture", b"a block")

    def test_no_client_to_send_to(self):
        with lumora.Device("camera", ["picture"]) as device:
            with self.assertRaises(lumora.NoClient) as caught:
                device.send("picture", b"a")
        self.assertEqual((caught.exception.function, caught.exception.code), ("LUM_SendDataToClient", -1))

    def test_that_is_closed(self):
        device = lumora.Device("camera", ["picture"])
        device.close()
        device.close()
        self.assertRaises(lumora.Closed, device.send, "picture", b"a")
        self.assertRaises(lumora.Closed, device.get)
        self.assertEqual(list(device), [])

    def test_gives_up_in_time(self):
        with lumora.Device("camera", ["picture"]) as device:
            self.assertRaises(lumora.ReceiveTimeout, device.get, 0.001)

    def test_close_ends_an_iteration_in_another_thread(self):
        device = lumora.Device("camera", ["picture"])
        thread = threading.Thread(target=lambda: list(device))
        thread.start()
        device.close()
        thread.join(LIMIT)
        self.assertFalse(thread.is_alive())


class WithClient(PythonCase):
    def assert_answered(self, client):
        self.assertEqual(client.end()[:2], (0, "an answer\n"))

    def test_iteration_has_all_that_a_client_does(self):
        events = []
        with lumora.Device("camera", ["picture"]) as device:
            client = self.peer(CLIENT)
            for event in device:
                events.append(event)
                if isinstance(event, lumora.Data):
                    self.assertEqual(device.subscribers("picture"), {1})
                    device.send("picture", bytearray(b"an answer"))
                elif isinstance(event, lumora.Unsubscribed):
                    break
            self.assertEqual(device.subscribers("picture"), frozenset())
            self.assert_answered(client)
        self.assertEqual(events, EVENTS)

    def test_callback_has_all_that_a_client_does(self):
        events = []
        left = threading.Event()

        def answer(event):
            events.append(event)
            if isinstance(event, lumora.Data):
                device.send("picture", b"an answer")
            elif isinstance(event, lumora.Unsubscribed):
                left.set()

        with lumora.Device("camera", ["picture"], answer) as device:
            client = self.peer(CLIENT)
            self.assertTrue(left.wait(LIMIT))
            self.assert_answered(client)
        self.assertEqual(events, EVENTS)

    def test_callback_may_close_the_device(self):
        closed = threading.Event()

        def close(event):
            device.close()
            closed.set()

        device = lumora.Device("camera", ["picture"], close)
        self.addCleanup(device.close)
        client = self.peer("import lumora\nclient = lumora.Client()\nclient.connect('camera', timeout=60)\n"
                           "client.command('stop')")
        self.assertTrue(closed.wait(LIMIT))
        self.assertEqual(client.end()[0], 0)

    def test_coroutine_has_all_that_a_client_does(self):
        async def serve(device):
            events = []
            async for event in device:
                events.append(event)
                if isinstance(event, lumora.Data):
                    await asyncio.to_thread(device.send, "picture", b"an answer")
                elif isinstance(event, lumora.Unsubscribed):
                    return events

        with lumora.Device("camera", ["picture"]) as device:
            client = self.peer(CLIENT)
            self.assertEqual(asyncio.run(serve(device)), EVENTS)
            self.assert_answered(client)

    def test_services_are_found_as_they_were_given(self):
        service = lumora.Service("picture", 7, lumora.Transport.RTP)
        with lumora.Device("camera", [service, "sound"]) as device:
            client = self.peer("import lumora\nwith lumora.Client() as client:\n"
                               "    print(client.find('camera', timeout=60)[0].services, flush=True)")
            self.assertEqual(client.end()[:2], (0, f"{device.services}\n"))
        self.assertEqual(device.services, (service, lumora.Service("sound")))

    def test_blocks_of_a_client_come_in_order_and_whole(self):
        with lumora.Device("camera", ["picture"], max_blocks=100) as device:
            # It stays until all have come: what is on its way is lost when a client leaves.
            client = self.peer("import lumora\nwith lumora.Client() as client:\n"
                               "    client.connect('camera', timeout=60)\n"
                               "    pictures = client.subscribe('picture')\n"
                               "    for number in range(50):\n"
                               "        client.send(bytes([number]) * 20000)\n"
                               "    pictures.get(60)")
            blocks = []
            while len(blocks) < 50:
                event = device.get(LIMIT)
                if isinstance(event, lumora.Data):
                    blocks.append(event.data)
            device.send("picture", b"enough")
            self.assertEqual(client.end()[0], 0)
        self.assertEqual(blocks, [bytes([number]) * 20000 for number in range(50)])


if __name__ == "__main__":
    unittest.main()
