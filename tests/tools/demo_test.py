"""scripts/demo over programs that are built already: demo_test.py DEMO PROGRAMS."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

DEMO, PROGRAMS = sys.argv[1:3]
WAITS = "Another demo is running on this host"
LIMIT = 300


class Demo(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def start(self, *words):
        # A folder for temporary files of its own keeps demos of other users out.
        return subprocess.Popen(
            [DEMO, "--programs", PROGRAMS, *words],
            env={**os.environ, "TMPDIR": str(self.folder)},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        )

    def finish(self, demo):
        output, _ = demo.communicate(timeout=LIMIT)
        return demo.returncode, output

    def test_two_at_once_take_turns(self):
        results = [self.finish(demo) for demo in [self.start(), self.start()]]
        for code, output in results:
            self.assertEqual(code, 0, output)
            self.assertIn("All went well", output)
        self.assertEqual(sum(WAITS in output for _, output in results), 1)

    def test_a_picture_without_text_is_no_success(self):
        blank = self.folder / "blank.png"
        subprocess.run([f"{PROGRAMS}/render_page", str(blank)], input="", text=True, check=True)
        code, output = self.finish(self.start("--picture", str(blank)))
        self.assertEqual(code, 1, output)
        self.assertNotIn("All went well", output)
        self.assertIn("demo: the device found no text in blank.png", output.splitlines()[-1])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
