#!/usr/bin/python3
"""Looks at the page of a hub in headless Chromium: a camera's pictures must move, and faces must be found in them.

  check_hub_page.py URL TYPE             without Chromium it asks the hub's interface, and says so
  check_hub_page.py URL TYPE PICTURE     takes a picture of the page, too

Debian's own Python runs it, because that has the package python3-selenium.
"""
import json
import os
import re
import sys
import time
import urllib.request

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
LIMIT_S = 60
# The plots are worth looking at when they hold a while.
PLOTS_FILL_S = 20


def until(condition, what):
    end = time.monotonic() + LIMIT_S
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.1)
    sys.exit(f"not within {LIMIT_S} s: {what}")


def find_device(url, device_type):
    """The id of the device of this type, when the hub has found it."""
    with urllib.request.urlopen(f"{url}api/devices", timeout=15) as answer:
        listed = json.loads(answer.read())
    devices = listed["devices"] if isinstance(listed, dict) else listed
    return next((device["id"] for device in devices if device["type"] == device_type and device["services"]), None)


def latest(url, device, service):
    with urllib.request.urlopen(f"{url}api/devices/{device}/services/{service}/latest", timeout=15) as answer:
        return answer.read()


def ask_interface(url, device):
    print("Chromium is missing (scripts/setup --hub installs it): the hub's interface is asked instead")
    first = until(lambda: latest(url, device, "picture"), "a picture")
    until(lambda: latest(url, device, "picture") not in (b"", first), "a second picture")
    assert first.startswith(b"\xff\xd8"), "the picture is no JPEG"
    faces = until(lambda: json.loads(latest(url, device, "faces"))["faces"], "a face")
    print(f"The pictures move, and {len(faces)} face is found.")


def open_browser():
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                   "--disable-background-networking", "--disable-component-update", "--disable-sync", "--no-first-run",
                   "--window-size=1280,800"):
        options.add_argument(option)
    return webdriver.Chrome(service=Service(DRIVER), options=options)


def reduce_colors(path):
    """To 128: a photograph in a PNG is large, and this one goes into git."""
    from PIL import Image
    Image.open(path).convert("RGB").quantize(128, dither=Image.Dither.NONE).save(path, optimize=True)


def look(url, device, picture):
    page = open_browser()
    try:
        page.get(f"{url}#/{device}")

        def drawn():
            return int(page.execute_script("return document.querySelector('canvas.picture')?.dataset.drawn ?? 0"))

        until(lambda: drawn() > 0, "a picture on the page")
        before = drawn()
        until(lambda: drawn() > before + 20, "pictures that move")
        until(lambda: re.search(r"faces|width", page.find_element("tag name", "main").text), "the faces' fields")
        faces = until(lambda: json.loads(latest(url, device, "faces"))["faces"], "a face")
        print(f"The page shows {drawn()} pictures by now, and {len(faces)} face is found.")
        if picture:
            time.sleep(PLOTS_FILL_S)
            page.save_screenshot(picture)
            reduce_colors(picture)
            print(f"A picture of the page: {picture}")
    finally:
        page.quit()


def main():
    url, device_type = sys.argv[1:3]
    device = until(lambda: find_device(url, device_type), "a camera at the hub")
    if os.access(CHROMIUM, os.X_OK) and os.access(DRIVER, os.X_OK):
        look(url, device, sys.argv[3] if len(sys.argv) > 3 else None)
    else:
        ask_interface(url, device)


main()
