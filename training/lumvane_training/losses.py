"""The training loss: smooth absolute error, pooled errors that stand for flux, and the gradient of the error.

No adversarial and no perceptual term: both invent structure. Squared error alone blurs, absolute error alone drops faint
stars; the pooled terms punish a star or a nebula that comes out slightly dim over its whole area, the second of them in
units that are closer to linear light.
"""

from __future__ import annotations

import functools

import torch
from torch import Tensor
from torch.nn import functional

SMOOTHING = 1e-3
POOLS = (2, 4, 8)
POOL_WEIGHT = 0.3
GRADIENT_WEIGHT = 0.05
BRIGHT_WEIGHT = 0.15
BRIGHT_LIMIT = 8.0
LATTICE_WEIGHT = 0.5
BORDER = 8


@functools.lru_cache(maxsize=8)
def border_weight(patch: int, device: torch.device) -> Tensor:
    """[1, 1, patch, patch]: 0.1 at the border rising to 1 over 8 px; border outputs are blended away but not thrown away."""
    distance = torch.arange(patch, dtype=torch.float32, device=device)
    distance = torch.minimum(distance, patch - 1 - distance)
    ramp = (0.1 + 0.9 * distance / BORDER).clamp(max=1.0)
    weight = torch.minimum(ramp[:, None], ramp[None, :])
    return weight[None, None]


def patch_weights(noisy: Tensor, clean: Tensor) -> Tensor:
    """[n, 1, 1, 1]: 1 / (rms noise + 0.004), mean 1; otherwise the loudest patches own the gradient."""
    loudness = (noisy - clean).square().mean(dim=(1, 2, 3)).sqrt()
    weight = 1.0 / (loudness + 0.004)
    return (weight / weight.mean())[:, None, None, None]


def brightness_gain(clean: Tensor) -> Tensor:
    """About 1 at the sky, rising as 1 / (1 - y) towards saturation, at most BRIGHT_LIMIT.

    A stretch compresses bright light by about (1 - y): an error that looks small in a star's core there is a large one
    in linear flux, and this undoes it.
    """
    return (0.8 / (1.05 - clean.clamp(0.0, 1.0))).clamp(max=BRIGHT_LIMIT)


def _pools(error: Tensor, weight: Tensor) -> Tensor:
    """Sum over scales of the weighted mean of |pooled error|."""
    total = error.new_zeros(())
    for _ in POOLS:
        error, weight = functional.avg_pool2d(error, 2), functional.avg_pool2d(weight, 2)
        total = total + (weight * error.abs()).mean()
    return total


def _lattice(error: Tensor) -> Tensor:
    """[n, 1, 1, 1]: how far the mean errors on the four phases of the 2 px lattice lie apart.

    The trunk works at half resolution, so that each phase has output weights of its own, and a pattern as faint as a
    hundredth of the noise shows on a smooth sky.
    """
    phases = functional.pixel_unshuffle(error, 2).unflatten(1, (-1, 4)).mean(dim=(-2, -1))
    return (phases - phases.mean(dim=2, keepdim=True)).abs().mean(dim=(1, 2))[:, None, None, None]


def denoising_loss(output: Tensor, noisy: Tensor, clean: Tensor) -> Tensor:
    """The weighted loss of a batch [n, 3, p, p], p a multiple of 8."""
    error = output - clean
    weight = patch_weights(noisy, clean) * border_weight(error.shape[-1], error.device)
    loss = (weight * torch.sqrt(error.square() + SMOOTHING**2)).mean()
    loss = loss + POOL_WEIGHT * _pools(error, weight)
    loss = loss + BRIGHT_WEIGHT * _pools(error * brightness_gain(clean), weight)
    loss = loss + LATTICE_WEIGHT * (patch_weights(noisy, clean) * _lattice(error)).mean()
    for axis in (-2, -1):
        slope = torch.diff(error, dim=axis)
        part = weight[..., 1:, :] if axis == -2 else weight[..., 1:]
        loss = loss + 0.5 * GRADIENT_WEIGHT * (part * slope.abs()).mean()
    return loss
