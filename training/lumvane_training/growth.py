"""Weights of a small network as the start of a larger one that gives the same answers.

What a small network learnt in hours need not be learnt again: the larger one begins where it stood and has only to find
a use for its new channels and blocks.
"""

from __future__ import annotations

import torch
from torch import nn

from .network import Denoiser


def _inner(weight: torch.Tensor, inputs: int, outputs: int, transposed: bool) -> tuple[torch.Tensor, torch.Tensor]:
    """Views of a layer's weights: from the first `inputs` to the first `outputs` channels, and from the others to those."""
    if transposed:
        return weight[:inputs, :outputs], weight[inputs:, :outputs]
    return weight[:outputs, :inputs], weight[:outputs, inputs:]


@torch.no_grad()
def grown(small: Denoiser, large: Denoiser) -> dict[str, torch.Tensor]:
    """The state of `large` with the weights of `small` in it; as many levels, no level narrower or with fewer blocks.

    Old channels see old channels alone, so that they keep their values; new ones see everything through `large`'s own
    random weights and are seen by nothing old: their weights there are zero, but their gradients are not. A new block's
    second layer is zero, which makes the block an identity.
    """
    if len(small.widths) != len(large.widths) or any(
            s > t for s, t in zip(small.widths + small.blocks, large.widths + large.blocks)):
        raise ValueError(f"{small.widths}, {small.blocks} does not grow into {large.widths}, {large.blocks}")
    old, state = dict(small.named_modules()), large.state_dict()
    for name, module in large.named_modules():
        if not isinstance(module, (nn.Conv2d, nn.ConvTranspose2d)):
            continue
        weight = state[name + ".weight"] = module.weight.detach().clone()
        if name not in old:
            if name.endswith(".second"):
                weight.zero_()
            continue
        transposed = isinstance(module, nn.ConvTranspose2d)
        same, others = _inner(weight, old[name].in_channels, old[name].out_channels, transposed)
        same.copy_(old[name].weight)
        others.zero_()
    return state
