#!/usr/bin/env python3
"""Compiles and runs what the documents show: documents_test.py SOURCES PROGRAMS LIBRARIES DOCUMENT...

A comment before a code block says what is done with it:
  <!-- examples/NAME -->  it is this file of the sources, word for word
  <!-- file NAME -->   it is a file, kept beside the others of its document
  <!-- run -->         commands, which must succeed
  <!-- start -->       a command that goes on; it is ready when it has printed a line
  <!-- run as root -->, <!-- start as root -->  the same, left out if this is not possible
  <!-- stop -->        ends what was started last, by the signal of Ctrl-C
  <!-- session -->     its first line is started, the others are run, and it is stopped
  <!-- prints -->      what the block before printed: these lines among others, in this order; ... stands for anything
A block of C, C++, Python or shell without such a comment is a fault. Blocks of other kinds are not looked at.
"""
import os
import pathlib
import re
import selectors
import signal
import subprocess
import sys
import tempfile

CODE = ("c", "cpp", "python", "sh")
MARK = re.compile(r"<!-- (examples/\S+|file \S+|run|start|session|run as root|start as root|stop|prints) -->$")
TIME_LIMIT = 120
OWN_NAMES = "DOCUMENTS_TEST_OWN_NAMES"  # set if /run/netns is mounted for this process alone


class Fault(Exception):
    pass


def steps(text):
    """(line, mark, kind, content) of each block; of a mark that needs none, kind and content are empty."""
    mark, number, lines = None, 0, iter(enumerate(text.splitlines(), 1))
    for number, line in lines:
        fence = re.match(r"```(\w*)$", line)
        found = MARK.match(line)
        if found and found.group(1) == "stop":
            yield number, "stop", "", ""
        elif found:
            mark = found.group(1)
        elif fence:
            content = []
            for _, inner in lines:
                if inner == "```":
                    break
                content.append(inner)
            if mark is None and fence.group(1) in CODE:
                raise Fault(f"line {number}: a block of {fence.group(1)} that is not run")
            if mark is not None:
                yield number, mark, fence.group(1), "\n".join(content) + "\n"
            mark = None
        elif line.strip() and mark:
            raise Fault(f"line {number}: no block follows the mark")


def require_lines(expected, printed):
    """Each expected line, in order, somewhere in what was printed."""
    rest = iter(printed.splitlines())
    for line in expected.splitlines():
        if line.strip() in ("", "..."):
            continue
        pattern = re.compile(".*".join(re.escape(part) for part in line.strip().split("...")))
        if not any(pattern.fullmatch(other.strip()) for other in rest):
            raise Fault(f'"{line}" is not what was printed:\n{printed}')


class Started:
    """A command that goes on, in a group of its own, so that its end reaches all that it started."""

    def __init__(self, commands, folder, environment):
        self.output = b""
        self.process = subprocess.Popen(["bash", "-euo", "pipefail", "-c", commands], cwd=folder, env=environment,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, start_new_session=True)
        with selectors.DefaultSelector() as selector:
            selector.register(self.process.stdout, selectors.EVENT_READ)
            while b"\n" not in self.output:
                if not selector.select(TIME_LIMIT):
                    raise Fault(f"it printed nothing: {commands}")
                chunk = os.read(self.process.stdout.fileno(), 4096)
                if not chunk:
                    raise Fault(f"it has ended: {commands}")
                self.output += chunk

    def stop(self, number=signal.SIGINT):
        if self.process.poll() is None:
            os.killpg(self.process.pid, number)
        rest, _ = self.process.communicate(timeout=TIME_LIMIT)
        return (self.output + rest).decode()


class Document:
    def __init__(self, sources, name, folder, environment):
        self.sources, self.path = pathlib.Path(sources), pathlib.Path(sources, name)
        self.folder, self.environment = pathlib.Path(folder), environment
        self.printed = ""
        self.started = []

    def run(self):
        try:
            for number, mark, _, content in steps(self.path.read_text()):
                try:
                    self.step(mark, content)
                except Fault as fault:
                    raise Fault(f"line {number}: {fault}") from None
        finally:
            for started in self.started:
                started.stop(signal.SIGKILL)

    def step(self, mark, content):
        verb, *rest = mark.split()
        if verb.startswith("examples/"):
            if content != (self.sources / verb).read_text():
                raise Fault(f"this is not what {verb} says: copy the file's text")
            (self.folder / verb).parent.mkdir(parents=True, exist_ok=True)
            (self.folder / verb).write_text(content)
        elif verb == "file":
            (self.folder / rest[0]).write_text(content)
        elif rest and not os.environ.get(OWN_NAMES):
            self.printed = None
        elif verb == "run":
            self.execute(content)
        elif verb == "start":
            self.started.append(Started(content, self.folder, self.environment))
            self.printed = self.started[-1].output.decode()
        elif verb == "session":
            first, _, others = content.partition("\n")
            for part, commands in (("start", first), ("run", others), ("stop", "")):
                self.step(part, commands)
        elif verb == "stop" and self.started:
            self.printed = self.started.pop().stop()
        elif verb == "prints" and self.printed is not None:
            require_lines(content, self.printed)

    def execute(self, commands):
        result = subprocess.run(["bash", "-euo", "pipefail", "-c", commands], cwd=self.folder, env=self.environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                timeout=TIME_LIMIT, check=False)
        self.printed = result.stdout.decode()
        if result.returncode != 0:
            raise Fault(f"exit code {result.returncode}:\n{commands}{self.printed}")


def environment_for(sources, programs, libraries, folder):
    """As if this build were installed."""
    (folder / "lumora.pc").write_text(
        "Name: lumora\nDescription: this build\nVersion: 0\n"
        f"Cflags: -I{sources}/include\nLibs: -L{libraries} -Wl,-rpath-link,{libraries} -llumora_cpp\n")
    environment = {name: value for name, value in os.environ.items() if not name.startswith("LUMORA_")}
    environment.update(PATH=f"{programs}:{os.environ['PATH']}", PKG_CONFIG_PATH=str(folder), PYTHONUNBUFFERED="1",
                       PYTHONPATH=f"{sources}/python", LD_LIBRARY_PATH=libraries, LUMORA_LINK_INTERFACE="lo",
                       LUMORA_LOG_LEVEL="3")
    return environment


def take_own_names():
    """Runs the test again with a /run/netns of its own, if it may."""
    inside = ["unshare", "--mount", "--propagation", "private", "bash", "-euc",
              'mkdir -p /run/netns; mount -t tmpfs none /run/netns; ip netns add try; ip netns delete try; exec "$@"',
              "_"]
    if os.environ.get(OWN_NAMES):
        return
    if os.geteuid() == 0 and subprocess.run([*inside, "true"], check=False).returncode == 0:
        os.execvp(inside[0], [*inside, "env", OWN_NAMES + "=yes", sys.executable, "-B", *sys.argv])
    print("no network namespaces here: what needs them is left out")


def main():
    take_own_names()
    sources, programs, libraries, *documents = sys.argv[1:]
    faults = 0
    for name in documents:
        with tempfile.TemporaryDirectory() as folder:
            environment = environment_for(sources, programs, libraries, pathlib.Path(folder))
            try:
                Document(sources, name, folder, environment).run()
                print(f"{name}: all that it shows works")
            except Fault as fault:
                print(f"{name}, {fault}")
                faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
