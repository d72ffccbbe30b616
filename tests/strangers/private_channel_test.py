"""Private data channels between hosts: what others see, try and cannot do, and what happens when keys do not fit."""

import contextlib
import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time

import stranger_case
from stranger_case import CLIENT_HOST, DEVICE_HOST, OTHER_HOST, STRANGER_HOST

KEYS = {"one": "one:5f0c3e5f0c3e5f0c3e5f0c3e5f0c3e5f", "other": "other:8a41d98a41d98a41d98a41d98a41d98a"}
# As a recording of a request's plaintext would have it.
OFFER = {"v": 1, "id": "AAECAwQFBgcICQoLDA0ODw", "k": "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8"}
ROUNDS = 8
BLOCKS = 400
DATA_PORTS = ("10.77.0.2:6666", "10.77.0.1:6667")


class PrivateChannel(stranger_case.StrangerCase):
    def setUp(self):
        super().setUp()
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def key_file(self, name, *keys):
        path = pathlib.Path(self.folder.name) / name
        path.touch(0o600)
        # Another file in its place, as the programs that change it do it.
        written = path.with_suffix(".new")
        written.touch(0o600)
        written.write_text("".join(f"{KEYS[key]}\n" for key in keys))
        written.replace(path)
        return path

    def settings(self, name, mode, keys=("one",)):
        path = self.key_file(name, *keys)
        return {"LUMORA_LINK_PSK_FILE": path, "LUMORA_LINK_CHANNEL": mode, "LUMORA_LOG_LEVEL": "2"}

    def private_device(self, mode="require", keys=("one",)):
        return self.ready(self.start(DEVICE_HOST, "device", environment=self.settings("device.key", mode, keys)))

    def private_client(self, mode="require", keys=("one",)):
        return self.start(CLIENT_HOST, "lasting_client", environment=self.settings("client.key", mode, keys))

    def logs(self, program, text, limit=10):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if any(text in line for line in list(program.log)):
                return True
            time.sleep(0.02)
        return False

    def is_logged(self, program, text):
        self.is_true(f"the log says: {text}", self.logs(program, text))

    def connects(self, client, wanted="done"):
        answer, took = client.ask("connect", "connect (done|failed)", limit=30)
        self.is_equal("the connect", answer and answer[1], wanted)
        return took

    def sends_fail(self, client, limit=10):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            answer, _ = client.ask("block", "block (done|failed)", limit=5)
            if answer and answer[1] == "failed":
                return True
            time.sleep(0.1)
        return False

    def echoes(self, client, text):
        answer, _ = client.ask(text, f"echo: {text}$", limit=10)
        self.is_true(f"{text} comes back", answer is not None)

    # What the wire shows.

    @contextlib.contextmanager
    def recording(self, name):
        path = pathlib.Path(self.folder.name) / f"{name}.pcap"
        host = self.host(CLIENT_HOST)
        with subprocess.Popen(
            [*host.prefix(), "tshark", "-q", "-i", "eth0", "-w", path, "-F", "pcap"],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
        ) as capture:
            for line in capture.stderr:
                if "Capturing on" in line:
                    break
            end = time.monotonic() + 10
            while not (path.exists() and path.stat().st_size > 0) and time.monotonic() < end:
                time.sleep(0.05)
            yield path
            time.sleep(0.5)
            capture.send_signal(signal.SIGINT)

    def captured(self, mode):
        with self.recording(mode) as path:
            device = self.private_device(mode)
            client = self.private_client(mode)
            self.connects(client)
            self.echoes(client, "PlainTextToLookFor")
            client.close()
            device.close()
        return path.read_bytes()

    def test_wire_shows_no_block_of_a_private_channel(self):
        plain = self.captured("plain")
        private = self.captured("require")
        self.is_true("a plain channel shows the text both ways", plain.count(b"PlainTextToLookFor") >= 2)
        self.is_equal("times that a private one shows it", private.count(b"PlainTextToLookFor"), 0)
        self.is_true("and shows TLS", b"\x17\x03\x03" in private)
        self.is_equal("times that it shows the device's service", private.count(b"\x04echo"), 0)

    # Keys and modes that do not fit.

    def test_another_key(self):
        self.private_device()
        client = self.private_client(keys=("other",))
        self.connects(client, "failed")

    def test_requiring_client_and_plain_device(self):
        self.private_device("plain")
        client = self.private_client("require")
        self.connects(client, "failed")
        self.is_logged(client, "A private channel is required, and the device offers none.")

    def test_requiring_device_and_plain_client(self):
        device = self.private_device("require")
        client = self.private_client("plain")
        self.connects(client, "failed")
        self.is_logged(device, "A private channel is required, and the client offers none.")

    def test_preferring_client_and_plain_device(self):
        self.private_device("plain")
        client = self.private_client("prefer")
        self.connects(client)
        self.is_logged(client, "The device offers no private channel; it gets a plain one.")
        self.echoes(client, "plain")

    def test_preferring_device_and_plain_client(self):
        device = self.private_device("prefer")
        client = self.private_client("plain")
        self.connects(client)
        self.is_logged(device, "The client offers no private channel; it gets a plain one.")
        self.echoes(client, "plain")

    def test_key_alone_makes_channels_private(self):
        device = self.private_device("")
        client = self.private_client("")
        self.connects(client)
        self.is_logged(client, "The data channel is private.")
        self.is_logged(device, "The data channel is private.")

    def test_revoked_key_ends_the_running_channel(self):
        self.private_device(keys=("other", "one"))
        client = self.private_client()
        self.connects(client)
        self.echoes(client, "before")
        self.key_file("device.key", "other")
        self.is_true("the channel has ended", self.sends_fail(client))
        self.connects(client, "failed")

    # Strangers at the data ports.

    def attacked_from(self, *hosts):
        self.private_device()
        attacks = [self.stranger("connect", *DATA_PORTS, host=host) for host in hosts]
        served = 0
        for at in range(ROUNDS):
            client = self.private_client()
            answer, took = client.ask("connect", "connect (done|failed)", limit=30)
            if answer and answer[1] == "done":
                answer, _ = client.ask(f"text-{at}", f"echo: text-{at}$", limit=10)
                served += answer is not None
            print(f"    session {at}: {took:.2f} s", flush=True)
            client.close()
        for attack in attacks:
            attack.process.stdin.close()
            self.over(attack)
        self.is_equal("sessions that had their text back", served, ROUNDS)

    def test_flood_of_connections_from_another_host(self):
        self.attacked_from(STRANGER_HOST)

    def test_flood_of_connections_from_the_peers_hosts(self):
        self.attacked_from(CLIENT_HOST, DEVICE_HOST)

    def test_stream_loses_nothing_while_ports_are_pestered(self):
        device = self.private_device()
        client = self.private_client()
        self.connects(client)
        attacks = [self.stranger("pester", *DATA_PORTS, host=host) for host in (STRANGER_HOST, CLIENT_HOST, DEVICE_HOST)]
        for at in range(BLOCKS):
            answer, _ = client.ask(f"block-{at}", f"echo: block-{at}$", limit=10)
            if answer is None:
                break
        self.is_equal("the last block that came back", at, BLOCKS - 1)
        client.close()
        client = self.private_client()
        self.connects(client)
        self.echoes(client, "under-attack")
        for attack in attacks:
            attack.process.stdin.close()
            self.over(attack)
        self.is_equal("programs that ended", [p for p in (device, client) if p.process.poll() is not None], [])

    # Repeated words.

    def setups(self, device):
        return sum("Reveived remote transport info" in line for line in list(device.log))

    def test_replayed_datagrams_of_a_setup(self):
        device = self.private_device()
        with self.recording("session") as path:
            client = self.private_client()
            self.connects(client)
            self.echoes(client, "recorded")
        self.is_equal("setups of the session", self.setups(device), 1)
        replayed = int(self.attack("replay", str(path), "10.77.0.2").split()[0])
        # A handshake takes three, and then come a search, the setup, "Connect" and "subscribe".
        self.is_true("the recording has the session's datagrams", replayed >= 7)
        self.echoes(client, "during")
        self.is_equal("setups after a replay into the session", self.setups(device), 1)
        client.close()
        self.attack("replay", str(path), "10.77.0.2")
        time.sleep(1)
        self.is_equal("setups after a replay behind the session", self.setups(device), 1)
        client = self.private_client()
        self.connects(client)
        self.echoes(client, "afterwards")
        self.is_equal("setups of both sessions", self.setups(device), 2)

    def test_replayed_setup_string_in_a_session_of_another_holder_of_the_key(self):
        self.private_device()
        client = self.private_client()
        self.connects(client)
        offer = json.dumps(OFFER, separators=(",", ":"))
        request = f'{{"p":2,"ep":{{"addr":"10.77.0.2","port":6666}},"sec":{offer}}}'
        node = self.ready(self.start(OTHER_HOST, "asking_node", environment=self.settings("node.key", "require")))
        self.stranger("hold", "6667", host=OTHER_HOST)
        node.ask("find echo-device", "found .*")
        answer, _ = node.ask(f"get .sys.mediaservice.setup 1 {request}", r"got \d+ (\d)", limit=20)
        self.is_equal("setups that succeed in another node's channel", answer and answer[1], "0")
        self.echoes(client, "still-there")
        client.close()
        time.sleep(2)
        keys = set()
        for _ in range(2):
            answer, _ = node.ask(f"get .sys.mediaservice.setup 1 {request}", r"got \d+ 1 (.*Succ.*)", limit=20)
            self.is_true("the string is a setup", answer is not None)
            keys.add(answer and answer[1])
        self.is_equal("different answers to the same string", len(keys), 2)

    # Ends.

    def test_device_that_is_killed_and_comes_back(self):
        device = self.private_device()
        client = self.private_client()
        self.connects(client)
        for at in range(3):
            start = len(client.lines)
            for block in range(60):
                client.tell(f"block-{at}-{block}")
                if block == 30:
                    os.kill(device.process.pid, signal.SIGKILL)
                time.sleep(0.01)
            self.is_true("sends fail soon", client.line(f"block-{at}-.* failed", start, limit=5) is not None)
            device = self.private_device()
            self.connects(client)
            self.echoes(client, f"back-{at}")

    def test_client_that_is_killed_makes_room(self):
        device = self.private_device()
        for at in range(3):
            client = self.private_client()
            self.connects(client)
            self.echoes(client, f"text-{at}")
            os.kill(client.process.pid, signal.SIGKILL)
            self.is_true("the device notices", self.logs(device, "The server reveived thread exit."))
            device.log.clear()


if __name__ == "__main__":
    stranger_case.main()
