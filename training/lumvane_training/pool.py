"""A pool of rendered scenes on disk: one .npy file [n, 3, size, size] that every process maps read-only.

float32 and not float16: the linear mode can magnify a relative step of 1e-3 in the sky to the size of the noise.
"""

from __future__ import annotations

import json
import multiprocessing
from pathlib import Path

import numpy as np

from .scenes import SceneLaws, render_scene

Array = np.ndarray


def _render_into(job: tuple[str, int, int, int, dict]) -> int:
    path, seed, index, size, table = job
    scene = render_scene(seed, index, size, SceneLaws.from_table(table))
    pool = np.load(path, mmap_mode="r+")
    pool[index] = scene.light
    pool.flush()
    return index


def make_pool(path: Path, seed: int, count: int, size: int, laws: SceneLaws, processes: int) -> None:
    """Renders scenes 0..count-1 of a seed into `path` and a record beside it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    partial = path.with_suffix(".partial.npy")
    np.lib.format.open_memmap(partial, mode="w+", dtype=np.float32, shape=(count, 3, size, size)).flush()
    jobs = [(str(partial), seed, index, size, laws.table()) for index in range(count)]
    with multiprocessing.get_context("spawn").Pool(processes) as workers:
        for done, _ in enumerate(workers.imap_unordered(_render_into, jobs), 1):
            if done % 50 == 0 or done == count:
                print(f"{done}/{count} scenes", flush=True)
    record = {"seed": seed, "count": count, "size": size, "laws": laws.table()}
    path.with_suffix(".json").write_text(json.dumps(record, indent=2) + "\n")
    partial.rename(path)


def open_pools(paths: list[Path]) -> list[Array]:
    """The pools that exist, mapped read-only; at least one must."""
    pools = [np.load(p, mmap_mode="r") for p in paths if p.exists()]
    if not pools:
        raise FileNotFoundError(f"no scene pool found; make one first: {', '.join(map(str, paths))}")
    return pools
