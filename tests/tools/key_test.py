"""lumora key: the files of keys, what doctor says of them, and a device that runs with them."""

import json
import os
import pathlib
import stat
import time
import unittest

from lumora_case import LumoraCase, lumora


class KeyCase(LumoraCase):
    def setUp(self):
        self.path = str(self.folder() / "keys")

    def write(self, text, mode=0o600):
        pathlib.Path(self.path).write_text(text)
        os.chmod(self.path, mode)

    def text(self):
        return pathlib.Path(self.path).read_text()

    def key(self, action, *words):
        return lumora("key", action, self.path, *words)

    def shown(self):
        return json.loads(lumora("--json", "key", "show", self.path).stdout)


class Files(KeyCase):
    def test_new_makes_one_random_key_for_its_owner_only(self):
        before = os.umask(0)
        try:
            self.assert_succeeds(self.key("new", "camera-1"))
        finally:
            os.umask(before)
        first = self.text()
        self.assertRegex(first, r"\Acamera-1:[0-9a-f]{64}\n\Z")
        self.assertEqual(stat.S_IMODE(os.stat(self.path).st_mode), 0o600)
        self.assert_fails(self.key("new", "camera-1"), 6, self.path, "File exists")
        self.assertEqual(self.text(), first)
        os.unlink(self.path)
        self.assert_succeeds(self.key("new", "camera-1"))
        self.assertNotEqual(self.text(), first)
        self.assertEqual(os.listdir(os.path.dirname(self.path)), ["keys"])

    def test_a_key_goes_from_a_devices_file_to_that_of_a_client(self):
        device = os.path.join(os.path.dirname(self.path), "device")
        self.assert_succeeds(lumora("key", "new", device, "camera-1"))
        self.assert_succeeds(self.key("new", "client"))
        self.assert_succeeds(self.key("add", "camera-1", "--from", device))
        self.assertEqual(self.text().splitlines()[1], pathlib.Path(device).read_text().strip())
        self.assert_fails(self.key("add", "camera-1", "--from", device), 6, 'has a key "camera-1" already')
        self.assert_fails(self.key("add", "camera-2", "--from", device), 6, 'has no key "camera-2"')

    def test_changes_leave_the_rest_of_the_file_alone(self):
        self.write("# hall\none:1\n\n# expires 2999-12-31\n# door\ntwo:2\nthree:3\n")
        self.assert_succeeds(self.key("use", "two"))
        self.assertEqual(self.text(), "# hall\n# expires 2999-12-31\ntwo:2\none:1\n\n# door\nthree:3\n")
        self.assert_succeeds(self.key("revoke", "two"))
        self.assertEqual(self.text(), "# hall\none:1\n\n# door\nthree:3\n")
        self.assert_succeeds(self.key("add", "four", "--expires", "2999-01-02"))
        self.assertRegex(self.text(), r"three:3\n# expires 2999-01-02\nfour:[0-9a-f]{64}\n\Z")
        self.assertEqual(stat.S_IMODE(os.stat(self.path).st_mode), 0o600)

    @unittest.skipIf(os.geteuid() != 0, "only root may give files away")
    def test_a_changed_file_keeps_its_owner(self):
        self.write("one:1\n")
        os.chown(self.path, 1234, 1234)
        self.assert_succeeds(self.key("add", "two"))
        self.assertEqual((os.stat(self.path).st_uid, os.stat(self.path).st_gid), (1234, 1234))

    def test_show_tells_all_but_the_keys(self):
        self.write("# expires 1999-12-31\nold:geheim\nnew:geheim\n# expires 2999-12-31\nlast:geheim\n")
        result = self.key("show")
        self.assert_succeeds(result)
        self.assertNotIn("geheim", result.stdout)
        self.assertEqual(
            [line.split() for line in result.stdout.splitlines()[1:]],
            [["old", "expired", "1999-12-31"], ["new", "own"], ["last", "accepted", "until", "2999-12-31"]],
        )
        self.assertEqual(self.shown(), [
            {"identity": "old", "own": False, "valid": False, "lastDay": "1999-12-31"},
            {"identity": "new", "own": True, "valid": True},
            {"identity": "last", "own": False, "valid": True, "lastDay": "2999-12-31"},
        ])

    def test_what_cannot_be(self):
        self.assert_fails(self.key("show"), 6, "No such file")
        self.write("one:1\n")
        self.assert_fails(self.key("revoke", "one"), 6, "would have no key left")
        self.assert_fails(self.key("revoke", "two"), 6, 'has no key "two"')
        self.assert_fails(self.key("use", "two"), 6, 'has no key "two"')
        for identity in ["", "a b", "a:b", "#a", "x" * 65, "ä"]:
            self.assert_fails(self.key("add", identity), 2)
        for words in [["frob", self.path, "x"], ["show", self.path, "x"], ["use", self.path, "one", "--from", "x"],
                      ["add", self.path, "x", "--expires", "2027-02-30"]]:
            self.assert_fails(lumora("key", *words), 2)
        self.assertEqual(self.text(), "one:1\n")
        self.write("one:1\ntwo\n")
        self.assert_fails(self.key("add", "three"), 6, "line 2 is not identity:key, 1 to 64 bytes each")
        self.write("one:1\n", 0o640)
        self.assert_fails(self.key("show"), 6, "is open to others than its owner", "chmod 600")
        os.unlink(self.path)
        os.mkdir(self.path)
        self.assert_fails(self.key("show"), 6, "is no file")


PREFERRED = ("ok", "data channels are private where the other end can do it")


class Doctor(KeyCase):
    def findings(self, **environment):
        result = lumora("--json", "doctor", "--listen", "0", env={**os.environ, **environment})
        return [(one["level"], one["text"]) for one in json.loads(result.stdout)["findings"] if one["area"] == "keys"]

    def of_file(self):
        return self.findings(LUMORA_LINK_PSK_FILE=self.path)

    def test_without_a_key(self):
        self.assertEqual(self.findings(), [("note", "no key: every host on the network may ask and command")])

    def test_of_a_good_file(self):
        self.assert_succeeds(self.key("new", "camera-1"))
        name = f'LUMORA_LINK_PSK_FILE: "{self.path}"'
        self.assertEqual(self.of_file(), [("ok", f"{name}: 1 key can be used"), PREFERRED])

    def test_of_the_private_channel(self):
        self.assertIn(
            ("fault", "LUMORA_LINK_CHANNEL=require needs a key; no node starts"),
            self.findings(LUMORA_LINK_CHANNEL="require"))
        self.assert_succeeds(self.key("new", "camera-1"))
        for mode, finding in [
            ("", PREFERRED),
            ("require", ("ok", "data channels are private")),
            ("plain", ("warning", "LUMORA_LINK_CHANNEL=plain: hosts on the way can read and change the data")),
            ("Plain", ("warning", "LUMORA_LINK_CHANNEL=Plain is not plain, prefer or require; require is used")),
        ]:
            found = self.findings(LUMORA_LINK_PSK_FILE=self.path, LUMORA_LINK_CHANNEL=mode)
            self.assertIn(finding, found)

    def test_of_others(self):
        name = f'LUMORA_LINK_PSK_FILE: "{self.path}"'
        missing = ("fault", f"{name} cannot be read; no node starts")
        self.assertEqual(self.of_file(), [missing])
        long = "k" * 16
        self.write(f"one:{long}\n", 0o604)
        self.assertIn(("fault", f"{name} is open to others than its owner; no node starts"), self.of_file())
        self.write("one\n")
        self.assertEqual(self.of_file(), [
            ("fault", f"{name}: line 1 is not identity:key, 1 to 64 bytes each; no node starts")])
        soon = time.strftime("%Y-%m-%d", time.gmtime(time.time() + 5 * 86400))
        self.write(f"# expires 1999-12-31\none:{long}\n# expires {soon}\ntwo:{long}\nthree:short\n")
        self.assertEqual(self.of_file(), [
            ("warning", 'the key "one" has expired; it is not used'),
            ("warning", 'the key "two" expires in less than 30 days'),
            ("warning", 'the key "three" has less than 16 bytes and may be guessed'),
            ("ok", f"{name}: 2 keys can be used"),
            PREFERRED,
        ])
        self.write(f"# expires 1999-12-31\none:{long}\n")
        self.assertIn(("fault", f"{name}: every key has expired; no node starts"), self.of_file())


class Devices(KeyCase):
    def with_key(self, path):
        return {**os.environ, "LUMORA_LINK_PSK_FILE": path}

    def test_only_holders_of_the_key_reach_a_device(self):
        other = self.path + ".other"
        self.assert_succeeds(self.key("new", "lamp-1"))
        self.assert_succeeds(lumora("key", "new", other, "lamp-1"))
        self.device("lamp", "--echo", env=self.with_key(self.path))
        self.assert_succeeds(lumora("ping", "lamp", "--count", "1", env=self.with_key(self.path)))
        for environment in [dict(os.environ), self.with_key(other)]:
            result = lumora("cmd", "lamp", "Hello", "--wait", "1", env=environment)
            self.assertNotEqual(result.returncode, 0, result)

    def test_the_data_channel_is_private_where_both_ends_can_do_it(self):
        self.assert_succeeds(self.key("new", "lamp-1"))
        self.device("lamp", "--echo", env=self.with_key(self.path))
        for mode, private in [("prefer", True), ("require", True), ("plain", False)]:
            environment = {**self.with_key(self.path), "LUMORA_LINK_CHANNEL": mode}
            result = lumora("--json", "ping", "lamp", "--count", "1", "--size", "1000000", env=environment)
            self.assert_succeeds(result)
            last = json.loads(result.stdout.splitlines()[-1])
            self.assertEqual((last["lost"], last["private"], last["peer"]), (0, private, "lamp-1" if private else ""))

    def test_doctor_tells_whether_the_data_channel_is_private(self):
        self.assert_succeeds(self.key("new", "lamp-1"))
        self.device("lamp", "--echo", env=self.with_key(self.path))
        for mode, finding in [
            ("prefer", ("ok", 'the data channel is private, by the key "lamp-1"')),
            ("plain", ("warning", "the data channel is plain: hosts on the way can read and change the data")),
        ]:
            environment = {**self.with_key(self.path), "LUMORA_LINK_CHANNEL": mode}
            result = lumora("--json", "doctor", "lamp", "--listen", "0", env=environment)
            found = [(one["level"], one["text"]) for one in json.loads(result.stdout)["findings"]]
            self.assertIn(finding, found)

    def test_a_device_that_requires_a_private_channel_refuses_others(self):
        self.assert_succeeds(self.key("new", "lamp-1"))
        environment = self.with_key(self.path)
        self.device("lamp", "--echo", env={**environment, "LUMORA_LINK_CHANNEL": "require"})
        plain = lumora("ping", "lamp", "--count", "1", env={**environment, "LUMORA_LINK_CHANNEL": "plain"})
        self.assertNotEqual(plain.returncode, 0, plain)
        self.assert_succeeds(lumora("ping", "lamp", "--count", "1", env=environment))


if __name__ == "__main__":
    unittest.main()
