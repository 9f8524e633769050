#!/usr/bin/env python3
"""Exports a checkpoint's averaged weights as a Core ML package."""

from __future__ import annotations

import argparse
from pathlib import Path

from lumvane_training import checkpoint, config, package

TEXTS = {
    1: "Removes noise from astronomical RGB images. Trained on rendered scenes only.",
    2: "Removes noise from astronomical RGB and grayscale images. Trained on rendered scenes only.",
}


def details(state: dict) -> dict[str, str]:
    """The training record as user-defined metadata."""
    return {
        "training.generator": state["generator"], "training.seed": str(state["seed"]),
        "training.pool_seed": str(state["pool_seed"]), "training.steps": str(state["step"]),
        "training.megapixels": f"{state['megapixels']:.0f}", "training.schedule_done": f"{min(state['progress'], 1.0):.2f}",
        "training.megapixels_before": f"{state.get('base_megapixels', 0.0):.0f}",
        "training.started_from": state["start_from"] or "random weights",
        "network.widths": " ".join(map(str, state["widths"])), "network.blocks": str(state["blocks"]),
    }


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("checkpoint", type=Path)
    parser.add_argument("--package-version", type=int, choices=(1, 2), help="default: the checkpoint's own")
    parser.add_argument("--models", type=Path, default=config.TRAINING_ROOT.parent / "models")
    options = parser.parse_args()
    network, state = checkpoint.averaged_network(options.checkpoint)
    version = options.package_version or state["version"]
    model = package.convert(network)
    package.describe(model, f"{version}.0", TEXTS[version], details(state))
    target = options.models / f"Lumvane_weights_v{version}.mlpackage"
    target.parent.mkdir(parents=True, exist_ok=True)
    package.write(model, target)
    print(target, package.operations(target))


if __name__ == "__main__":
    main()
