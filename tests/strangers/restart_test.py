"""A stranger that says hello as if a device and a client had been started again on its host."""

import time

import presence_case
import stranger_case


class Restart(presence_case.PresenceCase):
    def test_replaces_no_node(self):
        self.nodes_stay("restart")


class Move(stranger_case.StrangerCase):
    def test_to_another_address_is_announced(self):
        self.device()
        watching = self.node()
        self.assertIsNotNone(watching.line("added 10.77.0.2:.* echo-device"))
        device = self.host(stranger_case.DEVICE_HOST)
        device.run("ip", "address", "delete", "10.77.0.2/24", "dev", "eth0")
        device.run("ip", "address", "add", "10.77.0.66/24", "dev", "eth0")
        begin = time.monotonic()
        self.is_true("it is announced", watching.line("added 10.77.0.66:.* echo-device", limit=10) is not None)
        self.within("its announcement", time.monotonic() - begin, 5.2)
        self.is_equal("removals of the former one", watching.count("removed 10.77.0.2:"), 1)


if __name__ == "__main__":
    stranger_case.main()
