"""A stream on the host on which an operator looks round: no look ends it, and not one block is lost."""

import json
import signal
import unittest

from lumora_case import LumoraCase, lumora

REFUSED = 4  # the stream has port 6667
ANY = None  # what doctor finds is no matter of this test

LOOKS = [
    (["find"], 0),
    (["find", "counter", "--json"], 0),
    (["info", "counter"], 0),
    (["version"], 0),
    (["version", "counter"], 0),
    (["--print", "completions", "--", "info", ""], 0),
    (["--print", "completions", "--", "subscribe", "counter", ""], 0),
    (["doctor", "counter"], ANY),
    (["doctor"], ANY),
    (["send", "counter", "--text", "hello"], REFUSED),
]
COUNT = 20


class Stream(LumoraCase):
    def setUp(self):
        log = self.folder() / "log"
        self.counter = self.device(
            "counter", "--service", "number", "--exec", f"echo >>{log}; wc -l <{log}", "--every", "0.05"
        )
        self.stream = self.start("subscribe", "counter", "number", "--json")

    def received(self):
        return int(json.loads(self.stream.line())["text"])

    def test_loses_nothing_while_others_look(self):
        numbers = [self.received()]
        for i in range(COUNT):
            words, code = LOOKS[i % len(LOOKS)]
            with self.subTest(words):
                result = lumora(*words)
                if code is not ANY:
                    self.assertEqual(result.returncode, code, result)
                numbers.append(self.received())
        # The device ends first. The block that is under way at that moment may end with it.
        self.counter.end(signal.SIGTERM)
        self.stream.wait()
        numbers += [int(json.loads(line)["text"]) for line in self.stream.rest().splitlines()]
        self.assertEqual(numbers, list(range(1, len(numbers) + 1)))
        sent = [json.loads(line)["event"] for line in self.counter.rest().splitlines()].count("answer")
        self.assertIn(len(numbers), (sent, sent - 1))


if __name__ == "__main__":
    unittest.main()
