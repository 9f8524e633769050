"""Stretches and training pairs."""

import numpy as np
import pytest

from lumvane_training import feeder, frames, scenes, stretch

PLAIN = dict(perfect_share=0.0, zero_channel_share=0.0, outlier_share=0.0, clouds_share=0.0, black_point_share=0.0)
"""Shares of everything that would stand in the way of measuring noise: none."""


def test_midtones_formula():
    assert stretch.midtones(0.25, np.float64(0.25)) == pytest.approx(0.5)
    assert stretch.midtones(0.5, np.float64(0.3)) == pytest.approx(0.3)
    assert stretch.midtones(0.1, np.array([-1.0, 0.0, 1.0, 2.0])).tolist() == [0.0, 0.0, 1.0, 1.0]


def test_midtones_inverse():
    x = np.linspace(0.001, 0.999, 500)
    for balance in (0.003, 0.2, 0.7):
        assert np.allclose(stretch.inverse_midtones(balance, stretch.midtones(balance, x)), x, atol=1e-12)


def test_linear_mode_worked_example():
    # Median 0.01 and normalised MAD 0.002 give shadows 0.0044 and a balance of 0.0166139241.
    deviation = 0.002 / stretch.MAD_TO_SIGMA
    plane = np.array([0.01 - 2 * deviation, 0.01 - deviation, 0.01, 0.01 + deviation, 0.01 + 2 * deviation])
    channel = stretch.linear_mode_channel(plane, -2.8, 0.25)
    assert channel.shadows == pytest.approx(0.0044)
    assert channel.midtones == pytest.approx(0.0166139241, abs=1e-9)
    assert stretch.apply_linear_mode(np.array([0.01]), channel)[0] == pytest.approx(0.25)
    assert np.allclose(stretch.undo_linear_mode(stretch.apply_linear_mode(plane, channel), channel), plane)


def test_pure_sky_has_the_noise_that_theory_says():
    rng = np.random.default_rng(1)
    plane = 0.02 + 0.001 * rng.standard_normal((400, 400))
    seen = stretch.apply_linear_mode(plane, stretch.linear_mode_channel(plane, -2.8, 0.25))
    assert stretch.MAD_TO_SIGMA * np.median(np.abs(seen - np.median(seen))) == pytest.approx(0.067, abs=0.002)
    assert (seen == 0).mean() == pytest.approx(0.0026, abs=0.001)


@pytest.mark.parametrize("seed", range(12))
def test_other_curves_are_monotonic_and_hit_the_background(seed):
    rng = np.random.default_rng(seed)
    curve = stretch.other_curve(rng, 0.02, 0.2)
    y = curve(np.linspace(0, 1, 2000))
    assert np.all(np.diff(y) >= -1e-9) and y.min() >= 0 and y.max() <= 1 + 1e-9
    assert curve(np.float64(0.02)) == pytest.approx(0.2, abs=0.09)


@pytest.fixture(scope="module")
def light():
    return scenes.sky_scene(np.random.default_rng(3), 256, scenes.SceneLaws()).light


@pytest.mark.parametrize("mode", ["linear", "other", "subtracted", "unstretched"])
@pytest.mark.parametrize("mono", [False, True])
def test_pairs_are_in_range(light, mode, mono):
    for seed in range(4):
        pair = frames.make_pair(np.random.default_rng(seed), light, mode=mode, mono=mono)
        for image in (pair.noisy, pair.clean):
            assert image.shape == (3, 256, 256) and image.dtype == np.float32
            assert image.min() >= 0 and image.max() <= 1 and np.isfinite(image).all()
        if mono:
            assert np.array_equal(pair.noisy[0], pair.noisy[1]) and np.array_equal(pair.clean[0], pair.clean[2])


def test_wanted_noise_arrives_after_the_stretch():
    """Over many frames the measured noise at the background follows the request within the per-channel spread."""
    dark = np.zeros((3, 256, 256), np.float32)
    ratios = []
    for seed in range(20):
        pair = frames.make_pair(np.random.default_rng(seed), dark, wanted=0.02, mode="other", mono=True)
        ratios.append((pair.noisy - pair.clean)[0].std() / 0.02)
    assert np.median(ratios) == pytest.approx(1.0, abs=0.2)


def test_symmetries_are_eight_different_ones():
    image = np.arange(16.0).reshape(4, 4)
    assert len({feeder.symmetry(image, n).tobytes() for n in range(8)}) == 8


def test_crops_are_aligned():
    rng = np.random.default_rng(2)
    image = rng.random((3, 64, 64), dtype=np.float32)
    for crop in feeder.crops(rng, np.stack([image, image + 1, image + 2]), 16, 5):
        assert crop.shape == (3, 3, 16, 16)
        assert np.allclose(crop[1] - crop[0], 1) and np.allclose(crop[2] - crop[0], 2)


def test_rich_places_are_cropped_more_often():
    rng = np.random.default_rng(3)
    clean = np.zeros((3, 64, 64), np.float32)
    clean[:, :, 32:] = 0.1 * rng.random((3, 64, 32), dtype=np.float32)
    marks = np.broadcast_to((clean > 0).any(axis=0), clean.shape).astype(np.float32)
    sums = feeder.structure(clean, np.full_like(clean, 0.01))
    shares = [np.mean([crop.mean() for crop in feeder.crops(np.random.default_rng(4), marks[None], 8, 2000, s)])
              for s in (None, sums)]
    # Half of the crops are as likely on either side; of the others every place wins that is the richer of two.
    assert shares[0] == pytest.approx(0.5, abs=0.03)
    assert shares[1] == pytest.approx(0.62, abs=0.03)


@pytest.mark.parametrize("mode", frames.MODES)
def test_spread_is_the_noise_that_the_frame_has(light, mode):
    """Measured in deviations of its own spread, the middle of the noise has about unit width in every mode."""
    laws = frames.FrameLaws(**PLAIN, blank_share=0.0)
    widths = []
    for seed in range(10):
        pair = frames.make_pair(np.random.default_rng(seed), light, laws, wanted=0.03, mode=mode, mono=False)
        ratio = (pair.noisy - pair.clean) / np.maximum(pair.spread, 1e-4)
        widths.append(0.5 * (np.percentile(ratio, 84.1) - np.percentile(ratio, 15.9)))
        assert pair.spread.shape == pair.linear_spread.shape == pair.noisy.shape
    assert np.median(widths) == pytest.approx(1.0, abs=0.12)


def test_linear_spread_is_one_at_the_background(light):
    pair = frames.make_pair(np.random.default_rng(5), light, mode="linear", mono=False)
    for plane, spread in zip(pair.linear_clean, pair.linear_spread):
        sky = np.abs(plane / np.median(plane) - 1) < 0.01
        assert np.median(spread[sky]) == pytest.approx(1.0, abs=0.02)


def test_symmetric_frames_have_no_skew():
    """The point of that mode: mean and median of a sky's noise agree, which no stretch of noise leaves."""
    dark = np.zeros((3, 256, 256), np.float32)
    laws = frames.FrameLaws(**PLAIN)
    shifts = {"symmetric": [], "linear": []}
    for mode, values in shifts.items():
        for seed in range(12):
            pair = frames.make_pair(np.random.default_rng(seed), dark, laws, wanted=0.06, mode=mode, mono=True)
            values.append(float((pair.noisy - pair.clean).mean() / pair.spread.mean()))
    assert abs(np.mean(shifts["symmetric"])) < 0.015
    assert np.mean(shifts["linear"]) < -0.05


def test_perfect_frames_carry_no_noise(light):
    laws = frames.FrameLaws(perfect_share=1.0, zero_channel_share=0.0)
    pair = frames.make_pair(np.random.default_rng(1), light, laws, mode="linear")
    assert np.abs(pair.noisy - pair.clean).max() <= 0.5 / 255 + 1e-6 and pair.spread.max() == 0


def test_clouds_are_in_the_truth_and_far_below_the_noise():
    dark = np.zeros((3, 256, 256), np.float32)
    for seed in range(6):
        with_clouds, without = (
            frames.make_pair(np.random.default_rng(seed), dark, frames.FrameLaws(**{**PLAIN, "clouds_share": share},
                                                                                clouds_height=(0.4, 0.4)),
                             wanted=0.03, mode="linear", mono=True) for share in (1.0, 0.0))
        clouds = (with_clouds.linear_clean - without.linear_clean) / with_clouds.sigma[0]
        assert 0.2 < np.ptp(clouds) < 2.0


def test_black_points_leave_halved_noise_over_a_black_truth():
    """Where the black point lies above the sky, the truth is 0 and half or more of the noise is cut away."""
    dark = np.zeros((3, 256, 256), np.float32)
    laws = frames.FrameLaws(**{**PLAIN, "black_point_share": 1.0})
    black = 0
    for seed in range(12):
        pair = frames.make_pair(np.random.default_rng(seed), dark, laws, wanted=0.03, mode="symmetric", mono=False)
        assert pair.noisy.min() >= 0 and pair.clean.min() >= 0
        for noisy, clean in zip(pair.noisy, pair.clean):
            if clean.max() == 0:
                black += 1
                assert (noisy == 0).mean() >= 0.49
    assert black > 0


def test_shares_of_zero_draw_nothing(light):
    """What is left out changes no other number, so that evaluation frames stay what they were when laws are added."""
    def noisy(share):
        laws = frames.FrameLaws(**{**PLAIN, "black_point_share": share})
        return frames.make_pair(np.random.default_rng(4), light, laws, mode="linear", mono=True).noisy

    assert np.array_equal(noisy(0.0), noisy(1.0))
