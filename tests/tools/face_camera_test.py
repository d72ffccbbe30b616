"""The example face_camera: a face is found where it is, and without subscribers nothing is looked at."""

import json
import os
import pathlib
import re
import subprocess
import time
import unittest

from child_process import ChildProcess
from lumora_case import LumoraCase, lumora

CAMERA = os.environ["LUMORA_FACE_CAMERA"]
# Of Debian's python3-skimage: an astronaut, 512 by 512 pixels, whose face is round this point.
PORTRAIT = pathlib.Path("/usr/lib/python3/dist-packages/skimage/data/astronaut.png")
MIDDLE = (224, 120)
CASCADE = pathlib.Path("/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml")
MAX_BLOCK = 1_024_000


def size_of_jpeg(data):
    """From its frame header."""
    frame = re.search(rb"\xff[\xc0\xc2]..\x08(..)(..)", data, re.DOTALL)
    height, width = (int.from_bytes(number, "big") for number in frame.groups())
    return width, height


def noise(path, width, height):
    """A picture that no JPEG makes small."""
    path.write_bytes(b"P6 %d %d 255\n" % (width, height) + os.urandom(width * height * 3))


@unittest.skipUnless(CASCADE.exists(), "needs opencv-data")
class FaceCamera(LumoraCase):
    def setUp(self):
        self.path = self.folder()

    def camera(self, *words):
        camera = ChildProcess([CAMERA, *words])
        self.addCleanup(camera.close)
        self.assertIn("ready: face-camera shows ", camera.line())
        return camera

    def end(self, camera):
        """How many pictures it looked at."""
        camera.process.terminate()
        self.assertEqual(camera.process.wait(timeout=60), 0)
        return int(re.search(r"ended; looked at (\d+) pictures\n", camera.rest())[1])

    def faces(self, *words):
        result = lumora("--json", "subscribe", "face-camera", "faces", "--count", "1", *words)
        self.assert_succeeds(result)
        return json.loads(json.loads(result.stdout)["text"])

    def picture(self, name):
        folder = self.path / name
        result = lumora("subscribe", "face-camera", "picture", "--count", "1", "--out", str(folder))
        self.assertEqual(result.returncode, 0, result)
        (file,) = folder.iterdir()
        return file

    def assert_is_the_face(self, face):
        self.assertLess(abs(face["x"] + face["width"] / 2 - MIDDLE[0]), 30, face)
        self.assertLess(abs(face["y"] + face["height"] / 2 - MIDDLE[1]), 30, face)
        self.assertTrue(60 < face["width"] < 180, face)

    @unittest.skipUnless(PORTRAIT.exists(), "needs python3-skimage")
    def test_finds_the_face_of_a_portrait(self):
        camera = self.camera("--from", str(PORTRAIT))
        told = self.faces()
        self.assertEqual((told["width"], told["height"]), (512, 512))
        self.assertRegex(told["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertEqual(len(told["faces"]), 1, told)
        self.assert_is_the_face(told["faces"][0])
        self.assertGreater(self.end(camera), 0)

    @unittest.skipUnless(PORTRAIT.exists(), "needs python3-skimage")
    def test_draws_a_box_round_it(self):
        self.camera("--from", str(PORTRAIT))
        (face,) = self.faces()["faces"]
        file = self.picture("with")
        self.assertEqual(file.read_bytes()[:3], b"\xff\xd8\xff")
        # Debian's Python has the library, because python3-skimage needs it.
        script = (
            "import sys; from PIL import Image; picture = Image.open(sys.argv[1]).convert('RGB');"
            "print(*picture.getpixel((int(sys.argv[2]), int(sys.argv[3]))))"
        )
        edge = [face["x"] + face["width"] // 2, face["y"]]
        pixel = subprocess.run(
            ["/usr/bin/python3", "-c", script, str(file), *map(str, edge)],
            capture_output=True, text=True, check=True,
        )
        red, green, blue = map(int, pixel.stdout.split())
        self.assertTrue(green > 180 and red < 120 and blue < 120, pixel.stdout)

    def test_without_subscribers_nothing_is_looked_at(self):
        noise(self.path / "a.ppm", 64, 64)
        camera = self.camera("--from", str(self.path / "a.ppm"), "--rate", "50")
        time.sleep(1)
        self.assertEqual(self.end(camera), 0)

    def test_looks_only_while_there_are_subscribers(self):
        noise(self.path / "a.ppm", 64, 64)
        camera = self.camera("--from", str(self.path / "a.ppm"), "--rate", "50")
        self.assertEqual(self.faces()["faces"], [])
        time.sleep(1)
        # At 50 a second a camera that goes on would have looked at 50 more.
        self.assertLess(self.end(camera), 40)

    def test_rate(self):
        noise(self.path / "a.ppm", 64, 64)
        self.camera("--from", str(self.path / "a.ppm"), "--rate", "10")
        begin = time.monotonic()
        self.assert_succeeds(lumora("subscribe", "face-camera", "faces", "--count", "11", "--format", "%n"))
        self.assertGreater(time.monotonic() - begin, 0.9)

    def test_pictures_stay_below_what_a_device_may_send(self):
        noise(self.path / "a.ppm", 2400, 1600)
        self.camera("--from", str(self.path / "a.ppm"), "--side", "2400", "--rate", "1")
        data = self.picture("large").read_bytes()
        self.assertTrue(100_000 < len(data) <= MAX_BLOCK, len(data))

    def test_large_pictures_are_made_smaller(self):
        noise(self.path / "a.ppm", 1200, 600)
        self.camera("--from", str(self.path / "a.ppm"), "--side", "300")
        self.assertEqual(size_of_jpeg(self.picture("small").read_bytes()), (300, 150))
        told = self.faces()
        self.assertEqual((told["width"], told["height"]), (300, 150))

    def test_folder_shows_its_pictures_again_and_again(self):
        for number, width in enumerate([64, 80, 96]):
            noise(self.path / f"{number}.ppm", width, 64)
        (self.path / "notes.txt").write_text("no picture")
        (self.path / "3.ppm").write_bytes(b"P6 9999 9999 255\n")  # cut
        self.camera("--from", str(self.path), "--rate", "20")
        result = lumora("subscribe", "face-camera", "faces", "--count", "8", "--format", "%p")
        self.assert_succeeds(result)
        widths = [json.loads(line)["width"] for line in result.stdout.splitlines() if line]
        self.assertEqual(len(widths), 8, result.stdout)
        self.assertEqual(widths, ([64, 80, 96] * 3)[:8])

    def assert_refuses(self, code, part, *words):
        result = subprocess.run([CAMERA, *words], capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(result.returncode, code, result)
        self.assertEqual(result.stderr.count("\n"), 1, result)
        self.assertIn(part, result.stderr)

    def test_sources_that_cannot_be(self):
        self.assert_refuses(1, "/dev/video99: ", "--from", "/dev/video99")
        self.assert_refuses(1, f"{self.path} has no pictures", "--from", str(self.path))
        (self.path / "text").write_text("no video")
        self.assert_refuses(1, "neither a picture nor a video", "--from", str(self.path / "text"))
        self.assert_refuses(1, "/dev/null cannot be opened: it is no camera", "--from", "/dev/null")
        os.mkfifo(self.path / "fifo")  # opening it would wait for a writer
        self.assert_refuses(1, "neither a camera nor a file", "--from", str(self.path / "fifo"))
        noise(self.path / "a.ppm", 64, 64)
        picture = ["--from", str(self.path / "a.ppm")]
        self.assert_refuses(1, "opencv-data", *picture, "--cascade", str(self.path / "text"))
        self.assert_refuses(2, "1 to 100", *picture, "--rate", "0")
        self.assert_refuses(2, "39", *picture, "--type", "T" * 40)

    def test_video_begins_anew_at_its_end(self):
        video = self.path / "short.y4m"
        frame = b"FRAME\n" + os.urandom(128 * 96 * 3 // 2)
        video.write_bytes(b"YUV4MPEG2 W128 H96 F5:1 Ip A1:1 C420jpeg\n" + frame * 5)
        camera = self.camera("--from", str(video), "--rate", "20")
        result = lumora("subscribe", "face-camera", "faces", "--count", "12", "--format", "%p")
        self.assert_succeeds(result)
        sizes = [json.loads(line)["width"] for line in result.stdout.splitlines() if line]
        self.assertEqual(sizes, [128] * 12)
        self.assertGreaterEqual(self.end(camera), 12)


if __name__ == "__main__":
    unittest.main()
