"""Checkpoint files: everything a stopped run needs to go on, and the averaged weights that are shipped."""

from __future__ import annotations

import os
from pathlib import Path

import torch

from . import growth, shipped
from .network import Denoiser


def save(path: Path, state: dict) -> None:
    """Writes beside the target first, so that a killed run never leaves half a checkpoint."""
    partial = path.with_suffix(".partial")
    torch.save(state, partial)
    os.replace(partial, path)


def load(path: Path) -> dict:
    """A checkpoint on the CPU."""
    return torch.load(path, map_location="cpu", weights_only=True)


def averaged_network(path: Path) -> tuple[Denoiser, dict]:
    """The network with its averaged weights, and the checkpoint's record (steps, megapixels, configuration)."""
    state = load(path)
    network = Denoiser(state["widths"], state["blocks"])
    network.load_state_dict(state["average"])
    return network.eval(), state


def starting_point(path: Path, network: Denoiser) -> tuple[dict, float]:
    """Weights for `network` from a checkpoint's averaged ones or from a package, and the megapixels that went into them.

    A smaller network's weights are grown into the larger one, which then starts with the smaller one's answers.
    """
    if path.suffix == ".mlpackage":
        small, details = shipped.network_of(path)
        before = sum(float(details.get(name, 0)) for name in ("training.megapixels", "training.megapixels_before"))
    else:
        small, state = averaged_network(path)
        before = state["megapixels"] + state.get("base_megapixels", 0.0)
    return growth.grown(small, network), before
