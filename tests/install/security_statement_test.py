#!/usr/bin/env python3
"""SECURITY.md rests on facts about how libcoap is used: they are held here. security_statement_test.py SOURCES"""
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(sys.argv[1])
SOURCES = {path: path.read_text(encoding="utf-8") for path in (ROOT / "platform" / "link").rglob("*.cpp")}


def files_with(pattern):
    return sorted(str(path.relative_to(ROOT)) for path, text in SOURCES.items() if re.search(pattern, text))


class SecurityStatement(unittest.TestCase):
    def test_that_sources_were_read(self):
        self.assertTrue(files_with(r"\bcoap_new_context\("))

    def test_that_oscore_is_not_used(self):
        self.assertEqual([], files_with(r"(?i)oscore"))

    def test_that_libcoap_assembles_no_blocks(self):
        self.assertEqual([], files_with(r"\bcoap_\w*block\w*\("))

    def test_that_messages_are_built_in_one_place(self):
        for name in ("coap_pdu_init", "coap_add_token", "coap_add_option", "coap_add_data", "coap_send"):
            self.assertEqual(["platform/link/io/coap_port.cpp"], files_with(rf"\b{name}\("), name)

    def test_that_each_report_is_judged(self):
        statement = (ROOT / "SECURITY.md").read_text(encoding="utf-8")
        for number in ("2023-30362", "2023-35862", "2024-0962", "2024-31031", "2024-46304"):
            self.assertRegex(statement, rf"\| CVE-{number} \|.*\|.*\|")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
