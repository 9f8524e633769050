#!/usr/bin/env python3
"""Renders the scene pools of a configuration; pools that are already there are left alone."""

from __future__ import annotations

import argparse
from pathlib import Path

from lumvane_training import config, pool


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("config", type=Path)
    parser.add_argument("--processes", type=int, default=2)
    parser.add_argument("--only", type=int, help="number of the one pool to make, from 0")
    options = parser.parse_args()
    run = config.load(options.config)
    for number, (path, count) in enumerate(zip(run.pools, run.pool_counts)):
        if path.exists() or options.only not in (None, number):
            continue
        # Each pool has a seed of its own, so that a longer list never changes the pools before it.
        pool.make_pool(path, run.pool_seed + number, count, run.pool_size, run.scene_laws, options.processes)


if __name__ == "__main__":
    main()
