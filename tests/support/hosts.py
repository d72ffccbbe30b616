"""Hosts on a bridge, each a network namespace."""

import os
import subprocess
import time

# Bounds a failing test only.
LIMIT = 60
MOST_HOSTS = 60


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def has_namespaces():
    return subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0


def eventually(condition, what):
    end = time.monotonic() + LIMIT
    while True:
        result = condition()
        if result or time.monotonic() > end:
            assert result, f"not within {LIMIT} s: {what}"
            return result
        time.sleep(0.05)


def make_bridge():
    run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
    run("ip", "link", "set", "br0", "up")


def remove_bridge():
    run("ip", "link", "delete", "br0")


def hardware_address(number):
    return f"02:00:0a:4d:00:{number:02x}"


class Host:
    """A network namespace with an address. The bridge is there."""

    def __init__(self, number):
        self.name = f"h{number}"
        # It ends with this process, however that ends.
        self.holder = subprocess.Popen(["unshare", "-n", "setpriv", "--pdeathsig", "KILL", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        eventually(lambda: os.readlink(self.namespace()) != own, "a namespace")
        self.address = f"10.77.0.{number}"
        run("ip", "link", "add", self.name, "type", "veth", "peer", "name", "eth0", "netns", str(self.holder.pid))
        run("ip", "link", "set", self.name, "master", "br0", "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "link", "set", "eth0", "address", hardware_address(number))
        self.run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self.run("ip", "link", "set", "eth0", "up")
        self.learn_neighbours()

    def learn_neighbours(self):
        """The kernel has one table of 1,024 neighbours for all namespaces together, which fifty hosts that know
        each other fill. Entries that are set by hand do not count."""
        lines = "".join(
            f"neighbour replace 10.77.0.{number} lladdr {hardware_address(number)} nud permanent dev eth0\n"
            for number in range(1, MOST_HOSTS + 1)
        )
        subprocess.run(self.command("ip", "-batch", "-"), input=lines, text=True, check=True)

    def namespace(self):
        return f"/proc/{self.holder.pid}/ns/net"

    def command(self, *words):
        return ["nsenter", f"--net={self.namespace()}", *words]

    def run(self, *words):
        run(*self.command(*words))

    def cut(self, is_cut):
        """Takes the host off the network, or puts it back."""
        run("ip", "link", "set", self.name, "down" if is_cut else "up")

    def move(self, address):
        """Gives the host another address, as a router does when a lease ends."""
        self.run("ip", "address", "flush", "dev", "eth0")
        self.address = address
        self.run("ip", "address", "add", f"{address}/24", "dev", "eth0")
        # The kernel forgets the neighbours with the address.
        self.learn_neighbours()

    def close(self):
        # The kernel takes its time to remove the interface of a namespace that has ended.
        run("ip", "link", "delete", self.name)
        self.holder.kill()
        self.holder.wait()
