"""lumora_bench_journey: a client that gets no block ends with an error."""

import json
import os
import subprocess
import time
import unittest

from child_process import ChildProcess
from lumora_case import LumoraCase

JOURNEY = os.environ["LUMORA_BENCH_JOURNEY"]
LONGER_THAN_ITS_LIMIT_S = 60


class Journey(LumoraCase):
    def client(self):
        command = [JOURNEY, "client", "camera", "1", str(time.monotonic_ns())]
        return subprocess.run(command, capture_output=True, text=True, timeout=LONGER_THAN_ITS_LIMIT_S, check=False)

    def test_tells_each_step(self):
        device = ChildProcess([JOURNEY, "device", "camera", "1", "0"])
        self.addCleanup(device.close)
        self.assertEqual(device.line(), "ready")
        result = self.client()
        self.assertEqual(result.returncode, 0, result)
        steps = json.loads(result.stdout)
        self.assertEqual(steps.pop("found"), 1)
        self.assertEqual(list(steps.values()), sorted(steps.values()))

    def test_a_device_that_sends_no_block_is_an_error(self):
        self.device("camera", "--service", "bench")
        result = self.client()
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr.splitlines()[-1], "bench: the device sent no block within 5 s")


if __name__ == "__main__":
    unittest.main()
