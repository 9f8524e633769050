"""The simulator keeps flux, is reproducible and stays in its ranges."""

import numpy as np
import pytest

from lumvane_training import extended, psf, scenes, stars
from lumvane_training.fields import gaussian_field


def one_star(row, column, flux=100.0):
    return stars.StarList(np.array([row]), np.array([column]), np.array([flux]), np.ones((1, 3), np.float32))


@pytest.mark.parametrize("spike_share", [0.0, 0.05])
def test_star_flux_is_conserved(spike_share):
    shape = psf.PsfShape(fwhm=3.0, beta=3.0, ellipticity=0.1, aureole_share=0.05, spike_count=4, spike_share=spike_share)
    image = scenes.render_points(np.zeros((3, 128, 128), np.float32), one_star(60.3, 61.7), shape)
    assert np.allclose(image.sum(axis=(1, 2)), 100.0, rtol=1e-3)


def test_star_sits_where_it_was_put():
    shape = psf.PsfShape(fwhm=3.0, beta=4.0)
    image = scenes.render_points(np.zeros((3, 64, 64), np.float32), one_star(30.25, 33.75), shape)[1]
    image = np.where(image > 0.01 * image.max(), image, 0)
    rows, columns = np.indices(image.shape) + 0.5
    assert (image * rows).sum() / image.sum() == pytest.approx(30.25, abs=0.05)
    assert (image * columns).sum() / image.sum() == pytest.approx(33.75, abs=0.05)


def test_extended_light_keeps_its_brightness():
    light = np.full((3, 64, 64), 2.5, np.float32)
    nothing = one_star(1.0, 1.0, 0.0)
    image = scenes.render_points(light, nothing, psf.PsfShape(fwhm=2.5, beta=3.0, airy_obstruction=0.3))
    assert np.allclose(image, 2.5, rtol=1e-4)


def test_moffat_width():
    rows, columns = psf.grid_offsets(256)
    profile = psf.moffat(rows, columns, 20.0, 2.5)
    assert profile[0, 10] == pytest.approx(0.5 * profile[0, 0], rel=1e-4)
    assert profile.sum() == pytest.approx(1.0, rel=1e-5)


def test_airy_width():
    rows, columns = psf.grid_offsets(256)
    pattern = psf.airy(rows, columns, 20.0, 0.0)
    assert pattern[0, 10] == pytest.approx(0.5 * pattern[0, 0], rel=0.01)


def test_flux_law_slope():
    flux = stars.power_law_flux(np.random.default_rng(1), 200_000, 1.0, 1.2)
    slope = np.log10((flux > 1).mean() / (flux > 10).mean())
    assert slope == pytest.approx(1.2, abs=0.03)


def test_sersic_is_one_at_the_effective_radius_and_holds_half_the_light():
    rows, columns = np.mgrid[-400:401, -400:401]
    radius = np.hypot(rows, columns)
    profile = extended.sersic(radius, 40.0, 1.0)
    assert extended.sersic(np.array([40.0]), 40.0, 2.3)[0] == pytest.approx(1.0)
    assert profile[radius < 40].sum() / profile.sum() == pytest.approx(0.5, abs=0.02)


def test_field_spectrum_slope():
    field = gaussian_field(np.random.default_rng(2), 256, 3.0)
    power = np.abs(np.fft.fft2(field)) ** 2
    k = np.hypot(*np.meshgrid(np.fft.fftfreq(256) * 256, np.fft.fftfreq(256) * 256))
    low, high = power[(k > 4) & (k < 8)].mean(), power[(k > 32) & (k < 64)].mean()
    assert np.log2(low / high) / 3 == pytest.approx(3.0, abs=0.3)


def test_scenes_are_reproducible_finite_and_not_negative():
    for index in range(4):
        first, second = (scenes.render_scene(9, index, 96).light for _ in range(2))
        assert first.shape == (3, 96, 96) and first.dtype == np.float32
        assert np.array_equal(first, second)
        assert np.isfinite(first).all() and first.min() >= 0


def test_unknown_law_is_refused():
    with pytest.raises(ValueError, match="fwmh"):
        scenes.SceneLaws.from_table({"fwmh": [1, 2]})
