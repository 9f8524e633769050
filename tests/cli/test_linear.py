"""Linear mode: the stretch, its report, its inverse, and the images that it refuses."""

import numpy as np
import pytest
from conftest import PACKAGES, load, save

TAIL = "; MTF/inverse=float64; inference=float32"


def sky(channels: int, dtype: type = np.uint16, seed: int = 5) -> np.ndarray:
    """A linear image: dim background with noise, another level in each channel, and a few stars."""
    random = np.random.default_rng(seed)
    top = np.iinfo(dtype).max
    planes = []
    for c in range(channels):
        plane = random.normal(0.05 + 0.02 * c, 0.008, (512, 512))
        plane[random.integers(0, 512, 300), random.integers(0, 512, 300)] += random.uniform(0.1, 0.9, 300)
        planes.append(np.clip(np.rint(plane * top), 0, top).astype(dtype))
    return planes[0] if channels == 1 else np.stack(planes, axis=-1)


def transfer(m: float, x: np.ndarray) -> np.ndarray:
    inside = ((m - 1) * x) / ((2 * m - 1) * x - m)
    return np.where(x <= 0, 0.0, np.where(x >= 1, 1.0, inside))


def inverse(m: float, y: np.ndarray) -> np.ndarray:
    inside = (m * y) / (m * y + (1 - m) * (1 - y))
    return np.where(y <= 0, 0.0, np.where(y >= 1, 1.0, inside))


class Stretch:
    """The stretch of one channel, written from its definition."""

    def __init__(self, plane: np.ndarray, divisor: float, shadows: float = -2.8, target: float = 0.25):
        self.x = plane * (1 / divisor)
        self.median = float(np.median(self.x))
        self.mad = float(np.median(np.abs(self.x - self.median))) * 1.4826
        self.shadows = min(max(self.median + shadows * self.mad, 0.0), 1.0) if self.mad > 0 else 0.0
        self.midtones = float(transfer(target, np.float64(self.median - self.shadows)))
        self.constant = bool((self.x == self.x.flat[0]).all())
        self.clipped = int((self.x <= self.shadows).sum())
        self.line = (
            f"median={self.median:.17g} normalized_MAD={self.mad:.17g} shadows={self.shadows:.17g} "
            f"physical_shadows={self.shadows * divisor:.17g} midtones={self.midtones:.17g} "
            f"shadows_multiplier={shadows:.17g} target_background={target:.17g} "
            f"working_grid_clipped={self.clipped} constant={int(self.constant)}{TAIL}"
        )

    def result(self, network) -> np.ndarray:
        """Normalized samples after a network that works sample by sample."""
        if self.constant:
            return self.x
        stretched = transfer(self.midtones, self.x - self.shadows).astype(np.float32)
        return inverse(self.midtones, network(stretched).astype(np.float64)) + self.shadows


def planes_of(image: np.ndarray) -> list[np.ndarray]:
    return [image] * 3 if image.ndim == 2 else [image[:, :, c] for c in range(3)]


def numbers_close(line: str, expected: str) -> None:
    """Same words; numbers equal to the last digits, where another order of rounding may show."""
    words, wanted = line.split(" "), expected.split(" ")
    assert len(words) == len(wanted)
    for word, want in zip(words, wanted, strict=True):
        if word == want:
            continue
        key, value = word.split("=")
        wanted_key, wanted_value = want.split("=")
        assert key == wanted_key
        assert float(value) == pytest.approx(float(wanted_value), rel=1e-12), key


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16])
@pytest.mark.parametrize("channels", [1, 3])
@pytest.mark.parametrize(("shadows", "target"), [(-2.8, 0.25), (-1.25, 0.4)])
def test_report_and_identity(lumvane, tmp_path, dtype, channels, shadows, target):
    image = sky(channels, dtype)
    save(tmp_path / "in.tif", image)
    options = ["--shadows-clipping", shadows, "--target-background", target]
    run = lumvane.denoise("in.tif", "out.tif", "--linear", *([] if (shadows, target) == (-2.8, 0.25) else options))
    assert run.status == 0, run.err
    divisor = np.iinfo(dtype).max
    stretches = [Stretch(plane, divisor, shadows, target) for plane in planes_of(image)]
    lines = run.info("linear_mtf")
    assert len(lines) == 3
    for n, (line, stretch) in enumerate(zip(lines, stretches, strict=True), 1):
        numbers_close(line, f"channel={n} {stretch.line}")
    assert run.warnings("data_loss") == []
    assert "shadow_restoration" not in run.err
    written = load(tmp_path / "out.tif")
    assert written.dtype == dtype
    assert written.shape == image.shape
    # Shadows stay clipped; everything else comes back to the digit.
    for plane, stretch in zip(planes_of(written), stretches, strict=True):
        expected = np.where(stretch.x <= stretch.shadows, stretch.shadows, stretch.x)
        assert np.array_equal(plane, np.rint(expected * divisor))
        assert (plane != np.rint(stretch.x * divisor)).any()


@pytest.mark.parametrize("channels", [1, 3])
def test_network_sees_the_stretched_image(lumvane, tmp_path, channels):
    """With a network that halves its input, the result is the inverse of half the stretched image."""
    image = sky(channels)
    save(tmp_path / "in.tif", image)
    run = lumvane.denoise("in.tif", "out.tif", "--linear", weights=PACKAGES / "gain-half.mlpackage")
    assert run.status == 0, run.err
    for plane, source in zip(planes_of(load(tmp_path / "out.tif")), planes_of(image), strict=True):
        expected = Stretch(source, 65535).result(lambda y: y * np.float32(0.5))
        assert np.abs(plane - expected * 65535).max() < 0.6


def test_conversion_line_names_the_mode(lumvane, tmp_path):
    save(tmp_path / "in.tif", sky(3))
    run = lumvane.denoise("in.tif", "out.tif", "--linear")
    assert run.info("input_conversion") == [
        "fixed divisor K=65535; offset=0; linear=1; no observed-range rescaling; MTF/inverse=float64; inference=float32"
    ]


def test_constant_planes_come_back_exactly(lumvane, tmp_path):
    """The network sees them black; only their restoration can bring three levels back through a halving network."""
    image = np.empty((512, 600, 3), np.uint16)
    image[:] = [1234, 0, 65535]
    save(tmp_path / "in.tif", image)
    run = lumvane.denoise("in.tif", "out.tif", "--linear", weights=PACKAGES / "gain-half.mlpackage")
    assert run.status == 0, run.err
    assert np.array_equal(load(tmp_path / "out.tif"), image)
    assert all(f"constant=1{TAIL}" in line for line in run.info("linear_mtf"))


def test_one_constant_plane_beside_others(lumvane, tmp_path):
    image = sky(3)
    image[:, :, 1] = 777
    save(tmp_path / "in.tif", image)
    run = lumvane.denoise("in.tif", "out.tif", "--linear", weights=PACKAGES / "gain-half.mlpackage")
    assert run.status == 0, run.err
    written = load(tmp_path / "out.tif")
    assert (written[:, :, 1] == 777).all()
    assert np.abs(written[:, :, 0] - Stretch(image[:, :, 0], 65535).result(lambda y: y / 2) * 65535).max() < 0.6


def test_three_equal_planes_give_one(lumvane, tmp_path):
    plane = sky(1)
    save(tmp_path / "in.tif", np.stack([plane] * 3, axis=-1))
    run = lumvane.denoise("in.tif", "out.tif", "--linear")
    assert run.status == 0, run.err
    assert len(run.info("linear_mtf")) == 3
    written = load(tmp_path / "out.tif")
    assert written.ndim == 2
    stretch = Stretch(plane, 65535)
    assert np.array_equal(written, np.rint(np.maximum(stretch.x, stretch.shadows) * 65535))


@pytest.mark.parametrize("channel", [0, 1, 2])
def test_background_of_zero_is_refused(lumvane, tmp_path, channel):
    image = sky(3)
    image[: 512 * 6 // 10, :, channel] = 0
    image[0, 0, channel] = 9
    save(tmp_path / "in.tif", image)
    # Before the model package is looked into.
    run = lumvane.denoise("in.tif", "out.tif", "--linear", weights=PACKAGES / "unknown-operation.mlpackage")
    assert run.status == 255
    assert run.failure() == (
        f"Linear input has a non-invertible MTF background in channel {channel + 1}. "
        "Normalize or prepare the image upstream."
    )
    assert not (tmp_path / "out.tif").exists()


@pytest.mark.parametrize(
    "options",
    [
        ["--shadows-clipping", "0"],
        ["--shadows-clipping", "2.8"],
        ["--target-background", "0"],
        ["--target-background", "1"],
        ["--target-background", "-0.5"],
    ],
)
def test_bad_numbers_are_refused_after_reading(lumvane, tmp_path, options):
    save(tmp_path / "in.tif", sky(1))
    run = lumvane.denoise("in.tif", "out.tif", "--linear", *options)
    assert run.status == 255
    assert run.failure() == "Linear MTF requires a negative shadows multiplier and target between 0 and 1."
    assert run.info("input_format")
    assert not (tmp_path / "out.tif").exists()


def test_a_prediction_that_is_no_number_is_refused(lumvane, tmp_path):
    save(tmp_path / "in.tif", sky(3))
    run = lumvane.denoise("in.tif", "out.tif", "--linear", weights=PACKAGES / "nan-output.mlpackage")
    assert run.status == 255
    assert run.failure() == "Linear MTF inference returned a non-finite sample."
    assert not (tmp_path / "out.tif").exists()


def test_quiet_run_says_nothing(lumvane, tmp_path):
    save(tmp_path / "in.tif", sky(3))
    run = lumvane.denoise("in.tif", "out.tif", "--linear", "--quiet")
    assert (run.status, run.out, run.err) == (0, "", "")


def test_machine_mode_reports_before_the_tiles(lumvane, tmp_path):
    save(tmp_path / "in.tif", sky(3))
    run = lumvane.denoise("in.tif", "out.tif", "--linear", "--machine-progress")
    assert run.status == 0, run.err
    found = run.diagnostics("linear_mtf")
    assert [event["severity"] for event in found] == ["info"] * 3
    kinds = [event.get("event", event.get("code")) for event in run.events()]
    assert kinds.index("input_geometry") < kinds.index("linear_mtf") < kinds.index("start")
