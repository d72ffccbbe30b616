"""A device that does the two things that most devices do: it streams what it measures while a client takes it
(service "value"), and answers commands (service "answer").

The package puts what clients do into a queue. This thread takes it from there, measures, answers and sends.
"""

import signal
import sys
import time

import lumora

INTERVAL = {"ms": 1000}  # between two measurements


def answer(command: lumora.Command) -> str:
    if command.name != "interval":
        return f"unknown command {command.name}; there is interval"
    if not command.parameter.isdecimal() or not 10 <= int(command.parameter) <= 60000:
        return "interval takes 10 to 60000 ms"
    INTERVAL["ms"] = int(command.parameter)
    return f"interval {INTERVAL['ms']} ms"


def send(device: lumora.Device, service: str, text: str) -> None:
    """A block that no client takes any more is no reason to end."""
    try:
        device.send(service, text.encode())
    except lumora.SendFailed as failure:
        print(failure, file=sys.stderr)


def serve(device: lumora.Device) -> None:
    measured = time.monotonic()
    while True:
        rest = measured + INTERVAL["ms"] / 1000 - time.monotonic()
        try:
            event = device.get(timeout=max(0, rest))
        except lumora.ReceiveTimeout:
            measured = time.monotonic()
            if device.subscribers("value"):
                send(device, "value", f"{21 + measured % 1:.2f} degrees")
        else:
            if isinstance(event, lumora.Command):
                send(device, "answer", answer(event))


signal.signal(signal.SIGTERM, signal.default_int_handler)  # as Ctrl-C
with lumora.Device("sensor", ["value", "answer"]) as sensor:
    print("ready; Ctrl-C ends it", flush=True)
    try:
        serve(sensor)
    except KeyboardInterrupt:
        pass
