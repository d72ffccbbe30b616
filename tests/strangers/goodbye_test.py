"""A stranger that says goodbye in the name of a device and of a client."""

import presence_case
import stranger_case


class Goodbye(presence_case.PresenceCase):
    def test_removes_no_node(self):
        self.nodes_stay("part")


if __name__ == "__main__":
    stranger_case.main()
