"""A device with the service "echo": what a client sends goes back to all who subscribed."""

import signal

import lumora

signal.signal(signal.SIGTERM, signal.default_int_handler)  # as Ctrl-C
with lumora.Device("echo-device", ["echo"]) as device:
    print("ready; Ctrl-C ends it", flush=True)
    try:
        for event in device:
            print(event, flush=True)
            if isinstance(event, lumora.Data) and event.data:
                try:
                    device.send("echo", event.data)
                except lumora.SendFailed as failure:
                    print(failure, flush=True)
    except KeyboardInterrupt:
        pass
