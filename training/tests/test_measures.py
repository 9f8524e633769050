"""The measures of the report, with denoisers whose figures are known."""

import numpy as np
import pytest

from lumvane_training import fitsfile, photometry, psf, scenes, stars as star_lists

pytest.importorskip("skimage")

from lumvane_training import baselines  # noqa: E402
from lumvane_training.measures import gains, harm, real, report, sky, stars  # noqa: E402


class Perfect:
    """In place of the program: answers with the input, or with what a function makes of it."""

    model = 2

    def __init__(self, function=lambda image: image):
        self.function = function

    def tiff(self, image, *options):
        return self.function(image)

    def linear(self, image, *options):
        return self.function(image)


def gate(section, name):
    return next(g for g in section.gates if g.name.startswith(name))


def test_psnr():
    truth = np.zeros((3, 8, 8), np.float32)
    assert photometry.psnr(truth + 0.1, truth) == pytest.approx(20.0, abs=1e-4)


def test_aperture_flux_ignores_a_flat_background():
    shape = psf.PsfShape(fwhm=3.0, beta=5.0)
    star = star_lists.StarList(np.array([30.2]), np.array([33.6]), np.array([50.0]), np.ones((1, 3), np.float32))
    plane = scenes.render_points(np.full((3, 64, 64), 2.0, np.float32), star, shape)[1]
    assert photometry.Aperture(plane, 30.2, 33.6, 6.0).flux(plane) == pytest.approx(50.0, rel=0.03)


def test_noise_alone_does_not_change_a_flux_in_the_mean():
    """In a crowded field, where the median of a ring would rise with the noise."""
    rng = np.random.default_rng(5)
    truth = np.zeros((64, 64))
    truth[rng.integers(64, size=1200), rng.integers(64, size=1200)] = 1.0
    truth[31:34, 31:34] = 40.0
    aperture = photometry.Aperture(truth, 32.5, 32.5, 5.0)
    changes = [aperture.flux(truth + rng.normal(0, 2.0, truth.shape)) - aperture.flux(truth) for _ in range(400)]
    assert abs(np.mean(changes)) < 4 * np.std(changes) / 20
    distance = np.hypot(*(np.indices(truth.shape) - 32))
    ring = truth[(distance > 10) & (distance <= 15)]
    noisy = np.median(ring + rng.normal(0, 2.0, (400, len(ring))), axis=1).mean()
    assert (noisy - np.median(ring)) * aperture.inside.sum() > 10 * np.std(changes) / 20


def test_isolated():
    rows, columns = np.array([10.0, 12.0, 50.0]), np.array([10.0, 10.0, 50.0])
    assert photometry.isolated(rows, columns, np.array([1.0, 100.0, 1.0]), 5.0).tolist() == [False, True, True]


def test_lattice_finds_a_checkerboard():
    pattern = np.indices((32, 32)).sum(axis=0) % 2 * 0.2
    assert photometry.lattice(pattern) == pytest.approx(0.1)
    assert photometry.lattice(np.full((32, 32), 0.3)) == pytest.approx(0.0)


@pytest.mark.parametrize("shape", [(9, 7), (3, 5, 4)])
def test_fits_files_come_back(tmp_path, shape):
    image = np.random.default_rng(1).random(shape).astype(np.float32)
    fitsfile.write(tmp_path / "image.fits", image)
    assert (tmp_path / "image.fits").stat().st_size % 2880 == 0
    assert np.array_equal(fitsfile.read(tmp_path / "image.fits"), image)


@pytest.mark.parametrize("name", ["starlet", "non-local means"])
@pytest.mark.parametrize("planes", [1, 3])
def test_other_methods_remove_noise(name, planes):
    rng = np.random.default_rng(1)
    flat = np.full((planes, 64, 64), 0.4, np.float32)
    noisy = flat + 0.05 * rng.standard_normal(flat.shape, dtype=np.float32)
    method = baselines.METHODS[name][0]
    assert photometry.psnr(method(noisy, 0.05, 1.0), flat) > photometry.psnr(noisy, flat) + 5


def test_tuning_takes_the_best_strength():
    truth = np.full((1, 32, 32), 0.5, np.float32)
    method = lambda image, sigma, strength: truth + abs(strength - 2.0) * 0.01  # noqa: E731
    assert gains.tuned(method, (1.0, 2.0, 3.0), [(truth, truth)], 0.1)[2] == 2.0


def test_gains_of_the_identity_are_none():
    section = gains.measure(Perfect(), 1, 1, 128, 64, methods={})
    assert all(row["worst"] == pytest.approx(0.0, abs=1e-5) for row in section.figures["rows"])
    assert len(section.figures["rows"]) == 2 * len(gains.LEVELS) and not gate(section, "lead").met


def test_stars_of_the_identity_are_unbiased_and_dimmed_ones_are_not():
    section = stars.measure(Perfect(), 5, 3, 192)
    entries = section.figures["stars"]
    assert entries and all(e["after"] == e["before"] for e in entries)
    assert section.figures["completeness"][0] == section.figures["completeness"][1]
    dimmed = stars.measure(Perfect(lambda image: np.median(image) + 0.9 * (image - np.median(image))), 5, 3, 192)
    bright = [(a, b) for a, b in zip(dimmed.figures["stars"], entries) if a["bin"][0] >= 30]
    assert bright and all(a["after"] - b["after"] == pytest.approx(-0.1, abs=0.02) for a, b in bright)


def test_widths_tell_a_wider_star():
    widths = []
    for fwhm in (3.0, 3.3):
        star = star_lists.StarList(np.array([32.0]), np.array([32.0]), np.array([50.0]), np.ones((1, 3), np.float32))
        plane = scenes.render_points(np.zeros((3, 64, 64), np.float32), star, psf.PsfShape(fwhm=fwhm, beta=4.0))[1]
        widths.append(stars.width(plane, 32.0, 32.0, 3.0))
    assert 1.01 < widths[1] / widths[0] < 1.10


def test_noise_section_sees_a_shift_and_a_false_source():
    identity = sky.measure_noise(Perfect(), 7, 2, 128)
    assert identity.figures["left"] == pytest.approx(1.0, abs=0.05) and gate(identity, "shift of a channel").met
    shifted = sky.measure_noise(Perfect(lambda image: image + 0.01), 7, 2, 128)
    assert not gate(shifted, "shift of the sky").met and not gate(shifted, "shift of a channel").met

    def with_star(image):
        image = image.copy()
        image[:, 60:63, 60:63] = 1.0
        return image

    assert not gate(sky.measure_noise(Perfect(with_star), 7, 2, 128), "false detections").met
    assert gate(identity, "false detections").met


def test_faint_light_kept_by_the_identity_and_lost_by_half():
    assert gate(sky.measure_faint(Perfect(), 8, 256), "change of a disk").met
    halved = sky.measure_faint(Perfect(lambda image: 0.02 + 0.5 * (image - 0.02)), 8, 256)
    assert not gate(halved, "change of a disk").met and not gate(halved, "contrast lost").met


def test_the_identity_does_no_harm():
    section = harm.measure(Perfect(), 9, 2, 128)
    names = [g.name for g in section.gates if not g.met and not g.name.startswith("inside")]
    assert all(name.startswith("mean of a channel") for name in names)


def test_seams_show_on_the_borders_of_tiles():
    error = np.random.default_rng(2).standard_normal((3, 200, 200))
    assert harm.line_excess(error, [100], 1) == pytest.approx(1.0, abs=0.1)
    error[:, 98:102] *= 3
    assert harm.line_excess(error, [100], 1) == pytest.approx(3.0, rel=0.1)


def test_twins_are_aligned():
    rng = np.random.default_rng(3)
    field = np.zeros((128, 128))
    field[rng.integers(128, size=40), rng.integers(128, size=40)] = 100.0
    other = np.roll(field, (-3, 5), (0, 1))
    offset = real.shift_between(field + rng.standard_normal(field.shape), other + rng.standard_normal(field.shape))
    assert offset == (3, -5)
    assert real.apart(field + rng.standard_normal(field.shape), other + rng.standard_normal(field.shape),
                      offset) == pytest.approx(2**0.5, rel=0.05)


def test_gates_are_written_as_missed():
    section = report.Section("A title")
    section.gate("too much", 0.3, 0.2)
    section.at_least("enough", 3.0, 2.0)
    assert "| too much | 0.300 | at most 0.2 | **missed** |" in section.text() and "| met |" in section.text()
