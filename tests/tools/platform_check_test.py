"""lumora-platform-check: that it finds nothing in our libraries, and each deviation of others."""

import concurrent.futures
import json
import os
import pathlib
import shutil
import subprocess
import unittest

from child_process import ChildProcess
from lumora_case import LIMIT, LumoraCase

PROGRAM = os.environ["LUMORA_PLATFORM_CHECK"]
PLATFORM = os.environ["LUMORA_PLATFORM"]
DEVIATING = os.environ["LUMORA_DEVIATING_PLATFORM"]

# What deviating_platform.c can do wrong, and the rule that it breaks. Those that do not hide each other are
# looked at in one go: a look takes seconds.
DEVIATIONS = [
    {
        "types by their beginning": "a search for a type with a character more finds nothing",
        "address by name": "GetAddress is an IPv4 address of the device's host",
        "cut replies": "a reply that does not fit makes Get fail",
        "delete never fails": "a handler's -1 makes DELETE fail",
        "post twice": "each of 100 requests from 4 threads is carried out once",
        "length with terminator": "POST takes a value of 3 bytes to its handler",
        "another record": "the handler is given the record that was registered",
        "no requester": "the handler is given the requester's address",
        "small buffer": "DoGET is given at least 1,024 bytes",
        "one request at a time": "one request waits for its handler while another is answered",
        "events after exit": "no event comes after Exit",
        "errno": "LogInfo leaves errno alone",
        "unbounded copy": "memcpy_s refuses a byte too many",
        "no terminator": "strncpy_s copies 39 characters into 40 bytes, and terminates them",
    },
    {"one handle": "GetLinkPlatform gives another handle at each call"},
    {"no search": "GetLinkPlatform gives a handle with six operations"},
    {"init fails": "Init succeeds"},
    {"finds one": "FindResource finds both devices at once"},
    {"search crashes": "FindResource finds both devices at once"},
    {"no port": "GetPort is the device's port"},
    {"whole chain released": "an element stays valid when the one before is released"},
    {"get never fails": "a handler's -1 makes Get fail"},
    {"late handlers": "Get takes the value there and the reply back"},
    {"no added events": "the coming of the first device is told, as it is found"},
    {"no removed events": "a device that leaves is told, as it was found"},
    {"another port in events": "the coming of the first device is told, as it is found"},
    {"exit hangs": "Exit succeeds in a device, and no handler runs after it"},
]


def check(*words, **options):
    return subprocess.run(
        [PROGRAM, *words], capture_output=True, text=True, timeout=2 * LIMIT, check=False, **options
    )


def check_deviating(deviations, *words):
    environment = {**os.environ, "DEVIATIONS": f";{';'.join(deviations)};", "REAL_PLATFORM": PLATFORM}
    return check(*words, DEVIATING, env=environment)


def report_on(deviations):
    """All three libraries are the deviating one."""
    words = ["--log-library", DEVIATING, "--securec-library", DEVIATING, "--json"]
    result = check_deviating(deviations, *words, *(["--limit", "6"] if "exit hangs" in deviations else []))
    return result, json.loads(result.stdout)


class OurLibraries(LumoraCase):
    def test_do_what_is_needed(self):
        result = check(PLATFORM)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        self.assertRegex(result.stdout, r"\n\d\d rules hold, 0 deviate\.\n$")
        for area in ["library", "handle", "search", "proxy", "get", "change", "threads", "events", "log", "securec"]:
            self.assertRegex(result.stdout, rf"(?m)^ok        {area} ")


@unittest.skipUnless(os.environ.get("LUMORA_PLATFORM_SKELETON"), "built without the examples")
class Skeleton(LumoraCase):
    """The example from which others begin a platform library of their own."""

    def test_keeps_every_rule(self):
        result = check(os.environ["LUMORA_PLATFORM_SKELETON"], "--thorough")
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        self.assertRegex(result.stdout, r"\n\d\d rules hold, 0 deviate\.\n$")

    def test_carries_a_device_and_a_client(self):
        folder = str(pathlib.Path(os.environ["LUMORA_PLATFORM_SKELETON"]).parent)
        environment = {**os.environ, "LD_LIBRARY_PATH": folder}
        programs = os.environ["LUMORA_EXAMPLES"]
        device = ChildProcess([programs + "/device"], env=environment)
        self.addCleanup(device.close)
        self.assertEqual(device.line(), "ready; Ctrl-C ends it")
        self.assertIn(folder, pathlib.Path(f"/proc/{device.process.pid}/maps").read_text(encoding="utf-8"))
        result = subprocess.run(
            [programs + "/client", "over another platform"],
            env=environment, capture_output=True, text=True, timeout=LIMIT, check=False,
        )
        self.assertEqual((result.returncode, result.stdout), (0, "echo: over another platform\n"), result)


class Deviations(LumoraCase):
    @unittest.skipIf(os.environ.get("LUMORA_SANITIZED"), "it mostly waits; the other builds do that")
    def test_each_is_found(self):
        with concurrent.futures.ThreadPoolExecutor(max_workers=1 + len(DEVIATIONS)) as pool:
            nothing = pool.submit(report_on, [])
            looks = list(zip(DEVIATIONS, pool.map(report_on, DEVIATIONS)))
        self.assertEqual(nothing.result()[1]["deviating"], 0, nothing.result())
        for deviations, (result, report) in looks:
            self.assertEqual((result.returncode, result.stderr), (1, ""), result)
            found = {one["rule"]: one for one in report["findings"] if one["result"] == "deviates"}
            self.assertEqual(len(found), report["deviating"], result)
            for name, rule in deviations.items():
                with self.subTest(name):
                    self.assertIn(rule, found)
                    self.assertTrue(found[rule]["expected"] and found[rule]["seen"], found[rule])

    def test_is_shown_with_what_was_expected_and_seen(self):
        result = check_deviating(["init fails"])
        self.assertEqual(result.returncode, 1)
        self.assertIn(
            "deviates  handle   Init succeeds\n"
            "                   expected: the result 0\n"
            "                   seen:     the result 7\n",
            result.stdout,
        )

    def test_crash_names_its_signal(self):
        _, report = report_on(["search crashes"])
        (found,) = [one for one in report["findings"] if one["result"] == "deviates"]
        self.assertIn("signal 6", found["seen"])

    def test_file_without_the_functions(self):
        libc = pathlib.Path("/proc/self/maps").read_text(encoding="utf-8").split("libc.so.6")[0].split()[-1]
        result = check("--json", libc + "libc.so.6")
        self.assertEqual(result.returncode, 1)
        self.assertIn("there is no GetLinkPlatform, no FreeLinkPlatform", json.loads(result.stdout)["findings"][0]["seen"])


class Words(LumoraCase):
    def assert_fails(self, result, code, *parts):
        self.assertEqual((result.returncode, result.stdout), (code, ""), result)
        self.assertRegex(result.stderr, r"^lumora-platform-check: .*\n$")
        for part in parts:
            self.assertIn(part, result.stderr)

    def test_help(self):
        result = check("--help")
        self.assert_succeeds(result)
        self.assertTrue(result.stdout.startswith("Usage: lumora-platform-check [OPTION...] LIBRARY\n"))
        for word in ["--thorough", "--limit SECONDS", "Exit codes:"]:
            self.assertIn(word, result.stdout)
        self.assertLessEqual(max(map(len, result.stdout.splitlines())), 100)

    def test_version(self):
        self.assertRegex(check("--version").stdout, r"^lumora-platform-check \d+\.\d+\.\d+\n$")

    def test_mistakes(self):
        self.assert_fails(check(), 2, "LIBRARY", "lumora-platform-check --help")
        self.assert_fails(check(PLATFORM, "--limit", "0"), 2, "1 to 3,600")
        self.assert_fails(check(PLATFORM, "--interface", "none9"), 2, '"none9"')
        self.assert_fails(check("/nowhere/liblumora.so"), 6, "/nowhere/liblumora.so cannot be read")
        self.assert_fails(check(PLATFORM, "--log-library", "none.so"), 6, "./none.so cannot be read")

    @unittest.skipUnless(shutil.which("man"), "needs man")
    def test_manual_page_has_no_faults(self):
        shown = subprocess.run(
            ["man", "--warnings", "-E", "UTF-8", "-l", "-"],
            input=check("--print", "man").stdout, capture_output=True, text=True, check=True,
            env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8"},
        )
        self.assertEqual(shown.stderr, "")
        self.assertIn("EXIT STATUS", shown.stdout)


if __name__ == "__main__":
    unittest.main()
