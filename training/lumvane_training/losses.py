"""The training loss: errors in units of the noise that each pixel really has, pixel by pixel and summed over boxes.

After a stretch the noise of a star's core is a small part of the sky's: plain absolute errors hardly see the core, and
the star comes out too dim in linear light. So every error is divided by the pixel's own noise, and box sums of it are
taken back to linear light, where they are errors of flux in standard deviations of the box's noise. Squares and not
absolute values, because their optimum is the expected flux; that of absolute errors is the median, which for a faint
star is no star at all. Beyond a few deviations the squares go over into straight lines, so that nothing rare rules.

No adversarial and no perceptual term: both invent structure.
"""

from __future__ import annotations

from typing import NamedTuple

import torch
from torch import Tensor
from torch.nn import functional

NOISE_FLOOR = 1.5e-3
BOX_FLOOR = 7e-4
"""Added in squares to the noise after the stretch, of a pixel and of a box's mean: errors far below do not matter.

Both shrink towards saturation, down to LEAST_FLOOR of themselves, because the inverse stretch magnifies errors there.
"""
LEAST_FLOOR = 0.1
PIXEL_LIMIT = 2.0
PIXEL_GOAL = 0.005
BOX_LIMIT = 4.0
BOX_GOAL = 0.05
"""Below its goal a patch's term counts for less and less."""
BOX_WEIGHT = 1.0
BOX_SHARES = {2: 0.14, 4: 0.22, 8: 0.28, 16: 0.18, 32: 0.18}
OBJECT_GAIN = 10.0
OBJECT_CONTRAST = 6.0
ABSOLUTE_WEIGHT = 0.5
SMOOTHING = 1e-3
SHIFT_WEIGHT = 4.0
LATTICE_WEIGHT = 8.0
GRAY_WEIGHT = 5.0
BORDER = 8


class Batch(NamedTuple):
    """A batch [n, 3, p, p] each, p a multiple of 32: the frames, and the noise's deviation after and before the stretch.

    `linear_spread` is in units of the background's linear noise.
    """

    noisy: Tensor
    clean: Tensor
    spread: Tensor
    linear_spread: Tensor


def border_weight(patch: int, device: torch.device) -> Tensor:
    """[1, 1, patch, patch]: 0.1 at the border rising to 1 over 8 px; border outputs are blended away but not thrown away."""
    distance = torch.arange(patch, dtype=torch.float32, device=device)
    distance = torch.minimum(distance, patch - 1 - distance)
    ramp = (0.1 + 0.9 * distance / BORDER).clamp(max=1.0)
    weight = torch.minimum(ramp[:, None], ramp[None, :])
    return weight[None, None]


def patch_mean(values: Tensor) -> Tensor:
    """[n]: mean over a patch."""
    return values.mean(dim=(1, 2, 3))


def gray_patches(noisy: Tensor) -> Tensor:
    """[n, 1, 1, 1]: 1 for patches of three equal planes, else 0."""
    return (noisy == noisy[:, :1]).all(dim=(1, 2, 3)).to(noisy.dtype)[:, None, None, None]


def floors(clean: Tensor) -> Tensor:
    """Factor of the two floors: 1 up to three quarters of full range, then falling with the distance to saturation."""
    return (4.0 * (1.0 - clean)).clamp(LEAST_FLOOR, 1.0)


def pixel_noise(batch: Batch) -> Tensor:
    """Deviation of the noise of each pixel after the stretch, floor included."""
    return (batch.spread.square() + (NOISE_FLOOR * floors(batch.clean)).square()).sqrt()


def linear_error(error: Tensor, clean: Tensor) -> Tensor:
    """Errors after a stretch as their inverse bends them: e / (1 - e / (1 - y)), to be multiplied by the inverse's slope.

    Exact for strong midtones curves, whose inverse falls off as 1 / (1 - y): too bright is worse than too dim.
    """
    return error / (1.0 - (error / (1.02 - clean)).clamp(-1.0, 0.5))


def _huber(z: Tensor, limit: float) -> Tensor:
    return functional.huber_loss(z, torch.zeros_like(z), reduction="none", delta=limit)


def _object_weight(clean: Tensor, spread: Tensor, size: int) -> Tensor:
    """1 for boxes of sky, rising to 1 + OBJECT_GAIN for boxes that stand out from their surroundings.

    The contrast is that of the clean frame in deviations of the box's noise, so that the weight of faint objects, where
    it would favour false ones, stays near 1.
    """
    side = clean.shape[-1]
    if side % 2 or side < 4:
        return torch.ones_like(clean)
    around = functional.avg_pool2d(clean, 3, stride=1, padding=1, count_include_pad=False)
    contrast = (clean - around).abs() * size / spread
    return 1.0 + OBJECT_GAIN * (contrast / OBJECT_CONTRAST).clamp(max=1.0).square()


def _halved(image: Tensor) -> Tensor:
    """Means over 2 x 2 pixels."""
    n, c, h, w = image.shape
    return image.view(n, c, h // 2, 2, w // 2, 2).mean(dim=(3, 5))


def _boxes(error: Tensor, batch: Batch, noise: Tensor, border: Tensor, gray: Tensor) -> Tensor:
    """[n]: mean over box sizes of the Huber loss of flux errors, per channel and summed over the channels."""
    flux = linear_error(error, batch.clean) / noise * batch.linear_spread
    variance = batch.linear_spread.square()
    tolerance = variance * (BOX_FLOOR * floors(batch.clean) / noise).square()
    # Equal planes carry equal noise: their sum's deviation is three planes', not the square root of three.
    share = torch.where(gray > 0, 3.0, 1.0)
    clean, total = batch.clean, error.new_zeros(len(error))
    for size, part in BOX_SHARES.items():
        flux, border = _halved(flux), _halved(border)
        with torch.no_grad():
            variance, tolerance, clean, noise = (_halved(t) for t in (variance, tolerance, clean, noise))
            allowed = variance / size**2 + tolerance
            important = border * _object_weight(clean, noise, size)
            scale = allowed.rsqrt()
            joint_scale = (share * allowed.sum(dim=1, keepdim=True)).rsqrt()
        total = total + 0.5 * part * patch_mean(important * _huber(flux * scale, BOX_LIMIT))
        joint = flux.sum(dim=1, keepdim=True) * joint_scale
        total = total + 0.5 * part * patch_mean(important.mean(dim=1, keepdim=True) * _huber(joint, BOX_LIMIT))
    return total


def _lattice(error: Tensor) -> Tensor:
    """[n]: how far the mean errors on the four phases of the 2 px lattice lie apart.

    The trunk works at half resolution, so that each phase has output weights of its own, and a pattern as faint as a
    hundredth of the noise shows on a smooth sky.
    """
    phases = functional.pixel_unshuffle(error, 2).unflatten(1, (-1, 4)).mean(dim=(-2, -1))
    return (phases - phases.mean(dim=2, keepdim=True)).abs().mean(dim=(1, 2))


def loss_terms(output: Tensor, batch: Batch) -> dict[str, Tensor]:
    """The weighted terms of the loss by name; their sum is the loss.

    Pixel and absolute errors are averaged over a patch before their logarithm is averaged over the batch: a patch counts
    by how much better it gets in relation, as it does in decibels, however loud or difficult it is.
    """
    output, batch = output.contiguous(), Batch(*(t.contiguous() for t in batch))
    error = output - batch.clean
    border = border_weight(error.shape[-1], error.device)
    noise = pixel_noise(batch)
    scaled = error / noise
    gray = gray_patches(batch.noisy)
    pixel = patch_mean(border * _huber(scaled, PIXEL_LIMIT))
    absolute = patch_mean(border * torch.sqrt(error.square() + SMOOTHING**2))
    boxes = _boxes(error, batch, noise, border, gray)
    apart = (output - output.mean(dim=1, keepdim=True)).abs() / noise
    return {
        "pixel": torch.log(pixel + PIXEL_GOAL).mean(),
        # The root stands between the mean and its logarithm: frames with stars that are far off have to keep some weight.
        "boxes": BOX_WEIGHT * 2.0 * torch.sqrt(boxes + BOX_GOAL).mean(),
        "absolute": ABSOLUTE_WEIGHT * torch.log(absolute + SMOOTHING).mean(),
        # Clamped, because the mean shift is a matter of the sky and not of a few cores.
        "shift": SHIFT_WEIGHT * scaled.clamp(-1.0, 1.0).mean(dim=(2, 3)).abs().mean(),
        "lattice": LATTICE_WEIGHT * (_lattice(error) / patch_mean(noise)).mean(),
        "gray": GRAY_WEIGHT * (gray * apart).mean(),
    }
