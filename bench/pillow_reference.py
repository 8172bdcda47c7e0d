#!/usr/bin/env python3
"""The same work as ImageEncoder.encode, done with Pillow, for comparison.

Usage: pillow_reference.py IMAGE MAX_EDGE ITERATIONS

Each iteration decodes the file (a JPEG with DCT scaling to no less than the
target, through Pillow's draft mode), scales it with Lanczos so its longest edge
is MAX_EDGE (never enlarging, sizes rounded half away from zero), encodes a
PNG with Pillow's default options and base64s it. Interpreter start-up and
imports are not timed. Prints one line per iteration, "ms=<milliseconds>
cpu_ms=<process CPU milliseconds> bytes=<base64 length>", then "median_ms=<median>".
"""
import base64
import io
import math
import statistics
import sys
import time

from PIL import Image


def round_half_away(value):
    return int(math.floor(value + 0.5)) if value >= 0 else -int(math.floor(-value + 0.5))


def encode(path, max_edge):
    with open(path, "rb") as f:
        image = Image.open(f)
        width, height = image.size
        longest = max(width, height)
        # JPEG: let libjpeg scale while decoding, as Pillow's thumbnail() does.
        if 1 <= max_edge < longest:
            image.draft(image.mode, (max_edge * width // longest, max_edge * height // longest))
        image.load()
    width, height = image.size
    longest = max(width, height)
    if 1 <= max_edge < longest:
        scale = max_edge / longest
        size = (max(1, round_half_away(scale * width)), max(1, round_half_away(scale * height)))
        image = image.resize(size, Image.LANCZOS)
    out = io.BytesIO()
    image.save(out, "PNG")
    return base64.b64encode(out.getvalue())


def main():
    path, max_edge, iterations = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    times = []
    for _ in range(iterations):
        start, start_cpu = time.perf_counter(), time.process_time()
        text = encode(path, max_edge)
        elapsed = (time.perf_counter() - start) * 1000
        cpu = (time.process_time() - start_cpu) * 1000
        times.append(elapsed)
        print(f"ms={elapsed:.2f} cpu_ms={cpu:.2f} bytes={len(text)}", flush=True)
    print(f"median_ms={statistics.median(times):.2f}", flush=True)


if __name__ == "__main__":
    main()
