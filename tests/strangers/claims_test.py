"""A stranger that claims to be a device, from many of its ports, and answers nothing there."""

import presence_case
import stranger_case


class Claims(presence_case.PresenceCase):
    def newcomers_find_the_device(self, ports):
        self.device()
        attacking = self.stranger("claim", "echo-device", ports)
        for _ in range(4):
            self.newcomer_finds_the_device()
        self.assertIsNone(attacking.process.poll(), attacking.log)

    def test_from_closed_ports_hide_no_device(self):
        self.newcomers_find_the_device("closed")

    def test_from_silent_ports_hide_no_device(self):
        self.newcomers_find_the_device("silent")


if __name__ == "__main__":
    stranger_case.main()
