"""A stranger that connects to the data ports of a device and of a client whenever they are open."""

import time

import stranger_case

ROUNDS = 8
LONGEST = 35  # seconds, of all rounds


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


if __name__ == "__main__":
    stranger_case.main()
