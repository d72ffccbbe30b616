"""What hellos and goodbyes of a stranger must not do to nodes that are there."""

import time

import stranger_case

SECONDS = 8
LONGEST_SEARCH = 3


class PresenceCase(stranger_case.StrangerCase):
    def nodes_stay(self, attack):
        self.device()
        client = self.connected_client()
        watching = self.node()
        self.assertIsNotNone(watching.line("added .* echo-device"))
        self.assertIsNotNone(watching.line("added .* echo-client"))
        with stranger_case.Stream(self, client):
            attacking = self.stranger(attack, str(SECONDS), "echo-device", "echo-client")
            for _ in range(4):
                self.newcomer_finds_the_device()
            while attacking.line("done", limit=1) is None:
                self.node_finds(watching, "echo-device", "meanwhile", ["10.77.0.2"])
                self.node_is_answered(watching, "meanwhile")
                self.device_is_found(client, "meanwhile")
            self.over(attacking)
        self.is_equal("additions of the device and the client", watching.count("added .* echo-"), 2)
        self.is_equal("removals", watching.count("removed .* echo-"), 0)
        self.is_equal("removals that the client was told of", client.count(".*device removed"), 0)
        self.command_is_answered(client, "afterwards")

    # A newcomer hears the device or the stranger first, as it happens.
    def newcomer_finds_the_device(self):
        newcomer = self.node(stranger_case.NEW_HOST)
        newcomer.line("added .* echo-device", limit=2)
        begin = time.monotonic()
        found = ""
        while "10.77.0.2:" not in found and time.monotonic() - begin < LONGEST_SEARCH + stranger_case.SLACK:
            answer, _ = newcomer.ask("find echo-device", r"found \d+(.*)")
            found = answer[1] if answer else ""
        self.is_true("a newcomer finds the device", "10.77.0.2:" in found, found)
        newcomer.close()
