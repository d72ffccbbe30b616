"""A stranger that says hello in the name of nodes that do not exist."""

import threading
import time

import stranger_case

MOST_DESCRIPTORS = 100  # 64 for pings, the others for the node and its data channel
MOST_MEGABYTES = 40


class MostDescriptors:
    """The most that programs held at a time; they come and go within a second."""

    PAUSE = 0.02

    def __init__(self, programs):
        self.programs = programs
        self.most = dict.fromkeys(programs, 0)
        self.running = True
        self.thread = threading.Thread(target=self.run, daemon=True)

    def run(self):
        while self.running:
            for name, program in self.programs.items():
                self.most[name] = max(self.most[name], program.descriptors())
            time.sleep(self.PAUSE)

    def __enter__(self):
        self.thread.start()
        return self.most

    def __exit__(self, *_):
        self.running = False
        self.thread.join()


class InventedNodes(stranger_case.StrangerCase):
    def flood(self, count, rate):
        programs = {"device": self.device(), "client": self.connected_client(), "node": self.node()}
        client, watching = programs["client"], programs["node"]
        self.node_finds(watching, "echo-device", "before", ["10.77.0.2"])
        work = {name: program.processor_seconds() for name, program in programs.items()}
        with stranger_case.Stream(self, client), MostDescriptors(programs) as descriptors:
            flood = self.stranger("invent", count, rate)
            over = False
            rounds = 0
            while not over or rounds < 5:
                over = over or flood.line("done", limit=0.3) is not None
                rounds += 1
                self.node_finds(watching, "echo-device", "meanwhile", ["10.77.0.2"])
                self.node_is_answered(watching, "meanwhile")
                self.device_is_found(client, "meanwhile", 1.5)
            self.over(flood)
        for name, program in programs.items():
            used = program.processor_seconds() - work[name]
            print(f"    the {name}: {used:.1f} s of the processor, {program.resident_megabytes():.1f} MB")
            self.at_most(f"descriptors of the {name}", descriptors[name], MOST_DESCRIPTORS)
            if not stranger_case.SANITIZED:
                self.at_most(f"memory of the {name}", program.resident_megabytes(), MOST_MEGABYTES, "MB")
        self.is_equal("removals of the device and the client", watching.count("removed .* echo-"), 0)

    def test_1500_at_once(self):
        self.flood(1500, 0)

    def test_500_each_second(self):
        self.flood(3000, 500)

    def test_2000_each_second(self):
        self.flood(12000, 2000)


if __name__ == "__main__":
    stranger_case.main()
