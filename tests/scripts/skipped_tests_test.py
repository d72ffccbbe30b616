"""scripts/lib/skipped_tests.py on a report of the real ctest: skipped_tests_test.py SCRIPT CTEST."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT, CTEST = sys.argv[1:3]

TESTS = """
add_test(by_code "sh" "-c" "echo needs '<root>' '&' more; exit 77")
set_tests_properties(by_code PROPERTIES SKIP_RETURN_CODE 77)
add_test(by_text "sh" "-c" "echo 'a.cpp:7: Skipped'; echo no address; echo '[  SKIPPED ] A.B (1 ms)'")
set_tests_properties(by_text PROPERTIES SKIP_REGULAR_EXPRESSION "SKIPPED")
add_test(silent "sh" "-c" "exit 77")
set_tests_properties(silent PROPERTIES SKIP_RETURN_CODE 77)
add_test(switched_off "true")
set_tests_properties(switched_off PROPERTIES DISABLED TRUE)
add_test(missing "/nowhere/program")
add_test(good "true")
"""

SKIPPED = """\
by_code was skipped: needs <root> & more
by_text was skipped: no address
silent was skipped: it gave no reason
switched_off was skipped: disabled
"""


class SkippedTests(unittest.TestCase):
    def test_are_named_with_their_reasons(self):
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "CTestTestfile.cmake").write_text(TESTS, encoding="utf-8")
            report = str(pathlib.Path(folder, "report.xml"))
            subprocess.run([CTEST, "--output-junit", report], cwd=folder, capture_output=True, check=False)
            said = subprocess.run([SCRIPT, report], capture_output=True, text=True, check=True).stdout
        self.assertEqual("".join(sorted(said.splitlines(True))), SKIPPED)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
