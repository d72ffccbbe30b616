"""What hellos and goodbyes of a stranger must not do to nodes that are there."""

import stranger_case

SECONDS = 8


class PresenceCase(stranger_case.StrangerCase):
    def nodes_stay(self, attack):
        self.device()
        client = self.connected_client()
        watching = self.node()
        self.assertIsNotNone(watching.line("added .* echo-device"))
        self.assertIsNotNone(watching.line("added .* echo-client"))
        with stranger_case.Stream(self, client):
            attacking = self.stranger(attack, str(SECONDS), "echo-device", "echo-client")
            self.node_finds(self.node(stranger_case.NEW_HOST), "echo-device", "a newcomer", ["10.77.0.2"])
            while attacking.line("done", limit=1) is None:
                self.node_finds(watching, "echo-device", "meanwhile", ["10.77.0.2"])
                self.node_is_answered(watching, "meanwhile")
                self.device_is_found(client, "meanwhile")
            self.over(attacking)
        self.is_equal("additions of the device and the client", watching.count("added .* echo-"), 2)
        self.is_equal("removals", watching.count("removed"), 0)
        self.is_equal("removals that the client was told of", client.count(".*device removed"), 0)
        self.command_is_answered(client, "afterwards")
