"""A stranger that asks in the name of addresses that no host has: the answers stay in the device's sockets."""

import time

import stranger_case

HOSTS = 100
SECONDS = 10


class Nowhere(stranger_case.StrangerCase):
    def test_holds_up_no_answer_to_others(self):
        self.device()
        client = self.connected_client()
        watching = self.node()
        self.assertIsNotNone(watching.line("added .* echo-device"))
        with stranger_case.Stream(self, client):
            self.stranger("ask-from-nowhere", "echo-device", HOSTS)
            end = time.monotonic() + SECONDS
            while time.monotonic() < end:
                self.command_is_answered(client, "meanwhile")
                self.device_is_found(client, "meanwhile")
                self.node_finds(watching, "echo-device", "meanwhile", ["10.77.0.2"])
        self.is_equal("removals", watching.count("removed .* echo-"), 0)


if __name__ == "__main__":
    stranger_case.main()
