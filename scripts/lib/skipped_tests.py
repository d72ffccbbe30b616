#!/usr/bin/env python3
"""Prints which tests were skipped, and why, from a report of ctest: skipped_tests.py REPORT"""

import re
import sys
from xml.etree import ElementTree

NO_REASON = "it gave no reason"
# The lines of GoogleTest around the reason that a test gives.
FRAME = re.compile(r"\[[ =A-Z-]*\]|.*: Skipped$")


def reason(test):
    """The last line that the test itself wrote."""
    if test.get("status") == "disabled":
        return "disabled"
    lines = (test.findtext("system-out") or "").splitlines()
    own = [line.strip() for line in lines if line.strip() and not FRAME.match(line)]
    return own[-1] if own else NO_REASON


def is_skipped(test):
    """ctest counts a test whose program is missing as skipped. Here it is a failure."""
    skipped = test.find("skipped")
    asked = skipped is not None and skipped.get("message", "").startswith("SKIP_")
    return asked or test.get("status") == "disabled"


def main():
    for test in ElementTree.parse(sys.argv[1]).iter("testcase"):
        if is_skipped(test):
            print(f"{test.get('name')} was skipped: {reason(test)}")


if __name__ == "__main__":
    main()
