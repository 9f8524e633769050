#!/usr/bin/env python3
"""Measures a package through the built program and writes one report with tables and pictures.

Everything but the real frames is rendered from seeds that no training uses, most of it by other laws than training's. What
is measured is what users get: files written, the program run on them, files read back.
"""

from __future__ import annotations

import argparse
import json
import sys
import time
from pathlib import Path

import numpy as np
from PIL import Image

from lumvane_training import baselines, config
from lumvane_training.measures import gains, harm, real, sky, stars
from lumvane_training.measures.program import Program, as_stored
from lumvane_training.measures.report import Section

HELD_OUT_SEED = 700_000
ROOT = config.TRAINING_ROOT.parent
PARTS = ("gains", "stars", "noise", "faint", "harm", "seams", "real")


def pictures(program: Program, folder: Path) -> None:
    """Noisy, denoised and true crops of a few frames side by side, among them what goes wrong: weak noise, faint stars."""
    for name, index, level in (("strong-noise", 1, 0.1), ("usual-noise", 3, 0.05), ("weak-noise", 5, 0.01)):
        clean = gains.stretched_frame(HELD_OUT_SEED + 9, index, 512, False)
        rng = np.random.default_rng([HELD_OUT_SEED + 9, index])
        noisy = as_stored(clean + level * gains.noise_field(rng, clean.shape, True))
        row = np.concatenate([i[:, 192:320, 192:320] for i in (noisy, program.tiff(noisy), clean)], axis=2)
        Image.fromarray(np.round(255 * np.clip(row, 0, 1)).astype(np.uint8).transpose(1, 2, 0)).save(folder / f"{name}.png")


def measure(program: Program, options: argparse.Namespace) -> list[Section]:
    """All sections that were asked for."""
    seed, size, count = HELD_OUT_SEED, options.size, options.frames
    methods = {} if options.no_others else baselines.METHODS
    measures = {
        "gains": lambda: gains.measure(program, seed + 1, count, size, options.side, methods),
        "stars": lambda: stars.measure(program, seed + 2, 4 * count, size),
        "noise": lambda: sky.measure_noise(program, seed + 3, 3 * count, size),
        "faint": lambda: sky.measure_faint(program, seed + 4, size),
        "harm": lambda: harm.measure(program, seed + 5, 2 * count, size),
        "seams": lambda: harm.measure_seams(program, seed + 6),
    }
    sections = []
    for part in options.only:
        start = time.monotonic()
        if part == "real":
            section, images = real.measure(program, options.data)
            for name, image in images.items():
                Image.fromarray(image).save(options.out / f"{name}.png")
        else:
            section = measures[part]()
        sections.append(section)
        print(f"{part}: {time.monotonic() - start:.0f} s", file=sys.stderr, flush=True)
    return sections


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("package", type=Path)
    parser.add_argument("--lumvane", type=Path, default=ROOT / "build/release/lumvane", help="the built program")
    parser.add_argument("--model", type=int, choices=(1, 2), help="default: by the package's name")
    parser.add_argument("--out", type=Path, default=Path("report"), help="folder of report.md, figures.json and pictures")
    parser.add_argument("--data", type=Path, default=ROOT.parent / "shared/data", help="folder of real frames, if there is one")
    parser.add_argument("--frames", type=int, default=2, help="frames per row of the table of gains; other sets are multiples")
    parser.add_argument("--size", type=int, default=512)
    parser.add_argument("--side", type=int, default=128, help="side of the crops that the slow methods are compared on")
    parser.add_argument("--no-others", action="store_true", help="leave the other methods out")
    parser.add_argument("--only", nargs="+", choices=PARTS, default=PARTS)
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    model = options.model or (1 if "_v1" in options.package.name else 2)
    program = Program(options.lumvane, options.package, model)
    sections = measure(program, options)
    pictures(program, options.out)
    gates = [gate for section in sections for gate in section.gates]
    head = [f"# Report on {options.package.name}, version {model}", "",
            f"Aims met: {sum(g.met for g in gates)} of {len(gates)}. {program.runs} runs of the program.", ""]
    (options.out / "report.md").write_text("\n".join(head) + "\n" + "\n".join(s.text() for s in sections))
    (options.out / "figures.json").write_text(json.dumps({s.title: s.figures for s in sections}, indent=1, default=float) + "\n")
    print(options.out / "report.md")


if __name__ == "__main__":
    main()
