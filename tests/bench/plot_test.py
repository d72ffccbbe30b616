"""bench/plot: figures become charts that can be read and tables that are true. usage: plot_test.py BENCH/PLOT"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

PLOT = pathlib.Path(sys.argv.pop())
STREAM = {"placement": "one-core", "point": "up-65536", "round": 0, "mb_per_s": 300.0, "cpu_s_per_gb": 2.0,
          "frames_per_s": 5000.0, "sender_peak_kb": 1, "receiver_peak_kb": 2}
COMPARED = [{"machine": "a <small> machine"}, {**STREAM, "pipe": "lumora"},
            {**STREAM, "pipe": "tcp-framed", "mb_per_s": 400.0}]
WAITED = [{"what": "LUM_ConnectAiDevice", "value": 4.5, "unit": "ms"}]
TABLES = ("machine", "goals", "streams", "crowded", "pingpong", "paced", "paced-cpu", "private", "waits")
OPTIONAL = ("before", "journey")


class PlotTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = pathlib.Path(self.folder.name)
        self.document = self.path / "performance.md"
        self.document.write_text("".join(f"<!-- figures: {name} -->\nold\n<!-- end -->\n" for name in TABLES + OPTIONAL))

    def plot(self, compared=COMPARED, waited=WAITED, travelled=()):
        for name, lines in (("compare", compared), ("waits", waited), ("journey", travelled)):
            (self.path / name).write_text("".join(json.dumps(line) + "\n" for line in lines))
        command = [PLOT, "--compare", self.path / "compare", "--waits", self.path / "waits",
                   "--journey", self.path / "journey", "--document", self.document]
        return subprocess.run(command, stderr=subprocess.PIPE).returncode

    def charts(self):
        return {path.name: path.read_text() for path in (self.path / "generated" / "performance").iterdir()}

    def test_every_chart_is_well_formed(self):
        self.assertEqual(self.plot(), 0)
        self.assertEqual(len(self.charts()), 6)
        for svg in self.charts().values():
            self.assertTrue(xml.etree.ElementTree.fromstring(svg).tag.endswith("svg"))

    def test_the_same_figures_give_the_same_files(self):
        self.plot()
        before = self.charts(), self.document.read_text()
        self.plot()
        self.assertEqual((self.charts(), self.document.read_text()), before)

    def test_tables_hold_medians_and_ratios(self):
        self.plot(COMPARED + [{**line, "mb_per_s": line["mb_per_s"] / 3} for line in COMPARED[1:]])
        text = self.document.read_text()
        self.assertIn("| client to device, 64 KiB | 1 | 200 | 5,000 | 0.75 | - | - | - | - | - | 2.00 | 1.00 |", text)
        self.assertIn("| LUM_ConnectAiDevice | 4.50 ms |", text)
        self.assertEqual(text.count("old"), len(OPTIONAL))

    def test_an_older_build_stands_beside_this_one(self):
        self.plot(COMPARED + [{**STREAM, "pipe": "lumora-before", "mb_per_s": 200.0}])
        self.assertIn("| client to device, 64 KiB | 1 | 200 | 300 | 400 | - | 1.50 | 0.50 | 0.75 | - |",
                      self.document.read_text())

    def test_a_journey_has_a_column_for_each_step(self):
        self.plot(travelled=[{"what": f"lumora, 1 on the network: {step}", "value": value, "unit": "ms"}
                             for step, value in (("found", 3.0), ("first block", 26.0), ("found", 5.0))])
        text = self.document.read_text()
        self.assertIn("| Lumora, 1 on the network | 4.00 (3.00 to 5.00) | 26.0 (26.0 to 26.0) |", text)
        self.assertIn("| start of the process to the first block, 1 on the network | ≤ 25 ms | 26.0 |  | **no** |", text)

    def test_an_aim_that_is_missed_is_named(self):
        self.plot()
        self.assertIn("| 0.75 | up-65536, one core for both | **no** |", self.document.read_text())

    def test_a_document_without_a_place_for_a_table_is_refused(self):
        self.document.write_text("nothing\n")
        self.assertNotEqual(self.plot(), 0)

    def test_no_figures_are_an_error(self):
        self.assertNotEqual(self.plot(compared=[]), 0)


unittest.main()
