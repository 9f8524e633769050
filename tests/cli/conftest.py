"""What all black-box tests share: running the program, making images, reading what it printed."""

import json
import os
import shutil
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

import cv2
import numpy as np
import pytest

SOURCE = Path(__file__).resolve().parents[2]
PACKAGES = SOURCE / "tests" / "fixtures" / "packages"
PROGRAM = Path(os.environ.get("LUMVANE_PROGRAM", SOURCE / "build" / "release" / "lumvane"))

needs_full_device = pytest.mark.skipif(not Path("/dev/full").exists(), reason="no device here is always full")

DIAGNOSTIC_SCHEMA = "quorvanthine.cli.diagnostic.v1"
PROGRESS_SCHEMA = "quorvanthine.cli.progress.v1"


@dataclass
class Run:
    """One finished run: what went out on both streams, and the status."""

    status: int
    out: str
    err: str
    arguments: list[str] = field(default_factory=list)

    @property
    def err_lines(self) -> list[str]:
        return self.err.splitlines()

    def events(self) -> list[dict]:
        """Standard error as JSON Lines; fails if any line is not one JSON object."""
        return [json.loads(line) for line in self.err_lines]

    def progress(self) -> list[dict]:
        return [event for event in self.events() if event["schema"] == PROGRESS_SCHEMA]

    def diagnostics(self, code: str | None = None) -> list[dict]:
        found = [event for event in self.events() if event["schema"] == DIAGNOSTIC_SCHEMA]
        return [event for event in found if code is None or event["code"] == code]

    def info(self, tag: str) -> list[str]:
        """Texts of the human info lines with this tag."""
        prefix = f"Info [{tag}]: "
        return [line[len(prefix) :] for line in self.err_lines if line.startswith(prefix)]

    def warnings(self, code: str) -> list[str]:
        prefix = f"Warning [{code}]: "
        return [line[len(prefix) :] for line in self.err_lines if line.startswith(prefix)]

    def failure(self) -> str:
        """The failure's own text: what stands before the line that tells where the package was looked for."""
        lines = [line for line in self.err_lines if not line.startswith(("Info [", "Warning ["))]
        assert lines[-1].startswith("Executable='"), self.err
        return "\n".join(lines[:-1])


@dataclass
class Program:
    """The program under test, run in a folder of the test's own."""

    folder: Path
    path: Path = PROGRAM
    environment: dict[str, str] = field(default_factory=dict)
    """Added to this process's own."""

    def __call__(self, *arguments: object, cwd: Path | None = None, timeout: float = 300) -> Run:
        words = [str(argument) for argument in arguments]
        done = subprocess.run(
            [str(self.path), *words],
            cwd=cwd or self.folder,
            env={**os.environ, **self.environment},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=timeout,
            check=False,
        )
        # Bytes of a damaged header pass through as they are; they need not be UTF-8.
        return Run(done.returncode, done.stdout.decode(), done.stderr.decode(errors="surrogateescape"), words)

    def denoise(self, source: object, target: object, *more: object, weights: Path | None = None) -> Run:
        """A job with the identity network unless another package is given."""
        return self("-i", source, "-o", target, "-w", weights or PACKAGES / "identity.mlpackage", *more)


@pytest.fixture
def lumvane(tmp_path: Path) -> Program:
    return Program(tmp_path)


@pytest.fixture
def portable(tmp_path: Path) -> Program:
    """A copy of the program in an otherwise empty folder, for tests of the package lookup."""
    folder = tmp_path / "portable"
    folder.mkdir()
    shutil.copy2(PROGRAM, folder / "lumvane")
    return Program(tmp_path, folder / "lumvane")


def noise_image(height: int, width: int, channels: int, dtype: type, seed: int = 1) -> np.ndarray:
    """Uniform random samples over the whole range of the type; channels last, absent for one channel."""
    generator = np.random.default_rng(seed)
    shape = (height, width) if channels == 1 else (height, width, channels)
    return generator.integers(0, np.iinfo(dtype).max, size=shape, dtype=dtype, endpoint=True)


def save(path: Path, rgb: np.ndarray) -> Path:
    """Writes an image whose planes are given in R, G, B (A) order."""
    order = {3: [2, 1, 0], 4: [2, 1, 0, 3]}
    image = rgb if rgb.ndim == 2 else rgb[:, :, order[rgb.shape[2]]]
    assert cv2.imwrite(str(path), np.ascontiguousarray(image))
    return path


def load(path: Path) -> np.ndarray:
    """Reads an image as stored, planes in R, G, B order."""
    image = cv2.imread(str(path), cv2.IMREAD_UNCHANGED)
    assert image is not None, path
    return image if image.ndim == 2 else np.ascontiguousarray(image[:, :, ::-1])
