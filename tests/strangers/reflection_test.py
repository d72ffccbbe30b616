"""A stranger that speaks in the name of another host's address, so that the answers go there."""

import time

import stranger_case

VICTIM = "10.77.0.5"
CROWD = 100
QUIET = 2.5  # seconds
LONGEST = 20
LONGEST_START = 60  # of the crowd


class Reflection(stranger_case.StrangerCase):
    def reflected(self, kind, device_type, count, rate):
        """Bytes that come for the third host, for each that the stranger sends."""
        victim = self.stranger("suffer", host=stranger_case.NEW_HOST)
        before = self.received(victim)
        sent = int(self.attack("forge", kind, device_type, VICTIM, count, rate))
        received = self.received_until_quiet(victim) - before
        print(f"    {kind}: {sent} bytes were sent, {received} came for the third host")
        return received / sent

    def received(self, victim):
        return int(victim.ask("", r"received (\d+)")[0][1])

    # A node that has said hello once is pinged when it has been silent for 1.65 s.
    def received_until_quiet(self, victim):
        last, since = self.received(victim), time.monotonic()
        end = since + LONGEST
        while time.monotonic() < min(end, since + QUIET):
            time.sleep(0.1)
            now = self.received(victim)
            if now != last:
                last, since = now, time.monotonic()
        return last

    def test_of_answers(self):
        self.device()
        client = self.connected_client()
        with stranger_case.Stream(self, client):
            for kind in ("service", "core"):
                ratio = self.reflected(kind, "echo-device", 4000, 1000)
                self.at_most(f"{kind}: bytes for each byte", ratio, 1)
                self.command_is_answered(client, f"after {kind}")
                self.device_is_found(client, f"after {kind}")

    def test_of_a_crowd(self):
        self.ready(
            self.start(stranger_case.DEVICE_HOST, "link_test_tool", "serve", "camera", CROWD, descriptors=8192)
        )
        watching = self.node()
        end = time.monotonic() + LONGEST_START
        while watching.count("added .* camera") < CROWD:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)
        ratio = self.reflected("hello", "camera", 1, 0)
        # Each node may ask the newcomer four times whether it is there.
        self.at_most("hello: bytes for each byte", ratio, 200)


if __name__ == "__main__":
    stranger_case.main()
