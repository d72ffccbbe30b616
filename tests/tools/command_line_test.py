"""Words, help, manual and completions: what needs no network."""

import json
import os
import shutil
import subprocess
import unittest

from lumora_case import PROGRAM, SOURCES, LumoraCase, OnTerminal, lumora

COMMANDS = ["find", "info", "version", "cmd", "subscribe", "send", "ping", "shell", "serve", "record",
            "replay", "key", "doctor", "help"]
COMPLETIONS = SOURCES / "tools/lumora/manual"


class Help(LumoraCase):
    def test_names_every_command_and_exit_code(self):
        result = lumora("--help")
        self.assert_succeeds(result)
        for command in COMMANDS:
            self.assertRegex(result.stdout, rf"(?m)^  {command} ")
        for code in ["0", "1", "2", "3", "4", "5", "6", "128\\+N"]:
            self.assertRegex(result.stdout, rf"(?m)^  {code} ")

    def test_of_each_command_shows_how_it_is_used(self):
        for command in COMMANDS:
            with self.subTest(command):
                result = lumora(command, "--help")
                self.assert_succeeds(result)
                self.assertTrue(result.stdout.startswith(f"Usage: lumora {command} [OPTION...]"))
                self.assertIn("--interface", result.stdout)

    def test_keeps_to_the_width_of_a_page(self):
        for command in COMMANDS:
            lines = lumora(command, "--help").stdout.splitlines()
            self.assertLessEqual(max(map(len, lines)), 100, command)

    def test_command_shows_the_same(self):
        self.assertEqual(lumora("help").stdout, lumora("--help").stdout)
        self.assertEqual(lumora("help", "find").stdout, lumora("find", "--help").stdout)
        self.assert_fails(lumora("help", "fnid"), 2, "fnid", "did you mean find?")

    def test_short_options(self):
        self.assertIn("  -c, --count N ", lumora("subscribe", "--help").stdout)
        self.assert_fails(lumora("subscribe", "T", "S", "-c", "0"), 2, "1 to 1,000,000,000")

    def test_version_option(self):
        result = lumora("--version")
        self.assert_succeeds(result)
        self.assertRegex(result.stdout, r"^lumora \d+\.\d+\.\d+\n$")


class WrongWords(LumoraCase):
    def test_no_command(self):
        self.assert_fails(lumora(), 2, "lumora --help")

    def test_unknown_command(self):
        self.assert_fails(lumora("fnid"), 2, "unknown command fnid; did you mean find?", "lumora --help")
        self.assert_fails(lumora("subscrbe", "camera"), 2, "did you mean subscribe?")
        self.assertNotIn("did you mean", lumora("photograph").stderr)

    def test_unknown_option(self):
        self.assert_fails(lumora("find", "--wach"), 2, "--wach; did you mean --watch?", "lumora find --help")

    def test_missing_argument(self):
        self.assert_fails(lumora("subscribe", "camera"), 2, "SERVICE", "lumora subscribe --help")

    def test_one_argument_too_many(self):
        self.assert_fails(lumora("find", "camera", "reader"), 2, "reader")

    def test_values_out_of_their_bounds(self):
        for words, part in [
            (["subscribe", "T", "S", "--count", "0"], "1 to 1,000,000,000"),
            (["subscribe", "T", "S", "--count", "three"], "three"),
            (["subscribe", "T", "S", "--timeout", "-1"], "seconds"),
            (["subscribe", "T", "S", "--as", "octal"], "auto, text, hex, raw"),
            (["send", "T", "-", "--split", "6M"], "5,242,880"),
            (["send", "T", "-", "--split", "0"], "5,242,880"),
            (["send", "T", "-", "--split", "1.0001K"], "5,242,880"),
            (["send", "T", "-", "--split", "KiB"], "5,242,880"),
            (["ping", "T", "--size", "15"], "16 to 1,024,000"),
            (["replay", "F", "--speed", "nan"], "0 to 1,000,000"),
            (["replay", "F", "--speed", "1000001"], "0 to 1,000,000"),
            (["find", "--log", "loud"], "trace, detail, state, warning, error, off"),
        ]:
            with self.subTest(words):
                self.assert_fails(lumora(*words), 2, part, "--help")

    def test_values_that_only_the_command_understands(self):
        for words, part in [
            (["cmd", "T", "subscribe", "x"], "lumora subscribe"),
            (["cmd", "T", "unsubscribe", "x"], "lumora subscribe"),
            (["cmd", "T", "N" * 200, "P" * 201], "400"),
            (["cmd", "T" * 40, "N"], "39"),
            (["subscribe", "T", "S" * 40], "39"),
            (["subscribe", "T", "S", "--as", "raw", "--json"], "--as raw"),
            (["serve", "T"], "--service"),
            (["send", "T"], "--text"),
            (["send", "T", "--text", ""], "1 to 5,242,880"),
            (["send", "T", "-", "--lines", "--split", "1"], "--lines"),
            (["subscribe", "T"], "--all"),
            (["subscribe", "T", "S", "--all"], "--all"),
            (["subscribe", "T", "S", "--format", "%p", "--json"], "--format"),
            (["find", "T", "--address", "camera.local"], "camera.local"),
            (["find", "T", "--address", "127.0.0.1:99999"], "99999"),
            (["serve", "T", "--echo", "--exec", "cat"], "--echo"),
            (["serve", "T", "--service", "a:quic"], "a:quic"),
            (["serve", "T", "--service", "a:tcp:much"], "a:tcp:much"),
            (["serve", "T", *["--service", "s"] * 9], "1 to 8"),
        ]:
            with self.subTest(words):
                result = lumora(*words)
                self.assertEqual(result.returncode, 2, result)
                self.assertIn(part, result.stderr)

    def test_an_interface_that_is_not_there(self):
        self.assert_fails(lumora("find", "--interface", "lo,none9"), 2, '"none9"', "it has lo")

    def test_as_json(self):
        result = lumora("--json", "find", "--interface", "none9")
        self.assertEqual(result.returncode, 2)
        self.assertRegex(result.stderr, r'^\{"error":".*none9.*","exit":2\}\n$')

    def test_words_that_cannot_be_parsed_as_json(self):
        for words in [["fnid", "--json"], ["--json", "find", "--wach"], ["-j", "subscribe"]]:
            with self.subTest(words):
                result = lumora(*words)
                self.assertEqual((result.returncode, json.loads(result.stderr)["exit"]), (2, 2))


class Fields(LumoraCase):
    """What --json prints is what the pages say, and the other way round."""

    def setUp(self):
        self.documented = json.loads(lumora("--print", "fields").stdout)

    def paths(self, value, path=""):
        if isinstance(value, dict):
            inner = [self.paths(element, f"{path}.{key}".lstrip(".")) for key, element in value.items()]
            return set().union(*inner) if inner else set()
        if isinstance(value, list) and value and not isinstance(value[0], str):
            return set().union(*(self.paths(element, path + "[]") for element in value))
        return {path}

    def assert_documented(self, command, text, *others):
        printed = set().union(*(self.paths(json.loads(line)) for line in text.splitlines()))
        known = set(self.documented[command])
        self.assertEqual(printed - known, set())
        self.assertEqual(known - printed - set(others), set())

    def test_of_commands_that_look(self):
        self.device("camera", "--echo")
        watched = ["time", "event", *[field for field in self.documented["find"] if field.startswith("device.")]]
        self.assert_documented("find", lumora("find", "camera", "--json").stdout, *watched)
        devices = lumora("info", "camera", "--json").stdout
        self.assert_documented("info", devices, *[field for field in self.documented["info"] if field[0] != "["])
        self.assert_documented("version", lumora("version", "camera", "--json").stdout)
        self.assert_documented("doctor", lumora("doctor", "--json", "--listen", "0").stdout)

    def test_of_find_that_watches(self):
        watching = self.start("find", "camera", "--watch", "--json")
        self.device("camera", "--echo")
        looked = [field for field in self.documented["find"] if field.startswith("[]")]
        self.assert_documented("find", watching.line(), *looked)

    def test_of_clients(self):
        device = self.device("camera", "--echo")
        folder = str(self.folder())
        answers = ["--await", "echo", "--json"]
        text = lumora("send", "camera", "--text", "a", *answers).stdout
        other = lumora("send", "camera", "-", *answers, input="\0").stdout
        file = lumora("send", "camera", "--text", "a", *answers, "--out", folder).stdout
        self.assert_documented("send", text + other + file)
        self.assert_documented("ping", lumora("ping", "camera", "--count", "1", "--json").stdout, "milliseconds")
        taken = lumora("cmd", "camera", "Stop", "--json").stdout
        self.assert_documented("cmd", taken, "time", "service", "bytes", "text", "hex", "file")
        device.end()
        told = device.rest()
        self.assertEqual(self.paths(json.loads(told.splitlines()[0])) - set(self.documented["serve"]), set())

    @unittest.skipIf("without SQLite" in lumora("replay", "absent").stderr, "built without SQLite")
    def test_of_recordings(self):
        serving = self.device("camera", "--echo")
        path = str(self.folder() / "camera.rec")
        recording = self.start("record", path, "camera", "--again", "--json")
        begun = recording.line()
        serving.end()
        lost = recording.line()
        self.device("camera", "--echo")
        again = recording.line()
        self.assertEqual(recording.end(), 0)
        self.assert_documented("record", "\n".join([begun, lost, again, recording.rest()]))
        about = lumora("info", path, "--json").stdout
        self.assert_documented("info", about, *[field for field in self.documented["info"] if field[0] == "["])

    @unittest.skipIf("without SQLite" in lumora("replay", "absent").stderr, "built without SQLite")
    def test_of_replay(self):
        serving = self.device("camera", "--echo")
        path = str(self.folder() / "camera.rec")
        self.assert_succeeds(lumora("record", path, "camera", "--duration", "0.1"))
        serving.end()
        replay = self.start("replay", path, "--json")
        ready = replay.line()
        lumora("subscribe", "camera", "echo", "--timeout", "0.1")
        self.assertEqual(replay.wait(), 0)
        self.assert_documented("replay", ready + "\n" + replay.rest())

    def test_of_serve(self):
        device = self.start("--json", "serve", "camera", "--service", "s", "--exec", "cat", "--on-command", "false")
        ready = device.line()
        lumora("cmd", "camera", "Turn", "left")
        lumora("send", "camera", "--text", "hi", "--await", "s")
        device.end()
        self.assert_documented("serve", ready + "\n" + device.rest())


class Pages(LumoraCase):
    def test_those_with_the_sources_are_what_the_program_says(self):
        pages = {"lumora.1": ["man"]}
        pages.update({f"lumora-{command}.1": ["man", command] for command in COMMANDS})
        for name, words in pages.items():
            with self.subTest(name):
                written = (SOURCES / "docs/generated/pages" / name).read_text(encoding="utf-8")
                self.assertEqual(written, lumora("--print", *words).stdout, "the target lumora_pages writes it anew")

    def test_those_of_the_other_program_and_those_of_both(self):
        def platform_check(page):
            words = [os.environ["LUMORA_PLATFORM_CHECK"], "--print", page]
            return subprocess.run(words, capture_output=True, text=True, check=True).stdout

        both = lumora("--print", "markdown").stdout + platform_check("markdown")
        self.assertEqual((SOURCES / "docs/generated/cli.md").read_text(encoding="utf-8"), both)
        page = SOURCES / "docs/generated/pages/lumora-platform-check.1"
        self.assertEqual(page.read_text(encoding="utf-8"), platform_check("man"))

    @unittest.skipUnless(shutil.which("man"), "needs man")
    def test_manual_pages_have_no_faults(self):
        for command in [None, *COMMANDS]:
            with self.subTest(command):
                page = lumora("--print", "man", *([command] if command else [])).stdout
                shown = subprocess.run(
                    ["man", "--warnings", "-E", "UTF-8", "-l", "-"],
                    input=page, capture_output=True, text=True, check=True,
                    env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8"},
                )
                self.assertEqual(shown.stderr, "")
                self.assertRegex(shown.stdout, r"EXIT STATUS")

    def test_a_page_of_something_else(self):
        self.assert_fails(lumora("--print", "man", "nothing"), 2, "--print")


class BashCompletion(LumoraCase):
    def complete(self, *words):
        """The proposals for the last of the words."""
        script = (COMPLETIONS / "lumora.bash").read_text(encoding="utf-8") + (
            'COMP_WORDS=(lumora "$@"); COMP_CWORD=$#\n'
            "compopt() { :; }\n"  # there is nothing to set outside of a completion
            '_lumora; printf "%s\\n" "${COMPREPLY[@]}"\n'
        )
        path = os.path.dirname(PROGRAM) + ":" + os.environ["PATH"]
        result = subprocess.run(
            ["bash", "-s", "--", *words], input=script, capture_output=True, text=True, check=True,
            env={**os.environ, "PATH": path},
        )
        self.assertEqual(result.stderr, "")
        return result.stdout.split()

    def test_commands(self):
        self.assertEqual(self.complete("s"), ["subscribe", "send", "shell", "serve"])

    def test_commands_behind_options(self):
        self.assertEqual(self.complete("--json", "--interface", "lo", "doc"), ["doctor"])

    def test_options_of_a_command(self):
        self.assertEqual(self.complete("find", "--w"), ["--watch", "--wait"])

    def test_words_of_an_option(self):
        self.assertEqual(self.complete("subscribe", "T", "S", "--as", "h"), ["hex"])

    def test_interfaces(self):
        self.assertEqual(self.complete("find", "--interface", "l"), ["lo"])

    def test_files(self):
        proposals = self.complete("send", "T", str(SOURCES / "READ"))
        self.assertEqual(proposals, [str(SOURCES / "README.md")])

    def test_types_of_devices_and_their_services(self):
        self.device("camera", "--service", "picture", "--service", "sound")
        self.device("reader", "--echo")
        self.assertEqual(self.complete("cmd", ""), ["camera", "reader"])
        self.assertEqual(self.complete("info", "re"), ["reader"])
        self.assertEqual(self.complete("subscribe", "--count", "3", "camera", ""), ["picture", "sound"])
        self.assertEqual(self.complete("subscribe", "camera", "sound", "p"), ["picture"])
        self.assertEqual(self.complete("send", "camera", "-", "--await", "s"), ["sound"])
        self.assertEqual(self.complete("record", "new.rec", ""), ["camera", "reader"])
        self.assertEqual(self.complete("record", "new.rec", "camera", "p"), ["picture"])

    def test_a_name_from_the_network_is_no_code(self):
        self.device("$(id)", "--service", "a;b")
        self.assertEqual(self.complete("cmd", ""), ["\\$\\(id\\)"])
        self.assertEqual(self.complete("subscribe", "$(id)", ""), ["a\\;b"])

    def test_options_once_unless_they_are_repeated(self):
        self.assertEqual(self.complete("find", "--watch", "--wa"), ["--wait"])
        self.assertEqual(self.complete("serve", "T", "--service", "a", "--serv"), ["--service"])
        self.assertEqual(self.complete("find", "-w", "1", "--wa"), ["--watch"])

    def test_options_where_no_argument_is_left(self):
        self.assertIn("--watch", self.complete("find", "camera", ""))

    def test_commands_of_help(self):
        self.assertEqual(self.complete("help", "doc"), ["doctor"])

    def test_nothing_where_only_the_user_knows(self):
        self.assertEqual(self.complete("subscribe", "T", "S", "--count", ""), [])


@unittest.skipUnless(shutil.which("zsh"), "needs zsh")
class ZshCompletion(LumoraCase):
    def setUp(self):
        folder = self.folder()
        self.shell = OnTerminal("zsh", "-f", "-i", environment={"PS1": "", "HOME": str(folder)})
        self.addCleanup(self.shell.close)
        path = os.path.dirname(PROGRAM)
        self.shell.type(f"path=({path} $path) fpath=({COMPLETIONS} $fpath); autoload -U compinit; compinit -u -D\n")
        self.shell.type("echo rea''dy\n")
        self.shell.read_until("\nready")
        self.shell.text = ""

    def test_completes_a_command(self):
        self.shell.type("lumora doc\t")
        self.shell.read_until("tor")

    def test_lists_commands_with_what_they_do(self):
        self.shell.type("lumora se\t")
        self.shell.read_until("sends files, texts or lines to a device")

    def test_completes_an_option_of_a_command(self):
        self.shell.type("lumora subscribe T S --tim\t")
        self.shell.read_until("eout")

    def test_completes_a_word_of_an_option(self):
        self.shell.type("lumora subscribe T S --as h\t")
        self.shell.read_until("ex")

    def test_completes_a_file(self):
        self.shell.type(f"lumora send T {SOURCES}/READ\t")
        self.shell.read_until("ME.md")

    def test_completes_the_type_of_a_device(self):
        self.device("cam:1 $(id)", "--echo")
        self.shell.type("lumora info c\t")
        self.shell.read_until("am:1\\ \\$\\(id\\)")

    def test_script_is_sound(self):
        result = subprocess.run(
            ["zsh", "-n", COMPLETIONS / "_lumora"], capture_output=True, text=True, check=False
        )
        self.assertEqual((result.returncode, result.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
