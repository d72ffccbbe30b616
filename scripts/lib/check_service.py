"""Checks lumora-hub.service on a host with systemd: scripts/check service runs this there, as root.

A device "sensor" with the service "value" is on another host of the same network.
"""
import contextlib
import http.client
import json
import pathlib
import ssl
import subprocess
import sys
import time

CHECK = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(CHECK))
import served  # noqa: E402

UNIT = "lumora-hub"
PORT = 8666
TOKEN = "0123456789abcdef-service"
LIMIT_S = 30
# What is promised of a hub that was killed.
BACK_S = 3
# Of 100. What is left is that it uses the network, netlink and local sockets.
EXPOSURE = 12
# A worker that crashes again and again is replaced later each time.
KILLS = {"lumora-hub": 5, "lumora-hub-work": 2}


class Address:
    """What served.WebSocket needs to know of a server."""

    port = PORT
    host = f"127.0.0.1:{PORT}"


def run(*words, fine=True):
    done = subprocess.run(words, capture_output=True, text=True, check=False)
    if fine and done.returncode != 0:
        raise AssertionError(f"{' '.join(words)}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout.strip()


def property_of(name):
    return run("systemctl", "show", "--property", name, "--value", UNIT)


def until(check, what):
    return served.until(check, LIMIT_S, what)


def expect(is_true, what):
    assert is_true, what
    print(f"ok  {what}", flush=True)


def connect(secure):
    if not secure:
        return http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
    # The certificate is its own authority.
    context = ssl.create_default_context(cafile=CHECK / "hub.pem")
    context.check_hostname = False
    return http.client.HTTPSConnection("10.78.0.1", PORT, timeout=10, context=context)


def get(path, secure=False, **headers):
    """(status, body); status 0 if there is no server."""
    connection = connect(secure)
    try:
        connection.request("GET", path, headers=headers)
        reply = connection.getresponse()
        return reply.status, reply.read()
    except OSError:
        return 0, b""
    finally:
        connection.close()


def device(**headers):
    """The sensor as the hub describes it; empty if it is not there."""
    status, body = get("/api/devices", **headers)
    listed = json.loads(body)["devices"] if status == 200 else []
    return next((one for one in listed if one["type"] == "sensor" and one["present"] and one["services"]), {})


def next_block(**headers):
    """A stream that has had a block; None if there is none yet."""
    with contextlib.suppress(OSError, EOFError):
        stream = served.WebSocket(Address, "/api/devices/sensor/services/value/stream", headers=headers)
        if stream.status == 101 and stream.block()[3].startswith(b"21.5"):
            return stream
        stream.close()
    return None


def read_to_the_end(stream):
    with contextlib.suppress(OSError, EOFError):
        while True:
            stream.block()


def processes():
    """Of the service, with their names."""
    group = pathlib.Path("/sys/fs/cgroup" + property_of("ControlGroup"), "cgroup.procs")
    numbers = group.read_text(encoding="ascii").split() if property_of("ControlGroup") and group.exists() else []
    return {int(one): pathlib.Path(f"/proc/{one}/comm").read_text(encoding="utf-8").strip() for one in numbers}


def status_of(process):
    lines = pathlib.Path(f"/proc/{process}/status").read_text(encoding="utf-8").splitlines()
    return {name: value.split() for name, _, value in (line.partition(":") for line in lines)}


def check_start():
    run("systemctl", "start", UNIT)
    expect(property_of("ActiveState") == "active", "the service starts, and says when it is ready")
    expect(get("/")[0] == 200, f"its page is at http://127.0.0.1:{PORT}/")
    until(device, "the device in the hub's list")
    expect(device()["address"] == "10.78.0.2", "a device of another host is found")
    until(next_block, "a block").close()
    print("ok  its blocks stream")
    run("systemd-analyze", "verify", "--man=no", f"{UNIT}.service")
    shown = run("systemd-analyze", "security", "--no-pager", f"--threshold={EXPOSURE}", UNIT)
    print("   ", shown.splitlines()[-1])


def check_rights():
    stream = until(next_block, "a block")
    found = processes()
    expect(sorted(found.values()) == ["lumora-hub", "lumora-hub-work"], "a hub and a worker run")
    for process in found:
        status = status_of(process)
        bare = status["Seccomp"] == ["2"] and status["NoNewPrivs"] == ["1"] and "0" not in status["Uid"]
        assert bare and int(status["CapEff"][0], 16) == 0, f"{process} has rights: {status}"
    print("ok  both run filtered, without capabilities, as a user of their own")
    stream.close()


def kill(name):
    """Kills a process of the service. The seconds until a consumer has a block again."""
    stream = until(next_block, "a block before the kill")
    process = next(number for number, known in processes().items() if known == name)
    run("kill", "-KILL", str(process))
    killed = time.monotonic()
    if name == "lumora-hub":
        read_to_the_end(stream)
        stream = until(next_block, "a block after the kill")
    else:
        until(lambda: name in processes().values() and process not in processes(), "another worker")
        replaced = time.time()
        until(lambda: stream.block()[2] / 1e6 > replaced, "a block of the other worker")
    took = time.monotonic() - killed
    stream.close()
    return took


def check_kills():
    for name, count in KILLS.items():
        times = [kill(name) for _ in range(count)]
        shown = " ".join(f"{one:.2f}" for one in times)
        expect(max(times) < BACK_S, f"{name} killed: blocks again after {shown} s")


def write(path, text, mode):
    path = pathlib.Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")
    path.chmod(mode)


def check_credentials():
    """As docs/hub.md tells: files that only root may read, named in a drop-in."""
    write("/etc/lumora/hub.token", TOKEN + "\n", 0o600)
    for name in ["hub.pem", "hub.key"]:
        write(f"/etc/lumora/{name}", (CHECK / name).read_text(encoding="ascii"), 0o600)
    run("lumora", "key", "new", "/etc/lumora/node.key", "hub-1")
    copies = f"/run/credentials/{UNIT}.service"
    write("/etc/lumora/hub.toml", f'listen = "0.0.0.0:{PORT}"\ntoken-file = "{copies}/hub.token"\n'
          f'certificate = "{copies}/hub.pem"\nkey = "{copies}/hub.key"\n', 0o644)
    loaded = [f"LoadCredential={name}:/etc/lumora/{name}" for name in ["hub.token", "hub.pem", "hub.key", "node.key"]]
    write(f"/etc/systemd/system/{UNIT}.service.d/override.conf",
          "\n".join(["[Service]", *loaded, "Environment=LUMORA_LINK_PSK_FILE=%d/node.key LUMORA_LINK_CHANNEL=require\n"]),
          0o644)
    run("systemctl", "daemon-reload")
    run("systemctl", "restart", UNIT)
    expect(get("/api/devices", secure=True)[0] == 401, "others reach it by TLS, and are refused without the token")
    right = {"Authorization": f"Bearer {TOKEN}"}
    expect(get("/api/devices", secure=True, **right)[0] == 200,
           "token, certificate and keys that only root may read reach the hub")
    run("rm", "-r", "/etc/lumora", f"/etc/systemd/system/{UNIT}.service.d")
    run("systemctl", "daemon-reload")


def check_wrong_options():
    write("/etc/lumora/hub.toml", "idel = 30\n", 0o644)
    run("systemctl", "restart", UNIT, fine=False)
    time.sleep(2)
    expect(property_of("ActiveState") == "failed", "a misspelt option is an error, and not tried again")
    expect("idel" in run("journalctl", "--boot", "--output", "cat", "--unit", UNIT), "the journal names it")
    run("rm", "-r", "/etc/lumora")
    run("systemctl", "reset-failed", UNIT)
    run("systemctl", "start", UNIT)


def check_journal():
    lines = [json.loads(line) for line in
             run("journalctl", "--boot", "--output", "json", "--unit", UNIT).splitlines()]
    come = [line for line in lines if str(line["MESSAGE"]).endswith("has come.")]
    expect(come and {line["PRIORITY"] for line in come} == {"6"}, "the journal tells which devices come")


def check_package():
    before = property_of("MainPID")
    run("dpkg", "--install", "/root/check/lumora-hub.deb")
    until(lambda: get("/healthz")[0] == 200, "the page after the upgrade")
    expect(property_of("MainPID") != before, "an upgrade restarts the service")
    run("systemctl", "enable", UNIT)
    stream = until(next_block, "a block")
    begin = time.monotonic()
    run("systemctl", "stop", UNIT)
    expect(time.monotonic() - begin < 5 and not processes(), "it stops with its workers")
    stream.close()
    run("systemctl", "start", UNIT)
    run("dpkg", "--purge", "lumora-hub")
    expect(property_of("ActiveState") != "active" and property_of("LoadState") == "not-found",
           "the package's end is that of the service")
    left = [str(path) for path in pathlib.Path("/etc").rglob("*lumora-hub*")]
    expect(not left, f"nothing is left in /etc {left or ''}")


def main():
    check_start()
    check_rights()
    check_kills()
    check_credentials()
    check_wrong_options()
    check_journal()
    check_package()


main()
