"""Processes that turn scenes into shuffled batches of crops, ahead of the training step."""

from __future__ import annotations

import multiprocessing
import os
import queue as queues
from pathlib import Path

import numpy as np

from .frames import FrameLaws, make_pair
from .pool import open_pools

Array = np.ndarray
STRUCTURE_FLOOR = 2e-3
"""Added to the noise that steps between pixels are measured in: the networks' own floor, about."""


def symmetry(image: Array, number: int) -> Array:
    """One of the eight symmetries of the square, on the last two axes."""
    turned = np.rot90(image, number % 4, axes=(-2, -1))
    return turned[..., ::-1] if number >= 4 else turned


def structure(clean: Array, spread: Array) -> Array:
    """Running sums [h + 1, w + 1] over rows and columns of how far neighbours of the clean frame lie apart in its noise."""
    steps = np.abs(np.diff(clean, axis=-1, append=clean[..., -1:])) / (spread + STRUCTURE_FLOOR)
    sums = np.zeros((clean.shape[-2] + 1, clean.shape[-1] + 1))
    np.minimum(steps.mean(axis=0), 2.0).cumsum(axis=0).cumsum(axis=1, out=sums[1:, 1:])
    return sums


def crops(rng: np.random.Generator, planes: Array, patch: int, count: int, sums: Array | None = None):
    """`count` random crops [k, 3, patch, patch] of planes [k, 3, h, w], each in a random symmetry.

    With the running sums of `structure` every second crop is the richer one of two: most of most frames is sky, which
    is learnt soon, while crowded places stay behind.
    """
    height, width = planes.shape[-2:]

    def wealth(place: Array) -> float:
        top, left, bottom, right = *place, *(place + patch)
        return sums[bottom, right] - sums[top, right] - sums[bottom, left] + sums[top, left]

    for _ in range(count):
        places = rng.integers((height - patch + 1, width - patch + 1), size=(2, 2))
        rich = sums is not None and rng.random() < 0.5
        row, column = max(places, key=wealth) if rich else places[0]
        crop = planes[:, :, row:row + patch, column:column + patch]
        yield np.ascontiguousarray(symmetry(crop, int(rng.integers(8))))


def batches(seed: list[int], paths: list[Path], laws: FrameLaws, patch: int, batch: int, coverage: float, buffer: int):
    """Endless batches [batch, 4, 3, patch, patch] drawn from a buffer that mixes about `buffer` crops of many frames.

    The four are the noisy and the clean frame and the noise's standard deviation after and before the stretch.

    `coverage` is the number of crop pixels taken per frame pixel before the frame is thrown away. Pools that appear on
    disk later are picked up every few dozen frames.
    """
    rng = np.random.default_rng(seed)
    pools, store, visits = open_pools(paths), [], 0
    while True:
        while len(store) < buffer:
            visits += 1
            if visits % 40 == 0:
                pools = open_pools(paths)
            sizes = np.array([len(p) for p in pools], float)
            pool = pools[int(rng.choice(len(pools), p=sizes / sizes.sum()))]
            light = np.array(pool[int(rng.integers(len(pool)))])
            pair = make_pair(rng, light, laws)
            planes = np.stack([pair.noisy, pair.clean, pair.spread, pair.linear_spread])
            if not np.isfinite(planes).all():
                print(f"feeder {seed}: frame {visits} ({pair.mode}) is not finite, left out", flush=True)
                continue
            count = max(1, int(coverage * light.shape[1] * light.shape[2] / patch**2))
            store.extend(crops(rng, planes, patch, count, structure(pair.clean, pair.spread)))
        picked = rng.permutation(len(store))[:batch]
        yield np.stack([store[i] for i in picked])
        for i in sorted(picked, reverse=True):
            store[i] = store[-1]
            store.pop()


def _run(queue, seed, paths, laws, patch, batch, coverage, buffer) -> None:
    os.environ["OMP_NUM_THREADS"] = "1"
    trainer = multiprocessing.parent_process()
    for item in batches(seed, paths, laws, patch, batch, coverage, buffer):
        while trainer.is_alive():
            try:
                queue.put(item, timeout=10)
                break
            except queues.Full:
                # Waiting in slices, so that a feeder never outlives a trainer that was killed.
                continue
        else:
            return


class Feeder:
    """Feeding processes and the queue they fill."""

    def __init__(self, seed: list[int], paths: list[Path], laws: FrameLaws, patch: int, batch: int, *, processes: int = 1,
                 coverage: float = 1.0, buffer: int = 400, depth: int = 8):
        context = multiprocessing.get_context("spawn")
        self.queue = context.Queue(maxsize=depth)
        self.processes = [
            context.Process(target=_run, daemon=True,
                            args=(self.queue, seed + [n], paths, laws, patch, batch, coverage, buffer))
            for n in range(processes)
        ]
        for process in self.processes:
            process.start()

    def next(self) -> Array:
        """The next batch; fails after ten minutes without one, so that a dead feeder does not hang the run."""
        return self.queue.get(timeout=600)

    def close(self) -> None:
        """Stops the feeding processes."""
        for process in self.processes:
            process.terminate()
            process.join()
