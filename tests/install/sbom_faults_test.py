#!/usr/bin/env python3
"""The check of the bill of materials finds each fault that is put in: sbom_faults_test.py CHECK FILE."""
import copy
import json
import subprocess
import sys
import tempfile
import unittest

CHECK, FILE = sys.argv[1:3]
with open(FILE, encoding="utf-8") as file:
    DOCUMENT = json.load(file)


class SbomFaults(unittest.TestCase):
    def result(self, change, *expected):
        document = copy.deepcopy(DOCUMENT)
        change(document)
        with tempfile.NamedTemporaryFile("w", suffix=".json") as changed:
            json.dump(document, changed)
            changed.flush()
            return subprocess.run([CHECK, changed.name, *expected], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL, check=False).returncode

    def test_of_the_file_as_it_is(self):
        self.assertEqual(0, self.result(lambda document: None))

    def test_of_missing_members(self):
        for name in DOCUMENT:
            with self.subTest(name):
                self.assertNotEqual(0, self.result(lambda document, name=name: document.pop(name)))

    def test_of_a_library_whose_version_is_unknown(self):
        self.assertNotEqual(0, self.result(lambda document: document["packages"][1].update(versionInfo="")))

    def test_of_a_library_without_a_relationship(self):
        self.assertNotEqual(0, self.result(lambda document: document["relationships"].pop()))

    def test_of_a_relationship_that_leads_nowhere(self):
        self.assertNotEqual(0, self.result(lambda document: document["packages"].pop()))

    def test_of_another_version_than_the_one_that_was_found(self):
        self.assertNotEqual(0, self.result(lambda document: None, "cJSON=0.0.1"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
