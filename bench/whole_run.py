#!/usr/bin/python3
"""Measures whole runs of the built program: what is not inference, and memory.

    bench/whole_run.py [--program build/release/lumvane] [--width 6000] [--height 4000] [--repeat 3]

The same image goes through the shipped network and through the identity network of the tests. What the latter costs is
everything but inference (reading, statistics, tiles, blending, writing; and two copies of each tile inside the backend), so
their ratio is its share of a run. Processor time is compared, not wall time, since these machines are shared; the least of
several repetitions counts.
"""

import argparse
import os
import resource
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

import cv2
import numpy as np

ROOT = Path(__file__).resolve().parent.parent
IDENTITY = ROOT / "tests" / "fixtures" / "packages" / "identity.mlpackage"
MIB = 1 << 20


@dataclass
class Cost:
    processor: float  # seconds
    wall: float  # seconds
    peak: int  # bytes


def run(program: Path, source: Path, target: Path, *more: str) -> Cost:
    """One run in a process of its own, so that its peak memory is its own, too."""
    command = [str(program), "-i", str(source), "-o", str(target), "--quiet", *more]
    began = time.monotonic()
    pid = os.posix_spawn(command[0], command, os.environ)
    _, status, usage = os.wait4(pid, 0)
    if status != 0:
        raise SystemExit(f"failed: {' '.join(command)}")
    return Cost(usage.ru_utime + usage.ru_stime, time.monotonic() - began, usage.ru_maxrss * 1024)


def least(costs: list[Cost]) -> Cost:
    return min(costs, key=lambda cost: cost.processor)


def sky(height: int, width: int) -> np.ndarray:
    """16-bit noise over a dim background: no tile is constant, and compression has something to do."""
    random = np.random.default_rng(1)
    image = np.empty((height, width, 3), np.uint16)
    for row in range(0, height, 500):
        block = random.normal(9000, 900, (min(500, height - row), width, 3))
        image[row : row + 500] = np.clip(block, 0, 65535)
    return image


def padded(size: int, stride: int = 480, window: int = 512) -> int:
    return -(-size // stride) * stride + window - stride


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", type=Path, default=ROOT / "build" / "release" / "lumvane")
    parser.add_argument("--width", type=int, default=6000)
    parser.add_argument("--height", type=int, default=4000)
    parser.add_argument("--repeat", type=int, default=3)
    arguments = parser.parse_args()
    program = arguments.program.resolve()
    pixels = arguments.width * arguments.height

    with tempfile.TemporaryDirectory() as folder:
        source, target = Path(folder, "in.tif"), Path(folder, "out.tif")
        cv2.imwrite(str(source), sky(arguments.height, arguments.width))
        network, identity = [], []
        for _ in range(arguments.repeat):
            identity.append(run(program, source, target, "--weights", str(IDENTITY)))
            network.append(run(program, source, target))
    whole, rest = least(network), least(identity)

    # float32 RGB, 12 bytes a pixel. During inference the working image, the padded one and the accumulator stand side by
    # side; at the end the working image, the result, the copy that is finished, and the 16-bit samples made of it.
    inference = 12 * (pixels + 2 * padded(arguments.width) * padded(arguments.height))
    required = max(inference, (3 * 12 + 6) * pixels)
    tiles = (padded(arguments.width) - 32) // 480 * ((padded(arguments.height) - 32) // 480)
    print(f"{arguments.width} x {arguments.height} RGB, 16 bits, {tiles} tiles, {resource.getpagesize()} byte pages")
    print(f"shipped network:   {whole.processor:7.2f} s processor time, {whole.wall:7.2f} s wall time")
    print(f"identity network:  {rest.processor:7.2f} s processor time, {rest.wall:7.2f} s wall time")
    print(f"not inference:     {100 * rest.processor / whole.processor:7.1f} % of a run (wanted: at most 10 %)")
    print(f"peak memory:       {whole.peak / pixels:7.1f} bytes per pixel with the shipped network")
    print(f"                   {rest.peak / pixels:7.1f} bytes per pixel with the identity network")
    print(f"required buffers:  {required / pixels:7.1f} bytes per pixel")
    print(f"above them:        {(whole.peak - required) / MIB:7.1f} MiB, the network's arena and the program included")


if __name__ == "__main__":
    main()
