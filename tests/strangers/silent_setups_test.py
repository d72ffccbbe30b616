"""A stranger that asks for data channels to an address that does not answer."""

import concurrent.futures

import stranger_case


class SilentSetups(stranger_case.StrangerCase):
    def ask_for(self, count):
        self.host(stranger_case.STRANGER_HOST).drop_tcp()
        self.device()
        client = self.client()
        asking = self.node()
        self.device_is_found(client, "before")
        self.node_finds(asking, "echo-device", "before", ["10.77.0.2"])
        self.attack("set-up", count, "echo-device")
        with concurrent.futures.ThreadPoolExecutor() as beside:
            connect = beside.submit(client.ask, "open", "open (done|failed)", 15)
            self.node_is_answered(asking, "afterwards", seconds=6)
        answer, took = connect.result()
        self.is_equal("a client's connect", answer and answer[1], "done")
        self.within("the connect", took, 10)

    def test_20(self):
        self.ask_for(20)

    def test_256(self):
        self.ask_for(256)


if __name__ == "__main__":
    stranger_case.main()
