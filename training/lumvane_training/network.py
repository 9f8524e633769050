"""The denoising network: a half-resolution residual U-Net without biases and without any normalisation.

Without biases f(a x) = a f(x) for a > 0, which carries over to noise levels never trained (Mohan et al., ICLR 2020).
Without normalisation or pooling over the image nothing depends on the tile that a pixel happens to lie in.
Only operations that the oldest ML program version knows: conv, conv_transpose, relu, add, pixel_shuffle.
"""

from __future__ import annotations

import torch
from torch import Tensor, nn
from torch.nn import functional


class Block(nn.Module):
    """x + conv(relu(conv(x))), both 3x3 with zero padding."""

    def __init__(self, width: int):
        super().__init__()
        self.first = nn.Conv2d(width, width, 3, padding=1, bias=False)
        self.second = nn.Conv2d(width, width, 3, padding=1, bias=False)

    def forward(self, x: Tensor) -> Tensor:
        return x + self.second(functional.relu(self.first(x)))


def _blocks(width: int, count: int) -> nn.Sequential:
    return nn.Sequential(*(Block(width) for _ in range(count)))


class Denoiser(nn.Module):
    """[n, 3, h, w] -> same, h and w multiples of 2^len(widths). widths[0] works at half resolution, and so on down.

    `blocks` holds the number of blocks of each level (one number: the same for all), those above the lowest level once
    on the way down and once on the way up.
    """

    def __init__(self, widths: tuple[int, ...] = (32, 64, 128), blocks: int | tuple[int, ...] = 1):
        super().__init__()
        self.widths = tuple(widths)
        self.blocks = (blocks,) * len(widths) if isinstance(blocks, int) else tuple(blocks)
        if len(self.blocks) != len(self.widths):
            raise ValueError(f"{len(self.widths)} widths and {len(self.blocks)} counts of blocks")
        self.head = nn.Conv2d(3, widths[0], 2, stride=2, bias=False)
        self.encoders = nn.ModuleList(map(_blocks, self.widths[:-1], self.blocks))
        self.downs = nn.ModuleList(nn.Conv2d(a, b, 2, stride=2, bias=False) for a, b in zip(widths, widths[1:]))
        self.middle = _blocks(widths[-1], self.blocks[-1])
        self.ups = nn.ModuleList(nn.ConvTranspose2d(b, a, 2, stride=2, bias=False) for a, b in zip(widths, widths[1:]))
        self.decoders = nn.ModuleList(map(_blocks, self.widths[:-1], self.blocks))
        self.tail = nn.Conv2d(widths[0], 12, 3, padding=1, bias=False)
        self._initialise()

    def _initialise(self) -> None:
        """Kaiming weights; the last layer of each block and of the net is small, so that training starts at identity."""
        for module in self.modules():
            if isinstance(module, (nn.Conv2d, nn.ConvTranspose2d)):
                nn.init.kaiming_normal_(module.weight, nonlinearity="relu" if module.kernel_size == (3, 3) else "linear")
        for module in self.modules():
            if isinstance(module, Block):
                module.second.weight.data.mul_(0.2)
        self.tail.weight.data.mul_(0.05)

    def trunk(self, x: Tensor) -> Tensor:
        """Everything between the first layer and the residual addition: [n, w0, h/2, w/2] -> [n, 12, h/2, w/2]."""
        skips = []
        for encoder, down in zip(self.encoders, self.downs):
            x = encoder(x)
            skips.append(x)
            x = down(x)
        x = self.middle(x)
        for up, decoder, skip in zip(reversed(self.ups), reversed(self.decoders), reversed(skips)):
            x = decoder(up(x) + skip)
        return self.tail(x)

    def forward(self, image: Tensor) -> Tensor:
        return image + functional.pixel_shuffle(self.trunk(self.head(image)), 2)


def forward_in_bfloat16(network: Denoiser, image: Tensor) -> Tensor:
    """The network with its trunk in bfloat16, the first layer and the residual addition in float32.

    Rounding the image itself to eight bits of mantissa would cost several per cent of the removed noise; rounding what
    the first layer makes of it costs less than one.
    """
    features = network.head(image).to(torch.bfloat16)
    with torch.autocast(image.device.type, torch.bfloat16):
        residual = network.trunk(features)
    return image + functional.pixel_shuffle(residual.float(), 2)


@torch.no_grad()
def move_halfway(network: Denoiser, other: Denoiser) -> None:
    """Replaces the weights by their means with those of another network of the same shape, in place.

    Of two ends of one training the middle is often better than either: what a short run gained stays, and much of what
    it forgot comes back.
    """
    if (network.widths, network.blocks) != (other.widths, other.blocks):
        raise ValueError(f"{other.widths}, {other.blocks} has not the shape of {network.widths}, {network.blocks}")
    for parameter, theirs in zip(network.parameters(), other.parameters()):
        parameter.lerp_(theirs, 0.5)


def parameter_count(network: nn.Module) -> int:
    """Number of weights."""
    return sum(p.numel() for p in network.parameters())


@torch.no_grad()
def round_to_half(network: nn.Module) -> None:
    """Rounds every weight to float16 in place: what the package ships."""
    for parameter in network.parameters():
        parameter.copy_(parameter.half().float())
