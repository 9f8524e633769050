"""Training configurations: TOML files, one per network."""

from __future__ import annotations

import tomllib
from dataclasses import dataclass, field
from pathlib import Path

from .frames import FrameLaws
from .scenes import SceneLaws

TRAINING_ROOT = Path(__file__).resolve().parent.parent


@dataclass(frozen=True)
class Phase:
    """A stretch of the run: until this share of the time, patches of this size in batches of this many."""

    until: float
    patch: int
    batch: int


@dataclass(frozen=True)
class Config:
    """One training run."""

    name: str
    version: int
    seed: int
    widths: tuple[int, ...]
    blocks: int | tuple[int, ...]
    pools: list[Path]
    pool_seed: int
    pool_size: int
    pool_counts: list[int]
    minutes: float
    learning_rate: float
    warmup_steps: int
    average_decay: float
    phases: list[Phase]
    frame_laws: FrameLaws
    scene_laws: SceneLaws
    start_from: Path | None = None
    weight_decay: float = 1e-4
    clip_ratio: float = 2.0
    """Gradients are clipped at this multiple of their recent norm."""
    precision: str = "float32"
    """Of the network's trunk: float32 or bfloat16."""
    coverage: float = 1.0
    fuse: bool = True
    """Compile the loss to fused loops (needs a C++ compiler; takes a minute or two at the start)."""
    raw: dict = field(default_factory=dict)


def _levels(blocks: int | list[int]) -> int | tuple[int, ...]:
    return blocks if isinstance(blocks, int) else tuple(blocks)


def load(path: Path) -> Config:
    """Reads a configuration; paths in it are relative to training/."""
    table = tomllib.loads(path.read_text())
    pool, run, network = table["pool"], table["run"], table["network"]
    start = run.get("start_from")
    precision = run.get("precision", "float32")
    if precision not in ("float32", "bfloat16"):
        raise ValueError(f"{path}: precision is {precision}, not float32 or bfloat16")
    return Config(
        name=table["name"], version=table["version"], seed=table["seed"],
        widths=tuple(network["widths"]), blocks=_levels(network["blocks"]),
        pools=[TRAINING_ROOT / p for p in pool["files"]], pool_seed=pool["seed"], pool_size=pool["size"],
        pool_counts=pool["counts"],
        minutes=run["minutes"], learning_rate=run["learning_rate"], warmup_steps=run["warmup_steps"],
        average_decay=run["average_decay"], phases=[Phase(**p) for p in run["phases"]], coverage=run.get("coverage", 1.0),
        clip_ratio=run.get("clip_ratio", 2.0), precision=precision, fuse=run.get("fuse", True),
        start_from=TRAINING_ROOT / start if start else None,
        frame_laws=FrameLaws.from_table(table.get("frames", {})),
        scene_laws=SceneLaws.from_table(table.get("scenes", {})), raw=table)
