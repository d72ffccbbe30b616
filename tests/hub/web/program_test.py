"""lumora-hub itself, with a device and a broker beside it: its address, commands and blocks over HTTP, figures, its end."""
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.request

from served import until

PROGRAMS = pathlib.Path(sys.argv[1])
BROKER = pathlib.Path("/usr/sbin/mosquitto")


def get(url, body=None, kind="application/json"):
    with urllib.request.urlopen(urllib.request.Request(url, body, {"Content-Type": kind}), timeout=30) as reply:
        return reply.read()


class Program(unittest.TestCase):
    def start(self, name, *options):
        process = subprocess.Popen([PROGRAMS / name, *options], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                   env={**os.environ, "LUMORA_LINK_INTERFACE": "lo"})
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        return process

    def test_it_prints_the_address_of_a_page_that_reaches_devices(self):
        self.start("device")
        hub = self.start("lumora-hub")
        self.assertEqual(hub.stdout.readline(), "The page is at http://127.0.0.1:8666/\n")
        url = "http://127.0.0.1:8666/api/devices"
        device = until(lambda: json.loads(get(url))["devices"], what="the device")[0]
        self.assertEqual((device["type"], device["present"]), ("echo-device", True))
        path = f"{url}/{device['id']}"
        self.assertEqual(json.loads(get(f"{path}/commands", b'{"name":"hello","parameter":"x"}')), {"done": True})
        with urllib.request.urlopen(f"{path}/services/echo/events", timeout=30) as events:
            self.assertEqual((events.readline(), events.readline()), (b"retry: 500\n", b"\n"))
            until(lambda: json.loads(get(path))["services"][0]["consumers"] == 1)
            until(lambda: json.loads(get(path))["channel"] == "connected")
            until(lambda: self.echoes(path, events), what="the device's answer")
        hub.terminate()
        self.assertEqual(hub.wait(timeout=20), 0)

    def echoes(self, path, events):
        """Sends a block, and reads until it is back. False if the device does not have the subscription yet."""
        get(f"{path}/data", b"a block", "application/octet-stream")
        got = [events.readline() for _ in range(4)]
        return got[2] == b"data: a block\n"

    def run_hub(self, *options):
        return subprocess.run([PROGRAMS / "lumora-hub", *options], capture_output=True, text=True, timeout=60,
                              env={**os.environ, "LUMORA_LINK_INTERFACE": "lo"})

    def start_broker(self):
        configuration = tempfile.NamedTemporaryFile("w", suffix=".conf")
        self.addCleanup(configuration.close)
        configuration.write("listener 1883 127.0.0.1\nallow_anonymous true\nuser root\nlog_type error\n")
        configuration.flush()
        broker = subprocess.Popen([BROKER, "-c", configuration.name])
        self.addCleanup(broker.wait)
        self.addCleanup(broker.terminate)
        return broker

    def publish(self, topic, payload):
        subprocess.run(["mosquitto_pub", "-V", "5", "-q", "1", "-t", topic, "-m", payload], check=True, timeout=30)

    def figures(self):
        """The figures without labels. Each metric must have one HELP and one TYPE line before its values."""
        values, types = {}, {}
        for line in get("http://127.0.0.1:8666/metrics").decode().splitlines():
            if line.startswith("# TYPE "):
                name, kind = line.split(" ")[2:]
                self.assertNotIn(name, types)
                types[name] = kind
                self.assertEqual(kind == "counter", name.endswith("_total"), name)
            elif not line.startswith("# HELP "):
                name, value = line.rsplit(" ", 1)
                base = name.split("{")[0]
                self.assertEqual(list(types)[-1], base if base in types else base.rpartition("_")[0], line)
                values[name] = float(value)
        return values

    @unittest.skipUnless(BROKER.exists(), "there is no broker here")
    @unittest.skipIf("mqtt" not in subprocess.run([PROGRAMS / "lumora-hub", "--help"], capture_output=True,
                                                  text=True).stdout,
                     "the hub is built without MQTT")
    def test_the_figures_of_the_broker_are_among_the_metrics(self):
        self.start("device")
        hub = self.start("lumora-hub", "--mqtt", "127.0.0.1", "--mqtt-name", "here")
        hub.stdout.readline()
        name = "lumora_hub_mqtt_"
        until(lambda: self.figures().get(name + "failed_connections_total", 0) > 0, what="a failed connection")
        broker = self.start_broker()
        until(lambda: self.figures()[name + "connected"] == 1, seconds=30, what="the connection")
        device = until(lambda: json.loads(get("http://127.0.0.1:8666/api/devices"))["devices"], what="the device")[0]["id"]
        # The device sends back what it gets, as the service that MQTT subscribes to.
        until(lambda: (self.publish(f"lumora/{device}/send", "12345"), self.figures()[name + "blocks_total"])[1] > 0,
              what="the device's answer")
        self.publish(f"lumora/{device}/command/hello", "x")
        self.publish(f"lumora/{device}/command/subscribe", "x")
        figures = until(lambda: (now := self.figures())[name + "refused_requests_total"] and now, what="a refused command")
        self.assertEqual((figures[name + "commands_total"], figures[name + "refused_requests_total"]), (1, 1))
        self.assertEqual(figures[name + "bytes_total"], 5 * figures[name + "blocks_total"])
        self.assertGreaterEqual(figures[name + "received_blocks_total"], figures[name + "blocks_total"])
        self.assertEqual((figures[name + "lost_blocks_total"], figures[name + "connections_total"]), (0, 1))
        broker.terminate()
        until(lambda: self.figures()[name + "connected"] == 0, what="the loss of the broker")

    def test_what_cannot_be_served_ends_it_with_a_reason(self):
        for options, reason in ((("--listen", "8666"), "needs ADDRESS:PORT"),
                                (("--listen", "0.0.0.0:8666"), "needs a token"),
                                (("--token-file", "/nothing"), "no token can be read"),
                                (("--listen", "192.0.2.1:8666", "--allow-plain-http", "--token-file", self.file("x" * 16)),
                                 "192.0.2.1 port 8666: Cannot assign requested address")):
            ended = self.run_hub(*options)
            self.assertEqual(ended.returncode, 1 if "Cannot assign" in reason else 2)
            self.assertIn(reason, ended.stderr)

    def test_secrets_that_other_users_may_read_are_refused(self):
        """A hub that takes them ends because it has no such address."""
        words = ("--listen", "192.0.2.1:8666")
        token, key = self.file("x" * 16), self.file("no key")
        for options, file in ((("--allow-plain-http", "--token-file", token), token),
                              (("--token-file", token, "--certificate", "/nothing", "--key", key), key)):
            for mode in (0o604, 0o620, 0o602, 0o644):
                os.chmod(file, mode)
                ended = self.run_hub(*words, *options)
                self.assertEqual((ended.returncode, ended.stderr.split("; see")[0]),
                                 (2, f"lumora-hub: other users may read or change {file}: chmod 600 {file}"))
            for mode in (0o600, 0o640, 0o400):
                os.chmod(file, mode)
                ended = self.run_hub(*words, *options)
                self.assertEqual(ended.returncode, 1)
                self.assertIn("Cannot assign requested address", ended.stderr)

    def test_options_that_would_do_nothing_are_mistakes(self):
        for options, reason in ((("--mqtt-user", "me"), "--mqtt-user requires --mqtt"),
                                (("--mqtt-home-assistant",), "--mqtt-home-assistant requires --mqtt"),
                                (("--config", self.file('mqtt-tls-ca = "x"\n')), "--mqtt-tls-ca requires --mqtt"),
                                (("--mqtt", "h", "--mqtt-home-assistant-prefix", "x"),
                                 "--mqtt-home-assistant-prefix requires --mqtt-home-assistant"),
                                (("--allow-plain-http", "--certificate", "x"),
                                 "--allow-plain-http would do nothing: --certificate serves with TLS")):
            ended = self.run_hub(*options)
            self.assertEqual((ended.returncode, ended.stderr), (2, f"lumora-hub: {reason}; see lumora-hub --help\n"))
        off = self.file('mqtt-tls = false\nallow-plain-http = false\nlisten = "192.0.2.1:1"\n')
        self.assertIn("needs a token", self.run_hub("--config", off).stderr)

    def test_a_second_hub_says_that_the_port_is_in_use(self):
        hub = self.start("lumora-hub")
        hub.stdout.readline()
        ended = self.run_hub()
        self.assertEqual(ended.returncode, 1)
        self.assertIn("127.0.0.1 port 8666: another program uses this port", ended.stderr)

    def test_a_service_that_cannot_start_tells_why_and_ends_late(self):
        """Otherwise the service manager would start it twice a second."""
        hub = self.start("lumora-hub")
        hub.stdout.readline()
        with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(f"{folder}/notify")
            manager.settimeout(30)
            second = subprocess.Popen([PROGRAMS / "lumora-hub"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                      text=True, env={**os.environ, "LUMORA_LINK_INTERFACE": "lo",
                                                      "NOTIFY_SOCKET": f"{folder}/notify"})
            self.addCleanup(second.kill)
            self.assertRegex(manager.recv(1000).decode(),
                             "^STATUS=Cannot start, next try in 10 s: .*another program uses this port")
            with self.assertRaises(subprocess.TimeoutExpired):
                second.wait(timeout=2)
            second.terminate()
            self.assertIn("another program uses this port", second.communicate(timeout=5)[1])
            self.assertEqual(second.returncode, 1)

    def test_a_mistake_in_the_options_or_their_file_is_named(self):
        for options, reason in ((("--tpye", "camera"), "--tpye"),
                                (("--idle", "-1"), "--idle"),
                                (("--config", "/nothing.toml"), "/nothing.toml"),
                                (("--config", self.file("idel = 3\n")), "idel"),
                                (("--config", self.file("idle = \"x\"\n")), "--idle"),
                                (("--config", self.file("some words\n")), "some words")):
            ended = self.run_hub(*options)
            self.assertEqual(ended.returncode, 2, options)
            self.assertRegex(ended.stderr, f"^lumora-hub: .*{reason}.*; see lumora-hub --help\n$")

    def test_it_prints_a_name_that_other_hosts_can_open(self):
        hub = self.start("lumora-hub", "--listen", "0.0.0.0:8666", "--allow-plain-http", "--token-file", self.file("x" * 16))
        self.assertEqual(hub.stdout.readline(), f"The page is at http://{socket.gethostname()}:8666/\n")

    def file(self, text):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = pathlib.Path(folder.name) / "file"
        path.write_text(text)
        path.chmod(0o600)
        return str(path)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])
