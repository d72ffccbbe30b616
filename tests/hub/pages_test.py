"""The manual page, the completions and the example of a configuration file say what lumora-hub's options are."""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

HUB = os.environ["LUMORA_HUB"]
MANUAL = os.environ["LUMORA_HUB_MANUAL"]
SOURCES = pathlib.Path(__file__).resolve().parents[2]
TEMPLATES = SOURCES / "hub/manual"
PAGES = SOURCES / "docs/generated/pages"
MADE = SOURCES / "docs/generated/hub"


def run(*words, text=None):
    return subprocess.run(words, input=text, capture_output=True, text=True, timeout=60, check=False)


def hub_with(text):
    """What the hub says of a configuration file. No face may start, so one option is always wrong."""
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder, "hub.toml")
        file.write_text(text, encoding="utf-8")
        return run(HUB, "--config", str(file), "--ports", "wrong")


def complete(*words):
    script = (f". {MADE / 'lumora-hub.bash'}\nCOMP_WORDS=(lumora-hub \"$@\"); COMP_CWORD=$#\n"
              "compopt() { :; }\n_lumora_hub; printf '%s\\n' \"${COMPREPLY[@]}\"\n")
    return run("bash", "-c", script, "_", *words).stdout.split()


class Pages(unittest.TestCase):
    def test_are_what_the_program_says(self):
        for made, words in [(PAGES / "lumora-hub.1", ["man", TEMPLATES / "lumora-hub.1.in"]),
                            (MADE / "lumora-hub.bash", ["bash", TEMPLATES / "lumora-hub.bash.in"]),
                            (MADE / "_lumora-hub", ["zsh", TEMPLATES / "_lumora-hub.in"]),
                            (MADE / "hub.toml", ["toml"])]:
            with self.subTest(made.name):
                written = made.read_text(encoding="utf-8")
                self.assertEqual(written, run(MANUAL, *words).stdout, "the target lumora_hub_pages writes it anew")

    def test_the_manual_page_has_each_option_of_help(self):
        page = (PAGES / "lumora-hub.1").read_text(encoding="utf-8").replace("\\-", "-")
        options = re.findall(r"--[a-z-]+", run(HUB, "--help").stdout)
        self.assertIn("--token-file", options)
        for option in options:
            self.assertIn(f"\n\\fB{option}\\fR", page)

    @unittest.skipUnless(shutil.which("man"), "needs man")
    def test_the_manual_page_has_no_faults(self):
        for name in ["lumora-hub.1", "lumora-hub-worker.1"]:
            result = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", f"man1/{name}"], capture_output=True,
                                    text=True, check=False, cwd=self.manual_folder(), env={**os.environ, "MANWIDTH": "80"})
            self.assertEqual((result.stderr, result.returncode), ("", 0))
            self.assertIn("LUMORA-HUB(1)", result.stdout)

    def manual_folder(self):
        """Laid out as man expects it, for the page that leads to the other."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        pathlib.Path(folder.name, "man1").symlink_to(PAGES)
        return folder.name


class Completions(unittest.TestCase):
    def test_bash_offers_options(self):
        self.assertEqual(complete("--mqtt-pa"), ["--mqtt-password-file"])

    def test_bash_offers_files_for_a_file_and_nothing_for_a_number(self):
        self.assertEqual(complete("--config", str(MADE / "hub.t")), [str(MADE / "hub.toml")])
        self.assertEqual(complete("--idle", ""), [])

    @unittest.skipUnless(shutil.which("zsh"), "needs zsh")
    def test_zsh_reads_its_script(self):
        result = run("zsh", "-n", str(MADE / "_lumora-hub"))
        self.assertEqual((result.stderr, result.returncode), ("", 0))


class ConfigurationFile(unittest.TestCase):
    def test_of_the_example_has_only_options_that_the_hub_knows(self):
        example = (MADE / "hub.toml").read_text(encoding="utf-8")
        options = re.findall(r"^#(\w[\w-]* = .*)$", example, re.M)
        self.assertGreater(len(options), 20)
        result = hub_with("\n".join(option for option in options if not option.startswith("ports")))
        self.assertIn("--ports takes", result.stderr)
        self.assertEqual(2, result.returncode)

    def test_with_a_misspelt_option_is_refused_with_a_code_of_its_own(self):
        result = hub_with("idel = 30\n")
        self.assertIn("idel", result.stdout + result.stderr)
        self.assertEqual(2, result.returncode)

    def test_help_is_no_mistake(self):
        self.assertEqual(0, run(HUB, "--help").returncode)


if __name__ == "__main__":
    unittest.main(verbosity=2)
