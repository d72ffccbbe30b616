"""A stranger that closes a client's requests in its name, before the client has sent them."""

import stranger_case


class RequestNumbers(stranger_case.StrangerCase):
    def test_a_client_goes_on_asking(self):
        self.device()
        client = self.connected_client()
        self.command_is_answered(client, "before")
        self.attack("close-every-request", "echo-device", "echo-client")
        for _ in range(3):
            self.command_is_answered(client, "afterwards")
        self.device_is_found(client, "afterwards")
        self.is_true("and the channel lives", client.ask("text", "echo: text$", limit=5)[0] is not None)


if __name__ == "__main__":
    stranger_case.main()
