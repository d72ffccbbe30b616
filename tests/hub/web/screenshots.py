"""Takes the pictures of the page that the documents show. page_test.py --screenshots calls it."""
import json
import math
import pathlib
import struct
import tempfile
import threading
import time
import zlib

from served import until

CAMERA = "camera@192.168.1.20"
WIDTH, HEIGHT = 640, 400
LARGEST = 100_000


def chunk(kind, content):
    return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))


def scene(step):
    """A ball over hills, in few colours: the files stay small."""
    center = (WIDTH / 2 + 200 * math.cos(step / 9), 130 + 50 * math.sin(step / 5))
    rows = bytearray()
    for y in range(HEIGHT):
        rows.append(0)
        for x in range(WIDTH):
            hill = 300 - 40 * math.sin(x / 90) - 20 * math.sin(x / 37)
            far = 250 - 50 * math.sin(x / 130 + 2)
            inside = (x - center[0]) ** 2 + (y - center[1]) ** 2 < 1500
            rows.append(4 if inside else 3 if y > hill else 2 if y > far else 0 if y < 120 else 1)
    palette = bytes((190, 225, 240, 214, 236, 240, 120, 170, 160, 60, 122, 108, 240, 170, 60))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 3, 0, 0, 0))
            + chunk(b"PLTE", palette) + chunk(b"IDAT", zlib.compress(bytes(rows), 6)) + chunk(b"IEND", b""))


class Devices:
    """Sends like a camera and its neighbours until end() is called."""

    def __init__(self, hub):
        self.hub = hub
        hub.do(f"appear {CAMERA} picture faces temperature")
        hub.do("appear thermostat@192.168.1.31 temperature")
        hub.do("appear press@192.168.1.44 state force log")
        hub.do("appear lamp@192.168.1.57 brightness")
        hub.do("leave lamp@192.168.1.57")
        self.folder = tempfile.TemporaryDirectory()
        self.frames = [scene(step) for step in range(12)]
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def send(self, service, content):
        path = pathlib.Path(self.folder.name) / service
        path.write_bytes(content)
        self.hub.do(f"file {CAMERA} {service} {path}")

    def run(self):
        step = 0
        while not self.ending.wait(0.1):
            self.send("picture", self.frames[step % len(self.frames)])
            if step % 3 == 0:
                sharpness = round(0.8 + 0.1 * math.sin(step / 15), 3)
                faces = {"faces": 1 + (step // 30) % 3, "sharpness": sharpness, "lens": "wide"}
                self.send("faces", json.dumps(faces).encode())
            self.send("temperature", f"{41 + 2 * math.sin(step / 40) + math.sin(step / 7) / 2:.2f}".encode())
            step += 1

    def end(self):
        self.ending.set()
        self.thread.join()
        self.folder.cleanup()


def smaller(png):
    """The same picture: Chromium compresses in a hurry."""
    at, content, kept = 8, b"", []
    while at < len(png):
        length, kind = struct.unpack(">I4s", png[at:at + 8])
        if kind == b"IDAT":
            content += png[at + 8:at + 8 + length]
        elif kind in (b"IHDR", b"IEND"):
            kept.append(png[at:at + 12 + length])
        at += 12 + length
    return png[:8] + kept[0] + chunk(b"IDAT", zlib.compress(zlib.decompress(content), 9)) + kept[1]


def shoot(page, path):
    path.write_bytes(smaller(page.get_screenshot_as_png()))
    assert path.stat().st_size < LARGEST, f"{path.name} has {path.stat().st_size} bytes"
    print(path)


def take(folder, make_hub, browser):
    hub = make_hub()
    devices = Devices(hub)
    page = browser()
    try:
        page.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                             {"width": 1280, "height": 700, "deviceScaleFactor": 1, "mobile": False})
        page.get(f"{hub.url}#/{CAMERA}")
        until(lambda: page.execute_script("return document.querySelectorAll('.service[data-kind]').length") == 3)
        time.sleep(61)  # the plots fill
        shoot(page, folder / "hub-page.png")
        page.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
        time.sleep(1.5)
        shoot(page, folder / "hub-dark.png")
        page.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                             {"width": 375, "height": 812, "deviceScaleFactor": 1, "mobile": True})
        page.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        time.sleep(1.5)
        shoot(page, folder / "hub-phone.png")
    finally:
        page.quit()
        devices.end()
        hub.close()
