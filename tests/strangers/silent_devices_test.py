"""Strangers that can be found and answer pings, but never answer a request."""

import stranger_case

# Results are ordered by address: all strangers come first.
LAST_HOST = 20
STRANGER_HOSTS = (3, 5, 6)


class SilentDevices(stranger_case.StrangerCase):
    def test_do_not_hide_a_device(self):
        self.device(LAST_HOST)
        client = self.client()
        for host in STRANGER_HOSTS:
            self.stranger("pretend", "echo-device", "1", "ignore", host=host)
        self.device_is_found(client, "the first time", 12)
        for _ in range(3):
            self.device_is_found(client, "later", 3)

    def test_of_one_host_cost_the_time_of_one(self):
        self.device(LAST_HOST)
        client = self.client()
        self.stranger("pretend", "echo-device", "12", "ignore")
        self.device_is_found(client, "the first time", 12)

    def fails_within(self, treatment, seconds):
        asking = self.node()
        self.stranger("pretend", "pretender", "1", treatment)
        self.node_finds(asking, "pretender", "before", ["10.77.0.3"])
        answer, took = asking.ask("get key", r"got \d+ (\d)", limit=seconds + stranger_case.SLACK + 5)
        self.is_true("a request without an answer fails", bool(answer) and answer[1] == "0")
        self.within("it ends", took, seconds)

    def test_a_request_that_is_not_acknowledged(self):
        self.fails_within("ignore", 4)

    def test_a_request_that_is_only_acknowledged(self):
        self.fails_within("acknowledge", 8.5)

    def test_an_answer_that_is_too_long(self):
        self.fails_within("too-long", 1)


if __name__ == "__main__":
    stranger_case.main()
