"""A stranger that connects to the data ports of a device and of a client whenever they are open."""

import time

import stranger_case

ROUNDS = 8
LONGEST = 35  # seconds, of all rounds
BLOCKS = 400


class DataPorts(stranger_case.StrangerCase):
    def test_data_reach_the_device_and_come_back(self):
        self.device()
        connecting = self.stranger("connect", "10.77.0.2:6666", "10.77.0.1:6667")
        end = time.monotonic() + LONGEST
        served = 0
        for at in range(ROUNDS):
            client = self.start(stranger_case.CLIENT_HOST, "client", f"text-{at}")
            begin = time.monotonic()
            served += client.line(f"echo: text-{at}$", limit=max(0.1, min(12, end - begin))) is not None
            print(f"    session {at}: {time.monotonic() - begin:.2f} s")
            client.close()
        connecting.process.stdin.close()
        self.over(connecting)
        self.is_equal("sessions that had their text back", served, ROUNDS)

    def test_stream_loses_nothing_while_ports_are_pestered(self):
        device = self.device()
        client = self.connected_client()
        hosts = (stranger_case.STRANGER_HOST, stranger_case.CLIENT_HOST, stranger_case.DEVICE_HOST)
        attacks = [self.stranger("pester", "10.77.0.2:6666", "10.77.0.1:6667", host=host) for host in hosts]
        back = 0
        for at in range(BLOCKS):
            answer, _ = client.ask(f"block-{at}", f"echo: block-{at}$", limit=10)
            back += answer is not None
        for attack in attacks:
            attack.process.stdin.close()
            self.over(attack)
        self.is_equal("blocks that came back", back, BLOCKS)
        self.is_equal("programs that ended", [p for p in (device, client) if p.process.poll() is not None], [])


if __name__ == "__main__":
    stranger_case.main()
