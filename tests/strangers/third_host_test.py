"""A stranger that asks for a data channel in the name of another host's node."""

import time

import stranger_case

PORT = 7000  # the device connects to the next one


class ThirdHost(stranger_case.StrangerCase):
    def test_is_not_connected_to(self):
        self.device()
        third = self.node(stranger_case.NEW_HOST)
        self.assertIsNotNone(third.line("added .* echo-device"))
        theirs = self.stranger("listen", str(PORT + 1), host=stranger_case.NEW_HOST)
        own = self.stranger("listen", str(PORT + 1))
        self.attack("set-up-as", "echo-device", "asking-node", str(PORT))
        # The device may connect to the host that asked. Then it has handled the request.
        end = time.monotonic() + 6
        while time.monotonic() < end and own.count("connected") + theirs.count("connected") < 2:
            time.sleep(0.1)
        self.is_equal("connections to the third host", theirs.count("connected"), 0)
        print(f"    connections to the stranger itself: {own.count('connected')}")
        self.node_finds(third, "echo-device", "afterwards", ["10.77.0.2"])
        self.node_is_answered(third, "afterwards", seconds=6)


if __name__ == "__main__":
    stranger_case.main()
