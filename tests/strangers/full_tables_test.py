"""A stranger that sends so many requests that a device's tables are full of them."""

import stranger_case

RATE = 2000  # to the second: no more than a device can read
LENGTH_THAT_NEEDS_BLOCKS = 1000


class FullTables(stranger_case.StrangerCase):
    def fill(self, kind, count):
        device = self.device()
        client = self.connected_client()
        with stranger_case.Stream(self, client):
            flood = self.stranger("fill", kind, "echo-device", count, RATE)
            while flood.line("done", limit=0.3) is None:
                self.command_is_answered(client, "meanwhile")
            self.over(flood)
            self.command_is_answered(client, "afterwards")
            self.others_are_served("afterwards")
        named = [line for line in device.log if "10.77.0.3 has more than its share" in line]
        self.is_true("the device's log names the stranger", bool(named), named)

    # Nodes that the device has not heard of before.
    def others_are_served(self, what):
        other = self.node(stranger_case.NEW_HOST)
        self.node_finds(other, "echo-device", what, ["10.77.0.2"])
        self.node_is_answered(other, what)
        answer, _ = other.ask(f"put {LENGTH_THAT_NEEDS_BLOCKS}", r"put \d+ (-?\d+)", limit=10)
        self.is_equal(f"{what}: the result of a request in blocks", answer and answer[1], "0")
        other.close()

    def test_of_requesters(self):
        self.fill("requesters", 4200)

    def test_of_open_requests(self):
        self.fill("open-requests", 9000)

    def test_of_foreign_requests(self):
        self.fill("foreign-requests", 9000)

    def test_of_bodies_that_never_end(self):
        self.fill("bodies", 200)

    def test_that_stay_full(self):
        self.device()
        client = self.connected_client()
        with stranger_case.Stream(self, client):
            self.attack("fill", "requesters", "echo-device", 8192, RATE)
            flood = self.stranger("fill", "requesters", "echo-device", 1000, 140)
            while flood.line("done", limit=0.5) is None:
                self.command_is_answered(client, "meanwhile")
                self.others_are_served("meanwhile")

    # The device must not forget a request because others came: a repetition would run once more.
    def test_a_foreign_request_still_runs_once(self):
        self.ready(self.start(stranger_case.DEVICE_HOST, "link_test_tool", "serve", "camera"))
        asking = self.node()
        foreign = self.stranger("foreign", "camera", host=stranger_case.NEW_HOST)
        self.is_equal("a foreign client's request", foreign.ask("go", "answered (.*)")[0][1], "0x44")
        self.attack("fill", "foreign-requests", "camera", 3000, RATE)
        self.is_equal("its repetition", foreign.ask("go", "answered (.*)")[0][1], "0x44")
        self.node_finds(asking, "camera", "afterwards", ["10.77.0.2"])
        count = self.node_is_answered(asking, "afterwards", "count")
        self.is_equal("how often it ran", count, "1")


if __name__ == "__main__":
    stranger_case.main()
