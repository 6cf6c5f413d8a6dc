#!/usr/bin/python3
"""Writes a camera-like grainy photo for the peer benchmarks: a mosaic of the real sample photos
that scikit-image ships (Debian's python3-skimage), each scaled to fill a 1000 x 1000 tile,
with film-like grain (a fine luminance grain and a weaker colour grain, slightly clumped),
saved as a JPEG at quality 90 (4:2:0). At 6000 x 4000 the file is about 7 MB, where the smooth
generated sample of `qvfilter sample` is about 2.3 MB: entropy decoding weighs as on real photos.

    make_grainy_photo.py OUT.jpg [--width 6000] [--height 4000] [--seed 1]

Larger pictures (--width 12000 --height 8000) repeat the mosaic with the tiles mirrored.
"""
import argparse

import numpy as np
from PIL import Image
from skimage import data

PHOTOS = ["astronaut", "coffee", "chelsea", "rocket", "immunohistochemistry", "hubble_deep_field", "retina",
          "colorwheel"]
TILE = 1000
GRAIN = 6.0  # standard deviation of the luminance grain, in 8-bit steps


def tile_of(name, flip):
    im = Image.fromarray(getattr(data, name)()[..., :3])
    w, h = im.size
    side = min(w, h)
    im = im.crop(((w - side) // 2, (h - side) // 2, (w - side) // 2 + side, (h - side) // 2 + side))
    im = im.resize((TILE, TILE), Image.LANCZOS)
    if flip & 1:
        im = im.transpose(Image.FLIP_LEFT_RIGHT)
    if flip & 2:
        im = im.transpose(Image.FLIP_TOP_BOTTOM)
    return np.asarray(im)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("out")
    parser.add_argument("--width", type=int, default=6000)
    parser.add_argument("--height", type=int, default=4000)
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    if args.width <= 0 or args.height <= 0 or args.width * args.height > 200_000_000:
        parser.error("width and height must be positive, at most 200 megapixels in all")
    rng = np.random.default_rng(args.seed)
    cols, rows = -(-args.width // TILE), -(-args.height // TILE)
    tiles = {}
    picture = np.empty((args.height, args.width, 3), np.uint8)
    # Row strips of one tile's height keep the float work small.
    for r in range(rows):
        y0, y1 = r * TILE, min(args.height, (r + 1) * TILE)
        strip = np.empty((TILE, cols * TILE, 3), np.uint8)
        for c in range(cols):
            k = (r * cols + c) % len(PHOTOS)
            flip = (r * cols + c) // len(PHOTOS) % 4
            if (k, flip) not in tiles:
                tiles[(k, flip)] = tile_of(PHOTOS[k], flip)
            strip[:, c * TILE:(c + 1) * TILE] = tiles[(k, flip)]
        strip = strip[: y1 - y0, : args.width].astype(np.float32)
        # Film-like grain: luminance noise shared by the channels plus weaker per-channel
        # noise, each averaged with its right and lower neighbours so that grains clump a little.
        def clumped(shape):
            n = rng.standard_normal(shape, dtype=np.float32)
            n[:-1] = 0.6 * n[:-1] + 0.4 * n[1:]
            n[:, :-1] = 0.6 * n[:, :-1] + 0.4 * n[:, 1:]
            return n / np.float32(0.36 + 0.16)  # each averaging keeps 0.36 + 0.16 of the variance
        mono = clumped(strip.shape[:2])[..., None] * np.float32(GRAIN)
        colour = clumped(strip.shape) * np.float32(GRAIN * 0.5)
        picture[y0:y1] = np.clip(strip + mono + colour, 0, 255).astype(np.uint8)
    Image.fromarray(picture).save(args.out, quality=90, subsampling=2)


if __name__ == "__main__":
    main()
