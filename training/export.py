#!/usr/bin/env python3
"""Exports a checkpoint's averaged weights as a Core ML package."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

import numpy as np

from lumvane_training import checkpoint, config, network as networks, package, shipped, tiles
from lumvane_training.measures.program import Program, as_stored

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
        "network.widths": " ".join(map(str, state["widths"])), "network.blocks": " ".join(map(str, state["blocks"])),
    }


def disagreement(program: Program, network: networks.Denoiser) -> float:
    """RMS difference of the built program and PyTorch inside one tile, in shares of the removed noise.

    Away from the border, because there the program's tiles begin elsewhere and see more of the image.
    """
    rng = np.random.default_rng(1)
    image = as_stored(0.2 + 0.05 * rng.standard_normal((3, package.TILE, package.TILE)))
    # The package holds the weights in float16; PyTorch's answer has to come from the same ones.
    networks.round_to_half(network)
    expected = tiles.run(network, image)
    inner = np.s_[:, 112:-112, 112:-112]
    difference, removed = (program.tiff(image) - expected)[inner], (expected - image)[inner]
    return float(np.sqrt(np.mean(difference**2) / np.mean(removed**2)))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("checkpoint", type=Path)
    parser.add_argument("--package-version", type=int, choices=(1, 2), help="default: the checkpoint's own")
    parser.add_argument("--models", type=Path, default=config.TRAINING_ROOT.parent / "models")
    parser.add_argument("--halfway-to", type=Path, metavar="PACKAGE", help="export the means of both networks' weights")
    parser.add_argument("--lumvane", type=Path, help="built program that has to agree with PyTorch within a hundredth")
    options = parser.parse_args()
    network, state = checkpoint.averaged_network(options.checkpoint)
    version = options.package_version or state["version"]
    record = details(state)
    if options.halfway_to:
        networks.move_halfway(network, shipped.network_of(options.halfway_to)[0])
        record["training.halfway_to"] = options.halfway_to.name
    model = package.convert(network)
    package.describe(model, f"{version}.0", TEXTS[version], record)
    target = options.models / f"Lumvane_weights_v{version}.mlpackage"
    target.parent.mkdir(parents=True, exist_ok=True)
    package.write(model, target)
    print(target, package.operations(target))
    if options.lumvane:
        share = disagreement(Program(options.lumvane, target, version), network)
        print(f"program against PyTorch: {share:.5f} of the removed noise")
        if share > 0.01:
            sys.exit("the program and PyTorch disagree")


if __name__ == "__main__":
    main()
