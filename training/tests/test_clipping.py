"""The running norm that gradients are clipped by."""

import math

import pytest

from lumvane_training.clipping import NormTracker


def test_the_first_gradient_is_not_clipped_and_sets_the_scale():
    norms = NormTracker(2.0)
    assert norms.limit() == math.inf
    norms.add(3.0)
    assert norms.limit() == pytest.approx(6.0)


def test_an_outlier_moves_the_limit_little():
    norms = NormTracker(2.0)
    norms.add(1.0)
    norms.add(1e9)
    assert norms.limit() < 2.1


def test_the_limit_follows_a_lasting_change():
    norms = NormTracker(2.0)
    norms.add(1.0)
    for _ in range(600):
        norms.add(5.0)
    assert norms.limit() == pytest.approx(10.0, rel=0.05)
