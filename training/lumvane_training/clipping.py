"""Gradient clipping at a multiple of the norm that gradients have had lately, whatever the loss's scale is."""

from __future__ import annotations

import math

MEMORY = 0.98


class NormTracker:
    """A running mean of gradient norms, each counted up to the limit of its time so that no outlier lifts it."""

    def __init__(self, ratio: float):
        self.ratio = ratio
        self.usual: float | None = None

    def limit(self) -> float:
        """Norm at which to clip now; none before the first gradient."""
        return math.inf if self.usual is None else self.ratio * self.usual

    def add(self, norm: float) -> None:
        """Takes note of a gradient's norm before clipping."""
        if self.usual is None:
            self.usual = norm
        else:
            self.usual = MEMORY * self.usual + (1.0 - MEMORY) * min(norm, self.limit())
