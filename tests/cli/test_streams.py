"""Where lines and images go when a reader leaves, a file may not grow, or a library would like to say something, too."""

import os
import resource
import subprocess
import threading

import cv2
import numpy as np
import pytest
from astropy.io import fits
from conftest import PACKAGES, PROGRAM, load, noise_image, save

IDENTITY = PACKAGES / "identity.mlpackage"


def broken_pipe():
    """The writing end of a pipe that nobody reads."""
    reader, writer = os.pipe()
    os.close(reader)
    return writer


def start(folder, *words, weights=IDENTITY, **streams):
    return subprocess.run(
        [str(PROGRAM), *words, *([] if weights is None else ["-w", str(weights)])],
        cwd=folder, stdin=subprocess.DEVNULL, timeout=300, check=False, **streams
    )


@pytest.mark.parametrize("stream", ["stdout", "stderr"])
@pytest.mark.parametrize("mode", [[], ["--machine-progress"]])
def test_a_reader_that_leaves_does_not_cost_the_image(tmp_path, stream, mode):
    pixels = noise_image(512, 530, 1, np.uint8)
    save(tmp_path / "in.png", pixels)
    writer = broken_pipe()
    done = start(tmp_path, "-i", "in.png", "-o", "out.png", *mode, **{stream: writer})
    os.close(writer)
    assert done.returncode == 0
    assert np.array_equal(load(tmp_path / "out.png"), pixels)


def test_a_warning_that_nobody_reads_does_not_cost_an_older_file(tmp_path):
    """The warning falls due while the new file is open and the old one gone."""
    pixels = noise_image(512, 530, 1, np.uint16)
    for name in ("in.fits", "out.fits"):
        fits.PrimaryHDU(pixels).writeto(tmp_path / name)
    writer = broken_pipe()
    weights = PACKAGES / "gain-double-minus-half.mlpackage"
    done = start(tmp_path, "-i", "in.fits", "-o", "out.fits", "-q", weights=weights, stderr=writer)
    os.close(writer)
    assert done.returncode == 0
    assert fits.getdata(tmp_path / "out.fits").shape == pixels.shape


@pytest.mark.parametrize("words", [[], ["--help"], ["--version"], ["--machine-info"], ["--check-updates"]])
def test_answers_survive_a_reader_that_leaves(tmp_path, words):
    writer = broken_pipe()
    done = start(tmp_path, *words, weights=None, stdout=writer, stderr=subprocess.PIPE)
    os.close(writer)
    assert (done.returncode, done.stderr) == (0, b"")


def test_a_pipe_that_is_closed_too_early_is_a_failed_write(tmp_path):
    save(tmp_path / "in.png", noise_image(512, 530, 3, np.uint16))
    os.mkfifo(tmp_path / "out.png")

    def read_a_little():
        with open(tmp_path / "out.png", "rb") as pipe:
            pipe.read(10)

    reader = threading.Thread(target=read_a_little)
    reader.start()
    done = start(tmp_path, "-i", "in.png", "-o", "out.png", stderr=subprocess.PIPE)
    reader.join()
    assert done.returncode == 255
    assert b"Unable to write output image: out.png" in done.stderr


@pytest.mark.parametrize("name", ["out.png", "out.fits"])
def test_a_file_that_may_not_grow_is_a_failed_write(tmp_path, name):
    pixels = noise_image(512, 530, 1, np.uint16)
    fits.PrimaryHDU(pixels).writeto(tmp_path / "in.fits")
    done = start(
        tmp_path, "-i", "in.fits", "-o", name, stderr=subprocess.PIPE,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000)),
    )
    assert done.returncode == 255
    assert name.encode() in done.stderr.splitlines()[-2]


def test_an_image_may_go_to_standard_output(tmp_path):
    """By a link, because the format follows from the name."""
    pixels = noise_image(512, 530, 3, np.uint8)
    save(tmp_path / "in.png", pixels)
    (tmp_path / "out.png").symlink_to("/dev/stdout")
    done = start(tmp_path, "-i", "in.png", "-o", "out.png", "-q", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert (done.returncode, done.stderr) == (0, b"")
    image = cv2.imdecode(np.frombuffer(done.stdout, np.uint8), cv2.IMREAD_UNCHANGED)
    assert np.array_equal(image[:, :, ::-1], pixels)


@pytest.mark.parametrize(
    "variables",
    [{"ONEDNN_VERBOSE": "2"}, {"DNNL_VERBOSE": "1"}, {"ONEDNN_JIT_DUMP": "1"}, {"ONEDNN_JIT_PROFILE": "6"}],
    ids=lambda variables: next(iter(variables)),
)
def test_variables_of_the_numerical_library_do_nothing(lumvane, tmp_path, variables):
    """With the shipped network, whose convolutions are that library's."""
    save(tmp_path / "in.png", noise_image(512, 512, 3, np.uint8))
    lumvane.environment.update(variables, HOME=str(tmp_path))
    run = lumvane("-i", "in.png", "-o", "out.png", "-q")
    assert (run.status, run.out, run.err) == (0, "", "")
    assert sorted(path.name for path in tmp_path.iterdir()) == ["in.png", "out.png"]
