"""Streams of blocks over WebSockets and server-sent events: each client its own queue, and its own losses."""
import base64
import json
import tempfile
import threading
import time

import served
from served import Case, WebSocket, until

API = "/api/devices/camera@127.0.0.1"
STREAM = API + "/services/level/stream"


class Events:
    """Reads server-sent events."""

    def __init__(self, hub, path):
        self.socket = hub.connect()
        self.socket.sendall(f"GET {path} HTTP/1.1\r\nHost: {hub.host}\r\n\r\n".encode())
        self.file = self.socket.makefile("rb")
        self.status = int(self.file.readline().split()[1])
        while self.file.readline() != b"\r\n":
            pass
        assert self.file.readline() + self.file.readline() == b"retry: 500\n\n"

    def next(self):
        fields = {"data": []}
        for line in self.file:
            if line == b"\n":
                return {**fields, "data": "\n".join(fields["data"])}
            name, value = line.decode().rstrip("\n").split(": ", 1)
            if name == "data":
                fields["data"].append(value)
            else:
                fields[name] = value
        raise EOFError

    def close(self):
        self.file.close()
        self.socket.close()


class Streams(Case):
    def stream(self, path=STREAM, **more):
        before = self.metric("lumora_hub_web_streams")
        socket = WebSocket(self.hub, path, **more)
        self.addCleanup(socket.close)
        self.assertEqual(socket.status, 101)
        until(lambda: self.metric("lumora_hub_web_streams") > before)
        return socket

    def events(self, path):
        events = Events(self.hub, path)
        self.addCleanup(events.close)
        return events

    def tearDown(self):
        self.doCleanups()
        until(lambda: self.metric("lumora_hub_web_streams") == 0)

    def test_blocks_come_whole_with_number_and_time(self):
        stream = self.stream()
        with tempfile.NamedTemporaryFile() as file:
            for size in (1, 100, 125, 126, 65511, 65512, 65513, 70000, 1_024_000, 5_242_880):
                content = bytes(at * 7 & 255 for at in range(min(size, 1024))) * (size // 1024 + 1)
                file.seek(0)
                file.truncate()
                file.write(content[:size])
                file.flush()
                self.hub.do(f"file camera@127.0.0.1 level {file.name}")
                number, lost, when, received = stream.block()
                self.assertEqual((lost, received == content[:size]), (0, True), size)
                self.assertLess(abs(when / 1e6 - time.time()), 5)
        self.hub.do("text camera@127.0.0.1 level next")
        self.assertEqual(stream.block()[0], number + 1)
        self.assertEqual(stream.opcode, 2)

    def test_a_stream_by_type_alone_gets_the_device_of_that_type(self):
        stream = self.stream("/api/devices/camera/services/level/stream")
        self.hub.do("text camera@127.0.0.1 level here")
        self.assertEqual(stream.block()[3], b"here")

    def test_a_slow_client_loses_its_own_oldest_blocks(self):
        fast, slow = self.stream(), self.stream(STREAM + "?blocks=8", receive_buffer=4096)
        got = []
        reader = threading.Thread(target=lambda: got.extend(fast.block() for _ in range(60)))
        reader.start()
        for count in range(60):
            self.hub.do("burst camera@127.0.0.1 level 1 200000")
            until(lambda: len(got) > count, what="the fast client's block")
        reader.join()
        self.assertEqual([lost for _, lost, _, _ in got], [0] * 60)
        self.assertEqual(got[-1][0] - got[0][0], 59)
        blocks = [slow.block()]
        while blocks[-1][0] < got[-1][0]:
            blocks.append(slow.block())
        lost = blocks[-1][1]
        self.assertGreater(lost, 30)
        self.assertEqual(lost + len(blocks), 60)
        self.assertEqual([block[0] for block in blocks[-8:]], [block[0] for block in got[-8:]])
        self.assertGreaterEqual(self.metric("lumora_hub_web_lost_blocks_total"), lost)

    def test_losses_of_a_client_that_left_stay_counted(self):
        slow = self.stream(STREAM + "?blocks=1", receive_buffer=4096)
        before = self.metric("lumora_hub_web_lost_blocks_total")
        self.hub.do("burst camera@127.0.0.1 level 50 200000")
        lost = until(lambda: self.metric("lumora_hub_web_lost_blocks_total") - before)
        slow.close()
        until(lambda: self.metric("lumora_hub_web_streams") == 0)
        self.assertGreaterEqual(self.metric("lumora_hub_web_lost_blocks_total") - before, lost)

    def test_a_client_that_stops_reading_goes_on_afterwards(self):
        stream = self.stream(STREAM + "?blocks=4", receive_buffer=4096)
        end = time.monotonic() + 8  # longer than any of the library's own times
        while time.monotonic() < end:
            self.hub.do("burst camera@127.0.0.1 level 1 500000")
            time.sleep(0.1)
        self.hub.do("text camera@127.0.0.1 level last")
        block = stream.block()
        while block[3] != b"last":
            block = stream.block()
        self.assertGreater(block[1], 10)

    def test_the_queue_has_the_limits_that_the_client_asks_for(self):
        for query, status in (("?blocks=1", 101), ("?bytes=1000&blocks=3", 101), ("?blocks=0", 400), ("?blocks=x", 400),
                              ("?bytes=-1", 400), ("?blocks=99999999999999999999999", 400), ("?blocks=", 400)):
            socket = WebSocket(self.hub, STREAM + query)
            socket.close()
            self.assertEqual(socket.status, status, query)

    def test_what_a_client_sends_closes_its_stream(self):
        stream = self.stream()
        stream.send(b"hello")
        with self.assertRaises((EOFError, ConnectionResetError)):
            stream.message()

    def test_a_hundred_streams_get_each_block(self):
        sockets = [WebSocket(self.hub, STREAM) for _ in range(100)]
        until(lambda: self.subscribers() == 100)
        for text in ("one", "two", "three"):
            self.hub.do(f"text camera@127.0.0.1 level {text}")
        for socket in sockets:
            self.assertEqual([socket.block()[3] for _ in range(3)], [b"one", b"two", b"three"])
        for socket in sockets:
            socket.close()
        until(lambda: self.subscribers() == 0)

    def test_server_sent_events_carry_texts_and_base64(self):
        events = self.events(API + "/services/level/events")
        self.assertEqual(events.status, 200)
        until(lambda: self.subscribers() == 1)
        with tempfile.NamedTemporaryFile() as file:
            for content in (b"21.5", b'{"a": [1,\n2]}', "grün\n\n".encode(), b"a\r\nb", b"\x00\x01", b"\xff\xd8\xff", b"\n"):
                file.seek(0)
                file.truncate()
                file.write(content)
                file.flush()
                self.hub.do(f"file camera@127.0.0.1 level {file.name}")
                event = events.next()
                is_text = b"\r" not in content and content.isascii() and b"\x00" not in content or content[:1] == b"g"
                self.assertEqual(event["event"], "text" if is_text else "base64")
                data = event["data"]
                self.assertEqual(data.encode() if is_text else base64.b64decode(data), content)
                self.assertTrue(event["id"].isdigit())

    def test_the_list_of_devices_is_told_as_it_changes(self):
        socket = WebSocket(self.hub, "/api/events")
        self.addCleanup(socket.close)
        events = self.events("/api/events")
        first = json.loads(socket.message())
        self.assertEqual((first["type"], socket.opcode), ("devices", 1))
        self.assertIn("camera@127.0.0.1", [device["id"] for device in first["devices"]])
        self.assertEqual(events.next()["event"], "devices")

        def change():
            message = json.loads(socket.message())
            return message if message["type"] == "device" and message["device"]["type"] == "lamp" else None
        self.hub.do("appear lamp@127.0.0.9 brightness")
        message = until(change)
        self.assertEqual((message["kind"], message["device"]["present"]), ("appeared", True))
        self.assertEqual([service["name"] for service in message["device"]["services"]], ["brightness"])
        self.hub.do("leave lamp@127.0.0.9")
        message = until(change)
        self.assertEqual((message["kind"], message["device"]["present"]), ("left", False))
        event = events.next()
        while event["event"] != "device":
            event = events.next()
        self.assertEqual(json.loads(event["data"])["kind"], "appeared")

    def test_counts_come_each_second(self):
        socket = WebSocket(self.hub, "/api/events")
        self.addCleanup(socket.close)
        self.hub.do("text camera@127.0.0.1 picture x")

        def counts():
            message = json.loads(socket.message())
            return message["devices"]["camera@127.0.0.1"] if message["type"] == "counts" else None
        first, second = until(counts), until(counts)
        self.assertGreater(first["picture"]["blocks"], 0)
        self.assertEqual(second["picture"]["bytes"], first["picture"]["bytes"])

    def test_device_names_that_are_no_text_do_not_break_the_list(self):
        socket = WebSocket(self.hub, "/api/events")
        self.addCleanup(socket.close)
        self.hub.do(b"appear bad\xff\"<script>\\@127.0.0.7 \xc0\xaf".decode(errors="surrogateescape"))
        while "bad" not in socket.message().decode("utf-8"):
            pass
        self.assertIn("bad\ufffd", json.dumps(json.loads(self.hub.get("/api/devices")[2]), ensure_ascii=False))


class Ends(Case):
    def test_the_server_ends_with_open_streams(self):
        sockets = [WebSocket(self.hub, STREAM) for _ in range(20)] + [WebSocket(self.hub, "/api/events")]
        self.hub.do("burst camera@127.0.0.1 level 100 100000")
        begin = time.monotonic()
        hub = served.Served()
        sockets += [WebSocket(hub, "/api/events") for _ in range(20)]
        hub.close()
        self.assertLess(time.monotonic() - begin, 5)
        for socket in sockets:
            socket.close()


if __name__ == "__main__":
    served.main()
