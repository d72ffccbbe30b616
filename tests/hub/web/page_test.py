"""The page in headless Chromium.

  page_test.py WEB_OVER_FAKE                       the tests
  page_test.py WEB_OVER_FAKE --screenshots FOLDER  writes hub-*.png for the documents
"""
import json
import pathlib
import shutil
import struct
import sys
import tempfile
import threading
import time
import unittest
import zlib

import served
from served import Served, until

SKIPPED = 77
CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
sys.path.append("/usr/lib/python3/dist-packages")  # if this is not Debian's own Python
try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
except ImportError:
    webdriver = None

CAMERA = "camera@127.0.0.1"


def png(width, height, pixel):
    """A picture; pixel(x, y) gives (red, green, blue)."""
    rows = b"".join(b"\0" + bytes(value for x in range(width) for value in pixel(x, y)) for y in range(height))

    def chunk(kind, content):
        return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def plain(red, green, blue):
    return png(16, 12, lambda x, y: (red, green, blue))


def browser(width=1280, height=900, *options):
    chosen = webdriver.ChromeOptions()
    chosen.binary_location = CHROMIUM
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                   "--disable-background-networking", "--disable-component-update", "--disable-sync", "--no-first-run",
                   "--disable-default-apps", "--no-proxy-server", f"--window-size={width},{height}", *options):
        chosen.add_argument(option)
    chosen.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(DRIVER), options=chosen)


class PageCase(unittest.TestCase):
    """One server and one browser for all tests; each test begins with the list of devices."""

    @classmethod
    def setUpClass(cls):
        cls.hub = Served()
        cls.browser = browser()
        cls.folder = tempfile.TemporaryDirectory()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.hub.close()
        cls.folder.cleanup()

    def setUp(self):
        self.hub.do(f"appear {CAMERA} picture level status note raw")
        self.hub.forget_sent()
        self.browser.get("about:blank")
        self.browser.get(self.hub.url)
        until(lambda: self.one("#link").get_attribute("data-state") == "live", what="the live list")

    def tearDown(self):
        problems = [line for line in self.browser.get_log("browser") if line["level"] == "SEVERE"
                    and "WebSocket" not in line["message"] and self.allowed not in line["message"]]
        self.assertEqual(problems, [], "the console has errors")

    allowed = "/favicon"

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def run_script(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def text(self, selector):
        return self.run_script("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def open_camera(self):
        self.browser.get(f"{self.hub.url}#/{CAMERA.replace('@', '%40')}")
        until(lambda: len(self.all(".service")) == 5, what="the services")
        until(lambda: all(card.get_attribute("data-state") == "live" for card in self.all(".service .badge")))

    def send(self, service, content):
        path = pathlib.Path(self.folder.name) / service
        path.write_bytes(content)
        self.hub.do(f"file {CAMERA} {service} {path}")

    def pixel(self, service="picture"):
        return self.run_script(
            "const c = document.querySelector(`[data-service=${arguments[0]}] .picture`);"
            "return c ? [...c.getContext('2d').getImageData(c.width / 2, c.height / 2, 1, 1).data].slice(0, 3) : null",
            service)


class Live(PageCase):
    def test_devices_appear_and_vanish_and_are_announced(self):
        self.assertEqual(len(self.all("#device-list li")), 1)
        self.assertFalse(self.one("#logout").is_displayed(), "a hub without a token has no login to end")
        self.hub.do("appear lamp@127.0.0.9 brightness")
        item = until(lambda: self.all("[data-device='lamp@127.0.0.9'] a"))[0]
        self.assertIn("lamp at 127.0.0.9 appeared", self.text("#announcer"))
        self.assertEqual(self.one("#announcer").get_attribute("aria-live"), "polite")
        self.assertIn("brightness", item.text)
        self.hub.do("leave lamp@127.0.0.9")
        until(lambda: item.get_attribute("data-state") == "absent")
        until(lambda: "has left" in self.text("#announcer"))
        self.assertIn("gone", item.text)

    def test_pictures_move(self):
        self.open_camera()
        for color in ([200, 10, 10], [10, 200, 10], [10, 10, 200]):
            self.send("picture", plain(*color))
            until(lambda: self.pixel() == color, what=f"the colour {color}")

    def test_the_newest_picture_is_shown_when_they_come_faster_than_they_are_drawn(self):
        self.open_camera()
        for shade in range(0, 200):
            self.send("picture", plain(shade, shade, 0))
        until(lambda: self.pixel() == [199, 199, 0])
        drawn = int(self.one("[data-service=picture] .picture").get_attribute("data-drawn"))
        self.assertLessEqual(drawn, 200)

    def test_a_damaged_picture_is_survived(self):
        self.open_camera()
        self.send("picture", plain(1, 2, 3)[:60])
        self.send("picture", plain(9, 8, 7))
        until(lambda: self.pixel() == [9, 8, 7])

    def test_numbers_are_plotted_and_the_plot_moves(self):
        self.open_camera()
        for number in range(10):
            self.send("level", str(20 + number / 2).encode())
        until(lambda: self.all("[data-service=level] .plot[data-points='10']"))
        first = self.run_script("return document.querySelector('[data-service=level] .plot').toDataURL()")
        self.send("level", b"99.5")
        until(lambda: "99.5" in self.text("[data-service=level] .legend"))
        until(lambda: self.run_script("return document.querySelector('[data-service=level] .plot').toDataURL()") != first)

    def test_json_texts_and_bytes_are_shown_as_what_they_are(self):
        self.open_camera()
        self.send("status", json.dumps({"state": "idle", "temperature": 41.5, "box": {"x": 3}}).encode())
        self.send("note", "Grüße, ein Text".encode())
        self.send("raw", bytes(range(40)))
        until(lambda: "temperature" in self.text("[data-service=status] .fields"))
        fields = self.text("[data-service=status] .fields")
        for part in ("idle", "41.5", "box.x"):
            self.assertIn(part, fields)
        until(lambda: "Grüße, ein Text" in self.text("[data-service=note] .text"))
        until(lambda: "00 01 02 03" in self.text("[data-service=raw] .hex"))
        self.assertIn("40 bytes", self.text("[data-service=raw] .hex"))

    def test_lines_end_in_a_text_without_an_empty_line(self):
        self.open_camera()
        for line in (b"one\n", b"two\r\n", b"three"):
            self.send("note", line)
        until(lambda: self.text("[data-service=note] .text") == "three\ntwo\none")

    def test_fields_that_find_no_room_are_counted(self):
        self.open_camera()
        self.send("status", json.dumps({f"field{number}": "x" for number in range(45)}).encode())
        until(lambda: "field39" in self.text("[data-service=status] .fields"))
        self.assertIn("5 more", self.text("[data-service=status] .fields"))
        self.assertNotIn("field40", self.text("[data-service=status] .fields"))
        self.send("status", json.dumps({"first": 1, "field3": "y"}).encode())
        until(lambda: self.text("[data-service=status] .fields") == "first1field3y")

    def test_what_devices_send_is_never_part_of_the_page(self):
        attack = "<img src=x onerror=document.title='owned'><script>document.title='owned'</script>"
        self.hub.do("appear <b>bad</b>@127.0.0.8 <i>x</i>")
        self.open_camera()
        self.send("note", attack.encode())
        self.send("status", json.dumps({attack: attack}).encode())
        until(lambda: attack in self.text("[data-service=note] .text"))
        until(lambda: attack in self.text("[data-service=status] .fields"))
        self.assertEqual(self.all("main img, main script, main b, main i, #device-list b, #device-list i"), [])
        self.assertIn("camera", self.browser.title)
        self.hub.do("leave <b>bad</b>@127.0.0.8")

    def test_rates_and_latencies_are_shown(self):
        self.open_camera()
        ended = time.monotonic() + 3
        while time.monotonic() < ended:
            self.send("level", b"1")
            time.sleep(0.05)
        rate, delay, lost = [part.text for part in self.all("[data-service=level] .measures dd")]
        self.assertRegex(rate, r"^[0-9.]+/s · ")
        self.assertGreater(float(rate.split("/")[0]), 3)
        self.assertRegex(delay, r"^[0-9.]+ ms$")
        self.assertLess(float(delay.split()[0]), 500)
        self.assertEqual(lost, "0")

    def test_a_device_that_dies_and_comes_back_goes_on(self):
        self.open_camera()
        self.send("level", b"1")
        self.hub.do(f"leave {CAMERA}")
        until(lambda: self.one(".head .badge").get_attribute("data-state") == "absent")
        badge = self.one("[data-service=level] .badge")
        self.assertEqual((badge.get_attribute("data-state"), badge.text), ("absent", "device is gone"))
        self.assertRegex(self.text(".about-device"), r"last seen \d+ s ago")
        self.hub.do(f"appear {CAMERA} picture level status note raw")
        until(lambda: self.one(".head .badge").get_attribute("data-state") == "connected")
        self.assertEqual((badge.get_attribute("data-state"), badge.text), ("live", "live"))
        self.send("level", b"77")
        until(lambda: "77" in self.text("[data-service=level] .legend"))


class Sending(PageCase):
    def test_a_command_arrives(self):
        self.open_camera()
        self.one("#command-name").send_keys("zoom")
        self.one("#command-parameter").send_keys('two "x"', Keys.ENTER)
        until(lambda: self.hub.sent() == [f'command {CAMERA} zoom two "x"'])
        until(lambda: self.one("#command-result").get_attribute("data-result") == "good")

    def test_a_refusal_is_told(self):
        self.allowed = "502"
        self.open_camera()
        self.hub.do("outcome 3")
        self.addCleanup(self.hub.do, "outcome 0")
        self.one("#command-name").send_keys("zoom", Keys.ENTER)
        until(lambda: "the device refused" in self.text("#command-result"))

    def test_a_typed_block_arrives(self):
        self.open_camera()
        self.one("#block-text").send_keys("hello block")
        self.one("#block-form button").click()
        until(lambda: self.hub.sent() == [f"block {CAMERA} 11 hello block"])

    def test_a_chosen_file_and_a_dropped_file_arrive(self):
        self.open_camera()
        path = pathlib.Path(self.folder.name) / "chosen"
        path.write_bytes(b"chosen" * 100000)
        self.one("#block-file").send_keys(str(path))
        self.one("#block-form button").click()
        until(lambda: [line[:36] for line in self.hub.sent()] == [f"block {CAMERA} 600000 chosen"])
        self.run_script("""
            const data = new DataTransfer();
            data.items.add(new File(["dropped"], "file"));
            const drop = new DragEvent("drop", {dataTransfer: data, cancelable: true, bubbles: true});
            document.querySelector(".drop").dispatchEvent(drop);""")
        until(lambda: self.hub.sent()[1:] == [f"block {CAMERA} 7 dropped"])

    def test_after_a_file_the_next_block_is_a_text_again(self):
        self.open_camera()
        path = pathlib.Path(self.folder.name) / "chosen"
        path.write_bytes(b"chosen")
        self.one("#block-text").send_keys("typed")
        self.one("#block-file").send_keys(str(path))
        until(lambda: self.text("#block-form button") == "Send file")
        self.one("#block-form button").click()
        until(lambda: self.text("#block-form button") == "Send text")
        self.one("#block-form button").click()
        until(lambda: self.hub.sent() == [f"block {CAMERA} 6 chosen", f"block {CAMERA} 5 typed"])

    def test_a_file_that_misses_its_place_does_not_replace_the_page(self):
        self.open_camera()
        for kind in ("dragover", "drop"):
            self.assertTrue(self.run_script("const e = new DragEvent(arguments[0], {cancelable: true, bubbles: true});"
                                            "document.querySelector('h1').dispatchEvent(e); return e.defaultPrevented",
                                            kind))

    def test_an_empty_block_is_not_sent(self):
        self.open_camera()
        self.one("#block-form button").click()
        until(lambda: "a block has 1 to" in self.text("#block-result"))
        self.assertEqual(self.hub.sent(), [])


class Tabs(PageCase):
    def tearDown(self):
        for handle in self.browser.window_handles[1:]:
            self.browser.switch_to.window(handle)
            self.browser.close()
        self.browser.switch_to.window(self.browser.window_handles[0])
        super().tearDown()

    def test_twenty_tabs_get_all_blocks(self):
        self.open_camera()
        for _ in range(19):
            self.browser.switch_to.new_window("tab")
            self.browser.get(f"{self.hub.url}#/{CAMERA}")

        def streams():
            text = self.hub.get("/metrics")[2].decode()
            return [line for line in text.splitlines() if line.startswith("lumora_hub_web_streams ")][0]
        until(lambda: streams() == "lumora_hub_web_streams 100", seconds=60, what="20 tabs with 5 streams")
        self.send("level", b"5")
        for handle in self.browser.window_handles[::6]:
            self.browser.switch_to.window(handle)
            self.send("level", b"42")
            until(lambda: "42" in self.text("[data-service=level] .legend"))
            self.send("level", b"5")

    def test_a_slow_tab_loses_its_own_blocks_alone(self):
        self.open_camera()
        fast = self.browser.current_window_handle
        second = browser()
        self.addCleanup(second.quit)
        second.get(f"{self.hub.url}#/{CAMERA}")
        until(lambda: len(second.find_elements(By.CSS_SELECTOR, ".service .badge[data-state=live]")) == 5)
        # The second page does nothing but count for some seconds, as one with too much work does.
        busy = threading.Thread(target=lambda: second.execute_script(
            "const end = performance.now() + 6000; while (performance.now() < end);"))
        busy.start()
        ended = time.monotonic() + 5
        path = pathlib.Path(self.folder.name) / "large"
        path.write_bytes(bytes(2_000_000))
        count = 0
        while time.monotonic() < ended:
            self.hub.do(f"file {CAMERA} raw {path}")
            count += 1
            time.sleep(0.05)
        busy.join()

        def lost(page):
            return int(page.execute_script("return document.querySelector('[data-service=raw]').dataset.lost ?? 0"))
        self.send("raw", b"\0end")
        until(lambda: lost(second) > 0, what="losses of the slow page")
        self.assertEqual(self.browser.current_window_handle, fast)
        self.assertEqual(lost(self.browser), 0)

    def test_a_tab_in_the_background_stops_drawing_and_keeps_texts_and_the_newest_picture(self):
        self.open_camera()
        self.send("picture", plain(1, 1, 1))
        until(lambda: self.pixel() == [1, 1, 1])
        self.run_script("Object.defineProperty(document, 'hidden', {value: true, configurable: true})")
        self.send("picture", plain(2, 2, 2))
        self.send("note", b"meanwhile")
        time.sleep(0.5)
        self.assertEqual(self.pixel(), [1, 1, 1])
        self.run_script("delete document.hidden; document.dispatchEvent(new Event('visibilitychange'))")
        until(lambda: self.pixel() == [2, 2, 2])
        until(lambda: self.text("[data-service=note] .text") == "meanwhile")
        self.send("picture", plain(3, 3, 3))
        until(lambda: self.pixel() == [3, 3, 3])


class People(PageCase):
    def focused(self):
        return self.run_script("const e = document.activeElement; return e.id || e.className || e.tagName")

    def test_all_can_be_done_with_the_keyboard(self):
        def press(*keys):
            webdriver.ActionChains(self.browser).send_keys(*keys).perform()
        press(Keys.TAB)
        self.assertEqual(self.focused(), "skip")
        for _ in range(6):
            press(Keys.TAB)
            outline = self.run_script("return getComputedStyle(document.activeElement).outlineStyle")
            self.assertNotEqual(outline, "none")
            if self.run_script("return document.activeElement.closest('#device-list') !== null"):
                break
        press(Keys.ENTER)
        until(lambda: self.all(".service"))
        until(lambda: self.run_script("return document.activeElement.tagName") == "H1", what="the focus on the device")
        for _ in range(20):
            press(Keys.TAB)
            if self.focused() == "command-name":
                break
        press("go", Keys.TAB, "now", Keys.TAB, Keys.SPACE)
        until(lambda: self.hub.sent() == [f"command {CAMERA} go now"])

    def test_landmarks_names_and_labels_are_there(self):
        self.open_camera()
        self.send("picture", plain(5, 5, 5))
        until(lambda: self.pixel() == [5, 5, 5])
        for selector in ("header", "nav[aria-labelledby]", "main", "h1", "h2", "html[lang=en]"):
            self.assertEqual(len(self.all(selector)) > 0, True, selector)
        self.assertEqual(self.one(".picture").accessible_name, "Live picture of picture")
        fields = [field for field in self.all("input, textarea, button, .service, nav a") if field.is_displayed()]
        self.assertGreater(len(fields), 10)
        for field in fields:
            self.assertNotEqual(field.accessible_name, "", field.get_attribute("outerHTML"))
        ids = self.run_script("return [...document.querySelectorAll('[id]')].map(e => e.id)")
        self.assertEqual(len(ids), len(set(ids)))

    def test_a_phone_shows_everything_without_scrolling_sideways(self):
        phone = browser()
        self.addCleanup(phone.quit)
        phone.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                              {"width": 375, "height": 800, "deviceScaleFactor": 2, "mobile": True})
        phone.get(self.hub.url)
        item = until(lambda: phone.find_elements(By.CSS_SELECTOR, "#device-list a"))[0]
        self.assertFalse(phone.find_element(By.CSS_SELECTOR, "main").is_displayed())
        item.click()
        until(lambda: len(phone.find_elements(By.CSS_SELECTOR, ".service .badge[data-state=live]")) == 5)
        self.assertFalse(phone.find_element(By.CSS_SELECTOR, "nav").is_displayed())
        self.send("raw", bytes(200))
        self.send("picture", png(640, 480, lambda x, y: (x & 255, y & 255, 0)))
        self.send("status", json.dumps({"a" * 60: "b" * 200}).encode())
        until(lambda: len(phone.find_elements(By.CSS_SELECTOR, ".hex, .picture[data-drawn], .fields dt")) == 3)
        self.assertLessEqual(phone.execute_script("return document.documentElement.scrollWidth"), 375)
        for button in phone.find_elements(By.CSS_SELECTOR, "main button, main input, .back"):
            self.assertGreaterEqual(button.size["height"], 44)
        phone.find_element(By.CSS_SELECTOR, ".back").click()
        until(lambda: phone.find_element(By.CSS_SELECTOR, "nav").is_displayed())
        self.assertEqual(phone.execute_script("return document.activeElement.closest('li')?.dataset.device"), CAMERA)

    def test_dark_mode_follows_the_system_and_has_contrast(self):
        def luminance(color):
            parts = [int(part) / 255 for part in color[color.index("(") + 1:-1].split(",")[:3]]
            red, green, blue = [part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
            return 0.2126 * red + 0.7152 * green + 0.0722 * blue

        self.open_camera()
        grounds = []
        for mode in ("light", "dark"):
            self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                         {"features": [{"name": "prefers-color-scheme", "value": mode}]})
            ground = self.run_script("return getComputedStyle(document.documentElement).backgroundColor")
            card = self.run_script("return getComputedStyle(document.querySelector('.card')).backgroundColor")
            grounds.append(luminance(ground))
            for selector, under in (("h1", ground), (".about-device", ground), (".service h2", card), (".measures dt", card),
                                    (".devices .about", card), ("h2", ground), ("label", card)):
                ink = self.run_script("return getComputedStyle(document.querySelector(arguments[0])).color", selector)
                high, low = sorted((luminance(ink), luminance(under)), reverse=True)
                self.assertGreaterEqual((high + 0.05) / (low + 0.05), 4.5, (mode, selector))
        self.assertGreater(grounds[0], 0.8)
        self.assertLess(grounds[1], 0.05)
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})


class Restarts(unittest.TestCase):
    def open_live_page(self):
        hub = Served()
        page = browser()
        self.addCleanup(page.quit)
        hub.do(f"appear {CAMERA} level")
        page.get(f"{hub.url}#/{CAMERA}")
        until(lambda: page.find_elements(By.CSS_SELECTOR, ".service .badge[data-state=live]"))
        return hub, page

    def test_the_page_comes_back_when_the_hub_does(self):
        hub, page = self.open_live_page()
        hub.close()
        until(lambda: page.find_element(By.CSS_SELECTOR, "#link").get_attribute("data-state") != "live")
        hub = Served("--listen", hub.host)
        self.addCleanup(hub.close)
        begin = time.monotonic()
        hub.do(f"appear {CAMERA} level")
        until(lambda: b"lumora_hub_web_streams 1\n" in hub.get("/metrics")[2])
        self.assertLess(time.monotonic() - begin, 4)
        hub.do(f"text {CAMERA} level 12")
        until(lambda: "12" in page.execute_script("return document.querySelector('.legend')?.textContent ?? ''"))

    def test_while_the_hub_is_away_the_page_says_so_once(self):
        hub, page = self.open_live_page()
        page.execute_script("""
            window.told = [];
            new MutationObserver(() => told.push(document.querySelector("#link-text").textContent))
                .observe(document.querySelector("#link-text"), {childList: true});""")
        hub.close()
        time.sleep(3)  # several tries to connect
        self.assertEqual(page.execute_script("return told"), ["the hub does not answer"])
        self.assertEqual(page.find_element(By.CSS_SELECTOR, ".service .badge").text, "interrupted")
        page.find_element(By.ID, "command-name").send_keys("zoom", Keys.ENTER)
        until(lambda: "Not sent: the hub does not answer" in page.find_element(By.ID, "command-result").text)

    def test_without_a_device_the_page_tells_how_to_begin(self):
        hub = Served()
        self.addCleanup(hub.close)
        page = browser()
        self.addCleanup(page.quit)
        page.get(hub.url)
        until(lambda: "lumora serve" in page.find_element(By.ID, "no-devices").text)
        self.assertFalse(page.find_element(By.ID, "no-device").is_displayed())
        hub.do(f"appear {CAMERA} level")
        until(lambda: page.find_element(By.ID, "no-device").is_displayed())
        self.assertFalse(page.find_element(By.ID, "no-devices").is_displayed())

    def test_a_phone_finds_the_way_back_from_a_device_that_is_unknown(self):
        hub = Served()
        self.addCleanup(hub.close)
        page = browser()
        self.addCleanup(page.quit)
        page.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                             {"width": 375, "height": 800, "deviceScaleFactor": 2, "mobile": True})
        page.get(f"{hub.url}#/lamp@192.0.2.1")
        until(lambda: "lamp@192.0.2.1 is not in the network" in page.find_element(By.CSS_SELECTOR, "main").text)
        page.find_element(By.CSS_SELECTOR, ".back").click()
        until(lambda: page.find_element(By.CSS_SELECTOR, "nav").is_displayed())

    def test_the_form_asks_for_the_token(self):
        hub = Served("--token", "a-token-of-some-length")
        self.addCleanup(hub.close)
        page = browser()
        self.addCleanup(page.quit)
        page.get(hub.url)
        self.assertTrue(page.current_url.endswith("/login"))
        self.assertFalse(page.find_element(By.CSS_SELECTOR, "[role=alert]").is_displayed())
        page.find_element(By.ID, "token").send_keys("another-token-of-some-length", Keys.ENTER)
        alert = until(lambda: [one for one in page.find_elements(By.CSS_SELECTOR, "[role=alert]") if one.is_displayed()])
        self.assertIn("not the token", alert[0].text)
        page.find_element(By.ID, "token").send_keys("a-token-of-some-length", Keys.ENTER)
        until(lambda: page.find_elements(By.CSS_SELECTOR, "#link[data-state=live]"))
        self.assertEqual(page.get_cookie("lumora_hub")["sameSite"], "Strict")
        self.assertEqual(page.execute_script("return document.cookie"), "")
        until(lambda: page.find_element(By.CSS_SELECTOR, "#logout button").is_displayed())
        page.find_element(By.CSS_SELECTOR, "#logout button").click()
        until(lambda: page.current_url.endswith("/login"))


def unable():
    if CHROMIUM is None or DRIVER is None or webdriver is None:
        return "chromium, chromium-driver and python3-selenium are needed; scripts/setup installs them"
    return None


def take_screenshots(folder):
    from screenshots import take  # only with this option: it draws pictures for the documents
    take(pathlib.Path(folder), Served, browser)


if __name__ == "__main__":
    if unable():
        print("SKIPPED:", unable())
        sys.exit(SKIPPED)
    if sys.argv[2:3] == ["--screenshots"]:
        take_screenshots(sys.argv[3])
    else:
        served.main()
