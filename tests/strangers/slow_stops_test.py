"""A stranger whose stream goes on in small pieces whenever the device stops its channel."""

import stranger_case

REQUESTS = 6


class SlowStops(stranger_case.StrangerCase):
    def test_leave_the_handlers_to_others(self):
        self.device()
        node = self.node()
        self.assertIsNotNone(node.line("added .* echo-device"))
        attacking = self.stranger("stop-slowly", "echo-device")
        # The first stop hands over what arrives, as after any goodbye.
        self.assertIsNotNone(attacking.line("stopped", limit=15), attacking.log)
        for _ in range(REQUESTS):
            self.node_finds(node, "echo-device", "meanwhile", ["10.77.0.2"])
            self.node_is_answered(node, "meanwhile", seconds=2.0)
        self.is_true("the stops went on", attacking.count("stopped") > 2, f"({attacking.count('stopped')})")


if __name__ == "__main__":
    stranger_case.main()
