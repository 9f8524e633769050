"""What a denoiser must leave alone: clean frames, colours, constant and saturated areas, symmetries, equal planes, seams."""

from __future__ import annotations

import numpy as np

from .. import photometry
from .gains import noise_field, stretched_frame
from .program import Program, as_stored
from .report import Section, table

Array = np.ndarray
SYMMETRIES = {
    "mirrored": (lambda x: x[..., ::-1], lambda x: x[..., ::-1]),
    "upside down": (lambda x: x[..., ::-1, :], lambda x: x[..., ::-1, :]),
    "a quarter turn": (lambda x: np.rot90(x, 1, (-2, -1)), lambda x: np.rot90(x, -1, (-2, -1))),
    "half a turn": (lambda x: np.rot90(x, 2, (-2, -1)), lambda x: np.rot90(x, -2, (-2, -1))),
}


def rms(values: Array) -> float:
    """Root mean square."""
    return float(np.sqrt(np.mean(np.square(values, dtype=np.float64))))


def equal_planes(program: Program, noisy: Array) -> tuple[float, float]:
    """Largest difference between output planes for three equal planes, and for such that differ in one sample.

    One sample by the smallest step keeps the program from taking the frame for grayscale, so that the network has to
    agree by itself.
    """
    three = np.repeat(as_stored(noisy), 3, axis=0)
    equal = float(np.ptp(program.tiff(three), axis=0).max())
    three[0, 0, 0] += 1 / 65535.0 if three[0, 0, 0] < 0.5 else -1 / 65535.0
    return equal, float(np.ptp(program.tiff(three), axis=0).max())


def constant_areas(program: Program, size: int) -> tuple[float, float]:
    """Change of a constant gray frame, and of saturated and black areas well inside their borders."""
    even = program.tiff(np.full((3, size, size), 0.25, np.float32) * np.array([1.0, 0.8, 0.6])[:, None, None])
    change = float(np.abs(even - as_stored(0.25 * np.array([1.0, 0.8, 0.6]))[:, None, None]).max())
    rng = np.random.default_rng(51)
    image = 0.2 + 0.04 * rng.standard_normal((3, size, size))
    third = size // 4
    image[:, third:2 * third, third:2 * third] = 1.0
    image[:, 2 * third + 20:3 * third + 20, third:2 * third] = 0.0
    output, inner = program.tiff(as_stored(image)), min(16, third // 4)
    areas = (output[:, third + inner:2 * third - inner, third + inner:2 * third - inner] - 1.0,
             output[:, 2 * third + 20 + inner:3 * third + 20 - inner, third + inner:2 * third - inner])
    return change, float(max(np.abs(a).max() for a in areas))


def measure(program: Program, seed: int, count: int, size: int) -> Section:
    """Everything but seams."""
    section = Section("Doing no harm")
    clean_changes, second, colours, symmetric, planes = [], [], [], [], []
    for index in range(count):
        clean = as_stored(stretched_frame(seed, index, size, False))
        clean_changes.append(rms(program.tiff(clean) - clean))
        rng = np.random.default_rng([seed, index, 52])
        noisy = as_stored(clean + 0.04 * noise_field(rng, clean.shape, index % 2 == 0))
        output = program.tiff(noisy)
        removed = max(rms(output - noisy), 1e-9)
        second.append(rms(program.tiff(output) - output) / removed)
        calm = ((noisy > 0) & (noisy < 1)).all(axis=0)
        colours.append(np.abs((output - clean)[:, calm].mean(axis=1)).max())
        turn, back = list(SYMMETRIES.values())[index % len(SYMMETRIES)]
        symmetric.append(rms(back(program.tiff(np.ascontiguousarray(turn(noisy)))) - output) / removed)
        if program.model == 2:
            gray = as_stored(stretched_frame(seed, index, size, True))
            planes.append(equal_planes(program, gray + 0.04 * noise_field(rng, gray.shape, index % 2 == 1)))
    even, areas = constant_areas(program, size)
    section.lines = [f"{count} stretched frames of {size} x {size} pixels, 16 bits, noise of 4 % where there is any."]
    section.gate("noise-free frames, rms change, median", float(np.median(clean_changes)), 0.002, "{:.4f}")
    section.gate("noise-free frames, rms change, worst", max(clean_changes), 0.002, "{:.4f}")
    section.gate("second pass, share of the first pass's change, median", float(np.median(second)), 0.2, "{:.2f}")
    section.gate("mean of a channel less the truth's, median", float(np.median(colours)), 1e-3, "{:.5f}")
    section.gate("mean of a channel less the truth's, worst", float(max(colours)), 1e-3, "{:.5f}")
    section.gate("flipped and turned, rms difference over the removed noise, worst", max(symmetric), 0.05)
    if planes:
        for name, values in zip(("three equal planes", "the same but for one sample"), zip(*planes)):
            section.gate(f"{name}, largest difference", max(values), 1e-3, "{:.4f}")
    section.gate("constant frame, largest change", even, 2 / 65535, "{:.5f}")
    section.gate("inside of saturated and black areas, largest change", areas, 0.004, "{:.4f}")
    section.figures = {"clean": clean_changes, "second": second, "colour": [float(c) for c in colours]}
    return section


def line_excess(difference: Array, lines: list[int], axis: int) -> float:
    """RMS of a difference on rows or columns near the given lines over its RMS elsewhere."""
    moved = np.moveaxis(difference, axis, 0)
    near = np.zeros(len(moved), bool)
    for line in lines:
        near[max(line - 2, 0):line + 2] = True
    return rms(moved[near]) / max(rms(moved[~near]), 1e-12)


def measure_seams(program: Program, seed: int, strides: tuple[int, ...] = (480, 448, 384, 256)) -> Section:
    """One frame at several strides; where tiles begin and end must not show in the error."""
    section = Section("Seams")
    size = 992
    clean = stretched_frame(seed, 3, size, False)
    noisy = as_stored(clean + 0.05 * np.random.default_rng([seed, 61]).standard_normal(clean.shape))
    outputs = {stride: program.tiff(noisy, "--stride", str(stride)) for stride in strides}
    rows, reference = [], outputs[strides[-1]]
    for stride, output in outputs.items():
        edges = sorted({e for s in range(0, size, stride) for e in (s, s + 512) if 16 < e < size - 16})
        error = output - clean
        excess = max(line_excess(error, edges, axis) for axis in (1, 2))
        step = max(line_excess(np.diff(error, axis=axis), edges, axis) for axis in (1, 2))
        rows.append([str(stride), f"{excess:.3f}", f"{step:.3f}", f"{np.abs(output - reference).max() / 0.05:.3f}",
                     f"{photometry.psnr(output, clean):.2f}"])
        section.figures[str(stride)] = {"excess": excess, "step": step}
    section.lines = ["Error on the lines where tiles begin and end over the error elsewhere, its steps likewise, the largest "
                     f"difference to stride {strides[-1]} in deviations of the noise (5 %), PSNR in dB.", ""]
    section.lines += table(["stride", "error", "steps", "largest difference", "PSNR"], rows)
    section.gate("error on tile borders over elsewhere, worst", max(v["excess"] for v in section.figures.values()), 1.15, "{:.3f}")
    section.gate("steps on tile borders over elsewhere, worst", max(v["step"] for v in section.figures.values()), 1.15, "{:.3f}")
    return section
