"""lumora doctor: what it sees, and what it says of it."""

import json
import os
import re
import shutil
import socket
import subprocess
import unittest

from lumora_case import SOURCES, LumoraCase, lumora

GROUP = "224.0.1.187"


def in_own_network():
    """Whether this network may be changed: no interfaces of other processes are in it."""
    return [name for _, name in socket.if_nameindex()] == ["lo"] and os.geteuid() == 0


class DoctorCase(LumoraCase):
    def findings(self, *words, listen="0", **environment):
        result = lumora("doctor", *words, "--json", "--listen", listen, env={**os.environ, **environment})
        report = json.loads(result.stdout)
        self.assertEqual(result.returncode, 1 if report["faults"] else 0)
        for level in ["fault", "warning"]:
            self.assertEqual(
                report[level + "s"], sum(finding["level"] == level for finding in report["findings"])
            )
        return report["findings"]

    def of(self, area, findings):
        return [(finding["level"], finding["text"]) for finding in findings if finding["area"] == area]


class HealthyHost(DoctorCase):
    def test_has_no_faults(self):
        findings = self.findings()
        self.assertIn(("ok", "lo, 127.0.0.1"), self.of("interfaces", findings))
        self.assertEqual(self.of("ports", findings), [("ok", "TCP port 6666 is free"), ("ok", "TCP port 6667 is free")])
        ((level, text),) = self.of("self-test", findings)
        self.assertEqual(level, "ok")
        self.assertIn("3 sent, 0 lost", text)
        self.assertNotIn("fault", {finding["level"] for finding in findings})

    def test_for_people(self):
        result = lumora("doctor", "--listen", "0")
        self.assert_succeeds(result)
        for area in ["Variables", "Keys", "Interfaces", "Multicast", "Ports", "Firewall", "Libraries", "Self-test over lo"]:
            self.assertRegex(result.stdout, rf"(?m)^{area}$")
        self.assertRegex(result.stdout, r"(?m)^  ok       lo, 127\.0\.0\.1$")
        for file in ["liblumora_cpp.so", "liblumora.so", "liblink_log.so", "libsecurec.so"]:
            self.assertRegex(result.stdout, rf"(?m)^  ok       {re.escape(file)}:\s+/")


class Variables(DoctorCase):
    def test_those_that_can_be_used(self):
        findings = self.findings(LUMORA_LINK_PORT="7000", LUMORA_LINK_PEERS="192.0.2.1, 192.0.2.2:7000")
        self.assertEqual(self.of("variables", findings), [("ok", "those that are set can be used")])
        self.assertIn(("ok", "UDP port 7000 of LUMORA_LINK_PORT is free"), self.of("ports", findings))

    def test_those_that_cannot(self):
        for name, value in [
            ("LUMORA_LINK_PORT", "70000"), ("LUMORA_LINK_PORT", "coap"), ("LUMORA_LINK_PORT", "0"),
            ("LUMORA_LINK_PEERS", "192.0.2.1,camera.local"), ("LUMORA_LINK_INTERFACE", "lo,none9"),
        ]:
            with self.subTest(value):
                ((level, text),) = self.of("variables", self.findings(**{name: value}))
                self.assertEqual(level, "fault")
                self.assertIn(name, text)

    def test_port_that_another_has(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("", 7000))
            findings = self.findings(LUMORA_LINK_PORT="7000")
        self.assertIn(("warning", "UDP port 7000 of LUMORA_LINK_PORT is taken"), self.of("ports", findings))
        self.assertEqual(self.of("self-test", findings)[0][0], "ok")


class Walk(DoctorCase):
    def test_to_a_device(self):
        self.device("camera", "--echo")
        told = self.of("device", self.findings("camera"))
        self.assertEqual([level for level, _ in told], ["ok"] * 3)
        self.assertIn("127.0.0.1", told[0][1])
        self.assertIn("1 service", told[1][1])
        self.assertIn("6667 from there", told[2][1])

    def test_to_a_device_that_is_not_there(self):
        ((level, text),) = self.of("device", self.findings("camera", "--wait", "0"))
        self.assertEqual((level, text), ("fault", 'no device of type "camera" was found'))

    def test_to_a_device_that_cannot_be_connected(self):
        self.device("camera", "--echo")
        listener = socket.create_server(("", 6666))
        self.addCleanup(listener.close)
        level, text = self.of("device", self.findings("camera"))[-1]
        self.assertEqual(level, "fault")
        self.assertIn("cannot be connected", text)

    def test_beside_a_client_that_is_connected(self):
        self.device("camera", "--echo")
        client = self.start("ping", "camera", "--count", "0")
        client.line()
        findings = self.findings("camera")
        holder = f"lumora, process {client.process.pid}"
        self.assertIn(
            ("note", f"TCP port 6667 is used by a running client of this host: {holder}"),
            self.of("ports", findings),
        )
        walk = self.of("device", findings)
        self.assertEqual([level for level, _ in walk], ["ok", "ok", "note"])
        self.assertIn("Not checked: TCP port 6666 there, and 6667 from there", walk[2][1])
        self.assertIn(holder, walk[2][1])
        self.assertEqual([finding for finding in findings if finding["level"] == "fault"], [])

    def test_beside_another_program_on_the_clients_port(self):
        self.device("camera", "--echo")
        listener = socket.create_server(("", 6667))
        self.addCleanup(listener.close)
        level, text = self.of("device", self.findings("camera"))[-1]
        self.assertEqual(level, "fault")
        self.assertIn(f"process {os.getpid()}", text)


class Peculiarities(DoctorCase):
    def test_names_a_vendors_files(self):
        foreign = os.environ.get("LUMORA_FOREIGN_LIBRARIES")
        if not foreign:
            self.skipTest("needs libraries that are not ours")
        result = lumora("doctor", "--json", "--listen", "0", env={**os.environ, "LD_LIBRARY_PATH": foreign})
        lines = self.of("libraries", json.loads(result.stdout)["findings"])
        for file in ["liblumora.so", "liblink_log.so", "libsecurec.so"]:
            (text,) = [text for _, text in lines if text.startswith(file)]
            self.assertIn(f"{file}: {foreign}/{file}", text)
            self.assertIn("a vendor's?", text)

    def test_hears_other_nodes(self):
        self.device("camera", "--echo")
        self.assertIn(("ok", "lo: joined, 1 node was heard"), self.of("multicast", self.findings(listen="1.7")))

    def test_self_test_has_ports_of_its_own(self):
        result = lumora("doctor", "--json", "--listen", "0", env={**os.environ, "LUMORA_LINK_PORT": "7000"})
        self.assertEqual(self.of("self-test", json.loads(result.stdout)["findings"])[0][0], "ok")

    def test_port_that_is_taken(self):
        listener = socket.create_server(("", 6666))
        self.addCleanup(listener.close)
        findings = self.findings()
        self.assertEqual(self.of("ports", findings)[0], ("warning", "TCP port 6666 is taken"))
        self.assertEqual(self.of("self-test", findings)[0][0], "note")

    def test_group_port_that_another_process_holds_alone(self):
        holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(holder.close)
        holder.bind(("", 5683))
        ((level, text), *_) = self.of("multicast", self.findings())
        self.assertEqual(level, "fault")
        self.assertIn("5683 cannot be joined: Address already in use", text)

    def test_interface_that_is_not_there(self):
        self.assert_fails(lumora("doctor", "--interface", "none9"), 2, '"none9"')


@unittest.skipUnless(in_own_network(), "needs a network that it may change")
class BrokenNetwork(DoctorCase):
    def ip(self, *words):
        subprocess.run(["ip", *words], check=True)

    def test_interface_that_is_down(self):
        self.ip("link", "set", "lo", "down")
        self.addCleanup(self.ip, "link", "set", "lo", "up")
        findings = self.findings()
        self.assertIn(("note", "lo is down: it is not used"), self.of("interfaces", findings))
        self.assertIn(
            ("fault", "no interface is up and has an IPv4 address"), self.of("interfaces", findings)
        )
        self.assertEqual(self.of("self-test", findings), [("note", "left out: lo is down")])

    @unittest.skipUnless(shutil.which("nft"), "needs nft")
    def test_firewall_that_the_documents_prescribe(self):
        text = (SOURCES / "docs/security.md").read_text(encoding="utf-8")
        rules = re.search(r"^ *table inet .*?^ {7}\}$", text, re.DOTALL | re.MULTILINE)[0]
        ours = "tcp dport { 6666, 6667 } accept\n udp dport { 5683, 7000 } accept\n iif lo accept\n"
        closed = f"table ip t {{ chain c {{ type filter hook input priority 0; policy drop;\n {ours} }}\n }}\n"
        other = "table ip t { chain c { type filter hook input priority 0\n tcp dport 22 drop\n }\n }\n"
        for allowed in [rules.replace("192.0.2.0/24", "127.0.0.0/8"), closed, other]:
            with self.subTest(allowed):
                subprocess.run(["nft", "-f", "-"], input=allowed, text=True, check=True)
                findings = self.findings()
                subprocess.run(["nft", "flush", "ruleset"], check=True)
                told = "the rules of nft drop something, but not what Lumora needs"
                self.assertEqual(self.of("firewall", findings), [("ok", told)])
                self.assertEqual(self.of("self-test", findings)[0][0], "ok")

    @unittest.skipUnless(shutil.which("nft"), "needs nft")
    def test_firewall_that_drops_multicast(self):
        rules = f"table ip t {{ chain c {{ type filter hook input priority 0\n ip daddr {GROUP} drop\n }}\n }}\n"
        subprocess.run(["nft", "-f", "-"], input=rules, text=True, check=True)
        self.addCleanup(subprocess.run, ["nft", "flush", "ruleset"], check=True)
        findings = self.findings()
        self.assertEqual(
            self.of("multicast", findings)[0], ("fault", "lo: what this host sends does not come back")
        )
        self.assertEqual(self.of("firewall", findings), [("warning", "1 rule of nft drops something")])
        self.assertEqual(self.of("self-test", findings), [("fault", "a device on lo is not found")])


if __name__ == "__main__":
    unittest.main()
