#!/usr/bin/python3
"""Makes the pictures of a camera that pans and zooms over the portrait that Debian's python3-skimage brings along.

  portrait_frames.py FOLDER   writes 60 JPEG pictures of 640 x 480 into it

Debian's own Python runs it, because that has the package.
"""
import math
import pathlib
import sys

import skimage
import skimage.io
import skimage.transform

FRAMES = 60
WIDTH, HEIGHT = 640, 480
PORTRAIT = pathlib.Path(skimage.__file__).parent / "data" / "astronaut.png"


def frame(portrait, step):
    """A crop of the form of the frames, round the face, that moves on an ellipse and breathes."""
    turn = 2 * math.pi * step / FRAMES
    height = 330 + 50 * math.cos(turn)
    width = height * WIDTH / HEIGHT
    left = (portrait.shape[1] - width) / 2 * (1 + 0.7 * math.sin(turn))
    top = 8 + 8 * math.sin(2 * turn)
    crop = portrait[int(top):int(top + height), int(left):int(left + width)]
    return skimage.img_as_ubyte(skimage.transform.resize(crop, (HEIGHT, WIDTH)))


def main():
    folder = pathlib.Path(sys.argv[1])
    portrait = skimage.io.imread(PORTRAIT)
    for step in range(FRAMES):
        skimage.io.imsave(folder / f"frame_{step:03}.jpg", frame(portrait, step), quality=85, check_contrast=False)


main()
