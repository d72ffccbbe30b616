#!/usr/bin/env -S python3 -B
"""Compares the bytes that docs/wire.md shows with those that tests/strangers/wire.py sends to real nodes."""
import pathlib
import re
import struct
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests" / "strangers"))
import wire  # noqa: E402

TEXT = (ROOT / "docs" / "wire.md").read_text(encoding="utf-8")
BYTES = re.compile(r"^ {4,}((?:[0-9a-f]{2} {1,2})+[0-9a-f]{2})( \.\.\.)?(?=\s|$)")
CAMERA = wire.Node("192.0.2.7", 40001, 0x00C0FFEE00C0FFEE, 1720000000, "camera")
TOKEN = bytes.fromhex("1122334455667700")


def shown(first_line):
    """The bytes of the block that begins with this line; '...' stands for the rest of the camera's link."""
    found = bytearray()
    for line in TEXT[TEXT.index("    " + first_line):].split("\n\n")[0].splitlines():
        row = BYTES.match(line)
        found += bytes.fromhex(row[1]) if row else b""
        if row and row[2]:
            start = found.rindex(b"\xff") + 1
            found[start:] = CAMERA.link()
    return bytes(found)


class Wire(unittest.TestCase):
    def expect(self, first_line, wanted, length=None):
        self.assertEqual(shown(first_line), wanted)
        if length:
            self.assertEqual(len(wanted), length)
            self.assertIn(f"{length} bytes", TEXT)

    def test_link(self):
        self.assertIn("\n    " + CAMERA.link().decode() + "\n", TEXT)

    def test_hello(self):
        self.expect("50 02 10 01", wire.hello(CAMERA, 0x1001), 100)

    def test_probe(self):
        options = [*wire.path(".well-known", "core"), (wire.URI_QUERY, b"rt=camera")]
        self.expect("58 01 20 01", wire.encode(wire.NON, wire.GET, 0x2001, TOKEN, options), 39)

    def test_answer(self):
        options = [(wire.CONTENT_FORMAT, wire.LINK_FORMAT)]
        self.expect("58 45 30 01", wire.encode(wire.NON, wire.CONTENT, 0x3001, TOKEN, options, CAMERA.link()), 95)

    def test_request(self):
        asker = wire.Node("192.0.2.8", 40002, 0xA1, 7)
        option = wire.requester(asker, 5, 5, 5, bytes.fromhex("9e3779b97f4a7c15"))
        token = bytes(range(1, 9))
        self.expect("48 01 40 01", wire.request(wire.GET, "ServiceInfo", 0x4001, token, b"{}", [option]), 72)

    def test_frames(self):
        self.expect("06  05 00", struct.pack("<BIB", 6, 5, 3) + b"hello")
        head = struct.pack("<BIBBBB", 13, 5, 2, 1, 3, 4) + b"face"
        self.assertEqual(len(head), 13)
        self.expect("0d  05 00", head + b"A cat")


if __name__ == "__main__":
    unittest.main()
