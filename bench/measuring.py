"""What bench/compare and bench/waits share: building, a network of their own, and peers as processes."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
TIME_LIMIT_S = 120
INSIDE = "LUMORA_BENCH_INSIDE"
CONGESTION_CONTROL = pathlib.Path("/proc/sys/net/ipv4/tcp_congestion_control")


def die(message):
    sys.exit(f"{pathlib.Path(sys.argv[0]).name}: {message}")


def add_options(parser, name):
    parser.add_argument("--quick", action="store_true", help="one short round of less, to see that all of it runs")
    parser.add_argument("--build", help="folder of a build that has the benches; nothing is installed or built")
    parser.add_argument("--out", default=str(ROOT / "out" / name), help="file for the JSON lines")


def programs(options):
    """The folder with the programs, built if need be."""
    folder = pathlib.Path(options.build) if options.build else ROOT / "build" / "bench"
    if not options.build and INSIDE not in os.environ:
        build(folder)
    return folder.resolve() / "bin"


def build(folder):
    if subprocess.run([str(ROOT / "scripts" / "setup"), "--bench"], stdout=sys.stderr).returncode != 0:
        die("what it needs could not be installed, see above")
    options = ["-DLUMORA_BUILD_BENCH=ON", "-DBUILD_TESTING=OFF", "-DLUMORA_BUILD_EXAMPLES=OFF"]
    steps = (["cmake", "--preset", "release", "-B", str(folder), *options], ["cmake", "--build", str(folder)])
    for step in steps:
        done = subprocess.run(step, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, cwd=ROOT)
        if done.returncode != 0:
            die(f"the build failed:\n{done.stdout}")


def enter_own_network():
    """Starts this program again in a namespace with nothing but loopback."""
    if INSIDE in os.environ:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        choose_congestion_control()
        return
    if subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL).returncode == 0:
        os.environ[INSIDE] = "1"
        os.execvp("unshare", ["unshare", "-n", sys.executable, *sys.argv])
    print("no network namespace here: measuring on the host's loopback", file=sys.stderr)


def choose_congestion_control():
    """What devices use. One that paces, as some hosts have by default, would measure its timers."""
    for name in ("cubic", "reno"):  # alike if nothing is lost; a namespace may not be allowed the first
        try:
            CONGESTION_CONTROL.write_text(name)
            return
        except OSError:
            continue


def machine():
    """What the figures are worth: processor, cores, kernel, and who is compared."""
    models = [line.split(":")[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
              if line.startswith("model name")]
    query = ["dpkg-query", "-W", "-f", "${source:Package} ${source:Upstream-Version}, ", "libzmq3-dev", "libnng-dev",
             "cyclonedds-dev", "libmosquitto-dev"]
    libraries = subprocess.run(query, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    system = os.uname()
    return (f"{models[0] if models else system.machine}, {os.cpu_count()} cores, Linux {system.release}, "
            f"TCP {CONGESTION_CONTROL.read_text().strip()}, {libraries}{system.machine}")


class Peer:
    """A process that prints lines of JSON, and ends when its input does."""

    def __init__(self, command, environment=None, core=None):
        self.output = tempfile.TemporaryFile("w+")
        self.position = 0
        pin = None if core is None else lambda: os.sched_setaffinity(0, {core})
        quiet = dict(LUMORA_LINK_INTERFACE="lo", LUMORA_LOG_LEVEL="4")
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=self.output,
                                        env={**os.environ, **quiet, **(environment or {})}, preexec_fn=pin)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end_input()
        try:
            self.process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.output.close()

    def line(self):
        """The next line that it prints."""
        end = time.monotonic() + TIME_LIMIT_S
        while time.monotonic() < end:
            has_ended = self.process.poll() is not None  # asked first: its last line may come right before its end
            self.output.seek(self.position)
            text = self.output.readline()
            if text.endswith("\n"):
                self.position += len(text)
                return text
            if has_ended:
                die(f"{' '.join(self.process.args)} ended with {self.process.returncode}, see above")
            time.sleep(0.005)
        die(f"{' '.join(self.process.args)} did not answer in time")

    def figures(self):
        return json.loads(self.line())

    def end_input(self):
        if not self.process.stdin.closed:
            self.process.stdin.close()

    def last_figures(self):
        """What it prints when its input has ended."""
        return self.all_figures()[-1]

    def all_figures(self):
        """Everything that it has not yet been asked for, until it ends by itself."""
        self.end_input()
        if self.process.wait(timeout=TIME_LIMIT_S) != 0:
            die(f"{' '.join(self.process.args)} ended with {self.process.returncode}, see above")
        self.output.seek(self.position)
        lines = self.output.readlines()
        if not lines:
            die(f"{' '.join(self.process.args)} told no figures")
        return [json.loads(line) for line in lines]
