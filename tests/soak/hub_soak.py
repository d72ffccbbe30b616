"""The hub under random faults; scripts/check hub-soak starts it in a network namespace of its own.

usage: hub_soak.py FOLDER_OF_PROGRAMS MINUTES SEED
"""

import collections
import os
import pathlib
import random
import signal
import statistics
import sys
import threading
import time

from hub_field import Field

DEVICES = {"soak-a": 2, "soak-b": 3, "soak-c": 4}  # types, and the hosts on which they are
# Of each device: the consumers of a process that is stalled, and of one that is not.
KINDS = ("websocket", "events")
LONGEST, RATE = 300000, 100
# Within it all consumers have blocks again.
CALM_S = 25
# After the last fault, until cuts and stalls have ended, and queues are empty.
PAUSE_S = 12
SLACK_KB = 8192
SLACK_FILES = 4


class Soak:
    def __init__(self, programs, minutes, seed):
        self.random = random.Random(seed)
        self.log = (programs.parent / "hub-soak.log").open("w", encoding="utf-8")
        self.field = Field(programs / "hub_flow_peer", programs / "lumora-hub", log=self.log)
        self.minutes, self.seed = minutes, seed
        self.faults, self.caused, self.samples = [], collections.Counter(), []
        # How often the channel to a device may have ended.
        self.ends = collections.Counter()
        self.readers, self.running = {}, {}
        self.timers = []

    def fault(self, what):
        self.faults.append(what)
        print(f"FAULT: {what}", flush=True)

    def start(self):
        self.field.start_broker()
        for kind, number in DEVICES.items():
            self.running[kind] = self.field.start_device(number, kind, LONGEST, RATE)
        self.field.start_hub()
        for kind in DEVICES:
            for way in KINDS:
                for name in ("steady", "stalling"):
                    self.readers[kind, way, name] = self.field.start_readers(way, kind, 2)
            identity = f"{kind}@{self.field.host(DEVICES[kind]).address}"
            self.readers[kind, "mqtt", "steady"] = self.field.start_readers("mqtt", identity)
        self.calm("at the start")

    def later(self, first, last, work):
        timer = threading.Timer(self.random.uniform(first, last), work)
        self.timers.append(timer)
        timer.start()

    # ---- Faults

    def stall_consumer(self):
        reader = self.random.choice([one for key, one in self.readers.items() if key[2] == "stalling"])
        reader.tell("stall")
        self.later(1, 8, lambda: reader.tell("go"))

    def freeze_broker(self):
        self.field.broker.send(signal.SIGSTOP)
        self.later(1, 8, lambda: self.field.broker.send(signal.SIGCONT))

    def kill_worker(self):
        workers = self.field.workers()
        if workers:
            # It is not told which device it is for.
            self.end_channels(DEVICES)
            os.kill(self.random.choice(workers), signal.SIGKILL)

    def kill_device(self):
        kind = self.random.choice(list(DEVICES))
        self.end_channels([kind])
        self.field.drop(self.running[kind])
        time.sleep(self.random.uniform(0, 0.9))
        self.running[kind] = self.field.start_device(DEVICES[kind], kind, LONGEST, RATE)

    def stop_device(self):
        kind = self.random.choice(list(DEVICES))
        self.end_channels([kind])
        device = self.running[kind]
        device.send(signal.SIGSTOP)
        self.later(0.2, 5, lambda: device.send(signal.SIGCONT))

    def cut_device(self):
        kind = self.random.choice(list(DEVICES))
        self.end_channels([kind])
        host = self.field.host(DEVICES[kind])
        host.cut(True)
        self.later(0.2, 10, lambda: host.cut(False))

    def kill_hub(self):
        workers = self.field.workers()
        self.end_channels(DEVICES)
        self.field.drop(self.field.hub)
        self.field.start_hub()
        self.field.await_end_of(workers)

    def end_hub(self):
        self.end_channels(DEVICES)
        workers = self.field.workers()
        if self.field.drop(self.field.hub, signal.SIGTERM) != 0:
            self.fault("the hub did not end well")
        self.field.await_end_of(workers)
        self.field.start_hub()

    def stop_hub(self):
        self.end_channels(DEVICES)
        hub = self.field.hub
        hub.send(signal.SIGSTOP)
        # To its end: a hub that is stopped cannot be killed in between.
        time.sleep(self.random.uniform(0.2, 3))
        hub.send(signal.SIGCONT)

    def kill_broker(self):
        self.field.drop(self.field.broker)
        self.field.start_broker()

    def end_channels(self, kinds):
        for kind in kinds:
            self.ends[kind] += 1

    STALLS = (stall_consumer, stall_consumer, freeze_broker)
    GENTLE = (*STALLS, kill_worker, kill_device, stop_device, cut_device)
    ROUGH = (*GENTLE, kill_hub, kill_hub, end_hub, stop_hub, kill_broker)

    def cause(self, kinds, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(self.random.uniform(0.1, 1.9))
            fault = self.random.choice(kinds)
            self.caused[fault.__name__] += 1
            fault(self)
            self.sample()
            self.look_after()
        for timer in self.timers:
            timer.join()
        self.timers.clear()
        time.sleep(PAUSE_S)

    # ---- Checks

    def look_after(self):
        for what, program in [*self.running.items(), *self.readers.items(), ("the hub", self.field.hub),
                              ("the broker", self.field.broker)]:
            if not program.is_running():
                raise SystemExit(f"FAULT: {what} has ended with {program.process.returncode}")

    def sample(self):
        status = pathlib.Path(f"/proc/{self.field.hub.process.pid}/status").read_text(encoding="ascii")
        memory = int(status.partition("VmRSS:")[2].split()[0])
        self.samples.append((self.field.hub.process.pid, memory))

    def files(self):
        return len(os.listdir(f"/proc/{self.field.hub.process.pid}/fd"))

    def calm(self, when):
        begin = time.monotonic()
        for reader in self.readers.values():
            reader.tell("fresh")
        for (kind, way, name), reader in self.readers.items():
            try:
                reader.lines.get(timeout=max(CALM_S - (time.monotonic() - begin), 0.1))
            except Exception:  # a queue that stayed empty
                raise SystemExit(f"FAULT: {name} {way} of {kind} has no blocks {when}") from None
        print(f"All consumers have blocks {when}, after {time.monotonic() - begin:.2f} s.", flush=True)

    def check_steady(self):
        """Consumers that read lose nothing because others do not."""
        for (kind, way, name), reader in self.readers.items():
            figures = reader.ask()
            if figures["repeated"]:
                self.fault(f"{figures['repeated']} blocks came again over a connection that did not break")
            if name == "steady" and way != "mqtt" and (figures["missing"] or figures["breaks"]):
                self.fault(f"{way} of {kind} reads, and has lost {figures['missing']} blocks")
            print(f"{name} {way} of {kind}: {figures['missing']} of {figures['blocks']} blocks are missing, "
                  f"longest pause {figures['longest_pause_ms']:.0f} ms")

    def check_memory(self):
        own = [memory for pid, memory in self.samples if pid == self.field.hub.process.pid]
        third = len(own) // 3
        early, late = (statistics.median(own[third * part:third * (part + 1)]) for part in (1, 2))
        print(f"The hub: usually {early:.0f} kB of memory, {late:.0f} kB late, {max(own)} kB at most.")
        if late > early + SLACK_KB:
            self.fault("the memory of the hub grows")

    def check_counts(self):
        """Each consumer's misses are its own losses, which the hub tells, or were lost before the hub."""
        total = 0
        for kind in DEVICES:
            seen = {key: reader.ask() for key, reader in self.readers.items() if key[0] == kind}
            steady = seen[kind, "websocket", "steady"]
            # Two consumers, which both miss what the hub never had.
            before = (steady["missing"] - steady["told_lost"]) // 2
            for (_, way, name), figures in seen.items():
                if way == "websocket":
                    total += figures["told_lost"]
                    own = figures["missing"] - before * figures["consumers"]
                    if figures["told_lost"] != own:
                        self.fault(f"{name} {way} of {kind} misses {own} blocks, and is told of {figures['told_lost']}")
                elif way == "events":
                    total += figures["missing"] - before * figures["consumers"]
        counted = self.field.metric("lumora_hub_web_lost_blocks_total")
        print(f"Stalled consumers miss {total} blocks. The hub has counted {counted:.0f}.")
        if counted != total:
            self.fault(f"consumers miss {total} blocks, and the hub has counted {counted:.0f}")

    def check_readers(self):
        sums = collections.Counter()
        for (kind, way, name), reader in self.readers.items():
            figures = reader.ask()
            sums.update({(way, name, what): figures[what] for what in ("blocks", "bytes", "missing", "breaks", "repeated")})
            # A cut may end a channel twice.
            if figures["breaks"] > 2 * figures["consumers"] * self.ends[kind]:
                self.fault(f"{name} {way} of {kind} has {figures['breaks']} gaps after {self.ends[kind]} faults")
            for fault in reader.faults:
                self.fault(f"{name} {way} of {kind}: {fault}")
        for way, name in dict.fromkeys(key[:2] for key in sums):
            print(f"{name} {way}: {sums[way, name, 'blocks']} blocks, {sums[way, name, 'bytes'] / 1e6:.0f} MB, "
                  f"{sums[way, name, 'missing']} missing by the hub's numbers, {sums[way, name, 'breaks']} gaps where "
                  f"there was no channel, {sums[way, name, 'repeated']} came twice")

    def run(self):
        seconds = self.minutes * 60
        try:
            self.start()
            files = self.files()
            self.cause(self.STALLS, seconds / 3 - PAUSE_S)
            self.calm("after the stalls")
            self.check_steady()
            self.cause(self.GENTLE, seconds / 3 - PAUSE_S)
            self.calm("after the ends of workers and devices")
            self.check_counts()
            self.check_memory()
            if self.files() > files + SLACK_FILES:
                self.fault(f"the hub has {self.files()} open files instead of {files}")
            self.cause(self.ROUGH, seconds / 3 - PAUSE_S)
            self.calm("at the end")
            self.check_readers()
            workers = self.field.workers()
            if len(workers) != len(DEVICES):
                self.fault(f"{len(workers)} workers for {len(DEVICES)} devices")
            if self.field.drop(self.field.hub, signal.SIGTERM) != 0:
                self.fault("the hub does not end well")
            self.field.await_end_of(workers)
        finally:
            self.field.close()
        print(f"Hub soak of {self.minutes} minutes, seed {self.seed}: "
              + ", ".join(f"{count} times {name}" for name, count in sorted(self.caused.items())))
        print(f"{len(self.faults)} faults")
        return 1 if self.faults else 0


if __name__ == "__main__":
    # So that what it has started ends with it.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by a signal"))
    sys.exit(Soak(pathlib.Path(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])).run())
