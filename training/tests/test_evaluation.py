"""The measures of the evaluation."""

import numpy as np
import pytest

from lumvane_training import baselines, evaluation, frames, photometry, psf, scenes, stars


def test_psnr():
    truth = np.zeros((3, 8, 8), np.float32)
    assert photometry.psnr(truth + 0.1, truth) == pytest.approx(20.0, abs=1e-4)


def test_aperture_flux_ignores_a_flat_background():
    shape = psf.PsfShape(fwhm=3.0, beta=5.0)
    star = stars.StarList(np.array([30.2]), np.array([33.6]), np.array([50.0]), np.ones((1, 3), np.float32))
    plane = scenes.render_points(np.full((3, 64, 64), 2.0, np.float32), star, shape)[1]
    assert photometry.aperture_flux(plane, 30.2, 33.6, 6.0) == pytest.approx(50.0, rel=0.03)


def test_isolated():
    rows, columns = np.array([10.0, 12.0, 50.0]), np.array([10.0, 10.0, 50.0])
    assert photometry.isolated(rows, columns, np.array([1.0, 100.0, 1.0]), 5.0).tolist() == [False, True, True]


def test_lattice_finds_a_checkerboard():
    pattern = np.indices((32, 32)).sum(axis=0) % 2 * 0.2
    assert photometry.lattice(pattern) == pytest.approx(0.1)
    assert photometry.lattice(np.full((32, 32), 0.3)) == pytest.approx(0.0)


@pytest.mark.parametrize("name", list(baselines.ALL))
def test_baselines_keep_flat_frames_and_remove_noise(name):
    rng = np.random.default_rng(1)
    flat = np.full((3, 96, 96), 0.4, np.float32)
    assert np.allclose(baselines.ALL[name](flat), flat, atol=1e-5)
    noisy = flat + 0.05 * rng.standard_normal(flat.shape, dtype=np.float32)
    assert photometry.psnr(baselines.ALL[name](noisy), flat) > photometry.psnr(noisy, flat) + 5


def test_identity_gains_nothing_and_harms_nothing():
    cases = list(evaluation.held_out(1, 4, 96, scenes.SceneLaws(), "some"))
    identity = lambda image: image  # noqa: E731
    assert all(abs(row["network"]) < 1e-6 for row in evaluation.gains(cases, identity))
    assert evaluation.no_harm(cases, identity)["worst"] == 0.0


def test_truth_has_no_flux_error():
    rows = evaluation.star_errors(5, 6, 128, lambda image: image, scenes.SceneLaws(leaves_share=0.0, fwhm=(2.0, 3.0)))
    assert rows and all(np.isclose(r["before"], r["after"]) for r in rows)


def test_measured_sigma():
    light = np.zeros((3, 128, 128), np.float32)
    pair = frames.make_pair(np.random.default_rng(3), light, mode="other", mono=False)
    pair.noisy = pair.clean + 0.03 * np.random.default_rng(4).standard_normal(pair.clean.shape).astype(np.float32)
    assert evaluation.measured_sigma(pair) == pytest.approx(0.03, rel=0.03)
