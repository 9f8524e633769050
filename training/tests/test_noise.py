"""The noise has the statistics that were asked for."""

import numpy as np
import pytest

from lumvane_training import noise

SIZE = 256


def flat(level=0.1, channels=3):
    return np.full((channels, SIZE, SIZE), level, np.float32)


def autocorrelation(plane, row, column):
    centred = plane - plane.mean()
    return float((centred * np.roll(centred, (row, column), (0, 1))).mean() / centred.var())


@pytest.mark.parametrize("mosaic", ["none", "bilinear", "gradient"])
@pytest.mark.parametrize("registration", [0.0, 0.4])
def test_sigma_is_the_one_asked_for(mosaic, registration):
    rng = np.random.default_rng(1)
    recipe = noise.NoiseRecipe(mosaic=mosaic, registration=registration)
    sigma = np.array([0.01, 0.02, 0.005])
    clean = flat()
    error = noise.add_noise(rng, clean, np.full(3, 0.1), sigma, recipe) - clean
    assert np.allclose(error.std(axis=(1, 2)), sigma, rtol=0.01)
    assert np.all(np.abs(error.mean(axis=(1, 2))) < 0.05 * sigma)


def test_white_noise_is_white_and_independent():
    rng = np.random.default_rng(2)
    field = noise.correlated(rng.standard_normal((3, SIZE, SIZE), dtype=np.float32), noise.NoiseRecipe())
    assert abs(autocorrelation(field[0], 0, 1)) < 0.02
    assert abs(float((field[0] * field[1]).mean())) < 0.02


def test_registration_kernel_autocorrelation():
    f = 0.5
    kernel = np.array([f / 2, 1 - f, f / 2])
    expected = np.convolve(kernel, kernel)[3] / np.sum(kernel**2)
    rng = np.random.default_rng(3)
    recipe = noise.NoiseRecipe(registration=f)
    field = noise.correlated(rng.standard_normal((1, 512, 512), dtype=np.float32), recipe)
    assert autocorrelation(field[0], 0, 1) == pytest.approx(expected, abs=0.02)
    assert autocorrelation(field[0], 1, 0) == pytest.approx(expected, abs=0.02)


@pytest.mark.parametrize("method", ["bilinear", "gradient"])
def test_demosaic_keeps_a_grey_frame(method):
    assert np.allclose(noise.demosaic(np.full((16, 16), 0.3, np.float32), method), 0.3, atol=1e-6)


def test_bilinear_demosaic_keeps_measured_samples():
    rng = np.random.default_rng(4)
    mosaic = rng.random((16, 16)).astype(np.float32)
    planes = noise.demosaic(mosaic, "bilinear")
    assert np.allclose(planes[0, ::2, ::2], mosaic[::2, ::2])
    assert np.allclose(planes[1, ::2, 1::2], mosaic[::2, 1::2])
    assert np.allclose(planes[2, 1::2, 1::2], mosaic[1::2, 1::2])


def test_photon_noise_grows_with_the_signal():
    rng = np.random.default_rng(5)
    recipe = noise.NoiseRecipe(photon_share=1.0)
    clean = flat(0.1, 1)
    clean[:, :, SIZE // 2:] = 0.4
    error = noise.add_noise(rng, clean, np.array([0.1]), np.array([0.01]), recipe) - clean
    ratio = error[0, :, SIZE // 2:].std() / error[0, :, : SIZE // 2].std()
    assert ratio == pytest.approx(2.0, rel=0.03)


def test_true_poisson_is_skewed():
    rng = np.random.default_rng(6)
    recipe = noise.NoiseRecipe(photon_share=1.0, true_poisson=True)
    clean = flat(0.01, 1)
    error = noise.add_noise(rng, clean, np.array([0.01]), np.array([0.005]), recipe) - clean
    # Four electrons per pixel: skewness 1 / sqrt(4).
    assert float(((error / error.std()) ** 3).mean()) == pytest.approx(0.5, abs=0.05)


def test_hot_pixels_have_the_density_asked_for():
    rng = np.random.default_rng(7)
    recipe = noise.NoiseRecipe(hot_density=1e-3)
    clean = flat(0.1, 1)
    error = noise.add_noise(rng, clean, np.array([0.1]), np.array([1e-3]), recipe) - clean
    assert 30 < int((np.abs(error) > 6.5e-3).sum()) < 90


@pytest.mark.parametrize("bright", [0.0, 1.0])
def test_outliers_have_the_density_and_the_sign_asked_for(bright):
    rng = np.random.default_rng(7)
    recipe = noise.NoiseRecipe(outlier_density=0.02, outlier_bright=bright)
    clean = flat(0.1, 1)
    error = (noise.add_noise(rng, clean, np.array([0.1]), np.array([1e-3]), recipe) - clean) / 1e-3
    # Past five deviations: what is long enough by itself, 2 + an exponential of mean 2.
    shares = (error < -5).mean(), (error > 5).mean()
    assert shares[int(bright)] == pytest.approx(0.02 * np.exp(-1.5), rel=0.3)
    assert shares[1 - int(bright)] < 1e-4


def test_line_blur_correlates_along_its_line_only():
    rng = np.random.default_rng(8)
    field = noise.line_blur(rng.standard_normal((1, SIZE, SIZE), dtype=np.float32), 16.0, 0.0)
    assert autocorrelation(field[0], 0, 4) > 0.6
    assert abs(autocorrelation(field[0], 4, 0)) < 0.1
