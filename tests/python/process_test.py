"""How processes with clients and devices begin and end; and the examples, as they are run."""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

from python_case import LIMIT, SOURCES, Peer, PythonCase

EXAMPLES = SOURCES / "examples" / "python"

RUNNING_CLIENT = """
import lumora, os, sys, threading
client = lumora.Client()
client.connect("echo-device", timeout=60)
numbers = client.subscribe("numbers", lambda block: None)
echoes = client.subscribe("echo")
threading.Thread(target=lambda: list(echoes), daemon=True).start()
client.command("count", "2000")
"""


class Ends(PythonCase):
    """What is open is closed when the interpreter ends, without a word and without a wait."""

    def test_with_a_client_in_full_swing(self):
        device = self.device()
        client = self.peer(RUNNING_CLIENT, LUMORA_LOG_LEVEL="5")
        self.assertEqual(client.end(), (0, "", ""))
        while device.line() != "Unsubscribed(client=1, service='numbers')":
            pass

    def test_by_an_exception(self):
        self.device()
        code, _, errors = self.peer(RUNNING_CLIENT + "raise KeyError('mine')", LUMORA_LOG_LEVEL="5").end()
        self.assertEqual(code, 1)
        self.assertTrue(errors.endswith("KeyError: 'mine'\n"), errors)

    def test_by_an_interrupt_of_a_blocking_iteration(self):
        self.device()
        client = self.peer(RUNNING_CLIENT + "with client.subscribe('echo') as more:\n"
                           "    print('waiting', flush=True)\n    for block in more: pass")
        self.assertEqual(client.line(), "waiting")
        client.signal(signal.SIGINT)
        code, _, errors = client.end()
        self.assertEqual(code, -signal.SIGINT)
        self.assertIn("KeyboardInterrupt", errors)

    def test_with_a_device_that_has_a_client(self):
        device = self.peer("import lumora\n"
                           "device = lumora.Device('camera', ['picture'], lambda event: None)\n"
                           "print('ready', flush=True)\n"
                           "while not device.subscribers('picture'): pass\n", LUMORA_LOG_LEVEL="5")
        self.assertEqual(device.line(), "ready")
        client = self.peer("import lumora\nclient = lumora.Client()\nclient.connect('camera', timeout=60)\n"
                           "with client.subscribe('picture') as pictures:\n"
                           "    try:\n        pictures.get(60)\n"
                           "    except lumora.ConnectionLost:\n        print('left')")
        self.assertEqual(device.end(), (0, "", ""))
        self.assertEqual(client.end()[:2], (0, "left\n"))

    def test_of_a_forked_child_that_leaves_the_client_alone(self):
        self.device()
        client = self.peer(RUNNING_CLIENT + "sys.stdout.flush()\nif os.fork() == 0:\n"
                           "    print(list(echoes), client.is_connected, flush=True)\n"
                           "    client.close()\n    sys.exit()\n"
                           "os.wait()\nprint(client.device_version() == client.version())\n")
        self.assertEqual(client.end()[:2], (0, "[] False\nTrue\n"))


class Log(PythonCase):
    def test_has_what_went_wrong_in_a_callback(self):
        self.device()
        code, output, errors = self.peer("""
import lumora, threading
failed = threading.Event()

def fail(block):
    if not failed.is_set():
        failed.set()
        raise ValueError("100%s wrong")
    print("called again", flush=True)
    again.set()

again = threading.Event()
with lumora.Client() as client:
    client.connect("echo-device", timeout=60)
    client.subscribe("echo", fail)
    client.send(b"a")
    failed.wait(60)
    client.send(b"a")
    again.wait(60)
""", LUMORA_LOG_LEVEL="4").end()
        self.assertEqual((code, output), (0, "called again\n"))
        self.assertRegex(errors, r" E \d+ LUMRA fail:\d+ a callback failed: ValueError: 100%s wrong\n")


class Examples(PythonCase):
    def example(self, name, *words):
        example = Peer(str(EXAMPLES / name), *words)
        self.addCleanup(example.close)
        return example

    def test_talk(self):
        device = self.example("device.py")
        self.assertEqual(device.line(), "ready; Ctrl-C ends it")
        self.assertEqual(self.example("client.py", "grüße").end()[:2], (0, "echo: grüße\n"))
        self.assertEqual(self.example("client.py").end()[:2], (0, "echo: hello\n"))
        device.signal(signal.SIGTERM)
        code, output, _ = device.end()
        self.assertEqual(code, 0)
        self.assertEqual(output.count("Data(client=1, 7 bytes)"), 1)

    def test_client_without_a_device(self):
        code, output, errors = self.example("client.py").end()
        self.assertEqual((code, output), (1, ""))
        self.assertIn('no device of type "echo-device"', errors)


@unittest.skipIf("LD_PRELOAD" in os.environ, "it is the same without sanitizers, and faster")
class Installation(unittest.TestCase):
    """By pip, without a network, to a folder of its own."""

    def run_in(self, folder, *words):
        without_ours = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
        return subprocess.run(
            words, cwd=folder, env=without_ours,
            capture_output=True, text=True, check=False, timeout=5 * LIMIT,
        )

    def python(self):
        """One that has what installing needs, which is neither setuptools nor wheel."""
        for python in filter(shutil.which, (sys.executable, "/usr/bin/python3")):
            needed = self.run_in("/", python, "-c", "import pip, venv")
            if needed.returncode == 0:
                return python
        return self.skipTest("Debian: python3-pip, python3-venv")

    def test_from_the_folder(self):
        with tempfile.TemporaryDirectory() as folder:
            # A build writes beside the sources.
            package = pathlib.Path(folder, "package")
            shutil.copytree(SOURCES / "python", package)
            made = self.run_in(folder, self.python(), "-m", "venv", "--system-site-packages",
                               "--without-pip", "environment")
            self.assertEqual(made.returncode, 0, made.stderr)
            python = f"{folder}/environment/bin/python"
            installed = self.run_in(folder, python, "-m", "pip", "install", "--no-index",
                                    "--no-build-isolation", "--disable-pip-version-check", str(package))
            self.assertEqual(installed.returncode, 0, installed.stdout + installed.stderr)
            shutil.rmtree(package)
            script = "import lumora, os.path; lumora.Client().close(); print(lumora.__file__); " \
                     "print(os.path.exists(os.path.dirname(lumora.__file__) + '/py.typed'))"
            used = self.run_in(folder, python, "-c", script)
            self.assertEqual(used.returncode, 0, used.stderr)
            self.assertRegex(used.stdout, f"^{folder}/environment/.*/__init__.py\nTrue\n$")


if __name__ == "__main__":
    unittest.main()
