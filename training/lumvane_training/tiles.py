"""A network over a whole image in one piece, for checks against the built program."""

from __future__ import annotations

import numpy as np
import torch

from .network import Denoiser

Array = np.ndarray


@torch.no_grad()
def run(network: Denoiser, image: Array) -> Array:
    """The network on [3, h, w] in one piece; sides that are not multiples of 8 are extended by reflection."""
    height, width = image.shape[1:]
    padded = np.pad(image, ((0, 0), (0, -height % 8), (0, -width % 8)), mode="symmetric")
    return network(torch.from_numpy(padded)[None])[0, :, :height, :width].numpy()
