"""Where the model package is looked for, and what is said about it."""

import os
import re
import shutil
import subprocess

import numpy as np
import pytest
from conftest import PACKAGES, PROGRAM, Program, noise_image, save

V1, V2 = "Lumvane_weights_v1.mlpackage", "Lumvane_weights_v2.mlpackage"
IDENTITY = PACKAGES / "identity.mlpackage"
DIRECTORY = "directory (CoreML .mlpackage/.mlmodelc models are directory bundles)"


@pytest.fixture
def image(tmp_path):
    return save(tmp_path / "image.png", noise_image(512, 512, 3, np.uint8))


def candidates(folder, package):
    parent = folder.parent
    return [
        f"{folder}/{package}",
        f"{folder}/lib/lumvane/{package}",
        f"{parent}/lib/lumvane/{package}",
        f"/usr/local/lib/lumvane/{package}",
        f"/usr/lib/lumvane/{package}",
    ]


def lookup_text(program, package, resolved, kind, cwd):
    listed = " ".join(f"'{path}'" for path in candidates(program.path.parent, package))
    return (
        f"Executable='{program.path}'; working directory='{cwd}'; Model context: backend=CoreML; "
        f"expected={package}; source=automatic lookup; resolved path='{resolved}'; path kind={kind}; "
        f"lookup candidates (in order): {listed}"
    )


@pytest.mark.parametrize(("version", "package"), [("1", V1), ("2", V2)])
def test_nothing_anywhere_lists_all_five_places(portable, image, tmp_path, version, package):
    run = portable("-i", image, "-o", "out.png", "-m", version)
    first = candidates(portable.path.parent, package)[0]
    expected = lookup_text(portable, package, first, "missing", tmp_path)
    assert run.info("model_context") == [expected]
    assert run.status == 255
    lines = [line for line in run.err_lines if not line.startswith("Info [")]
    assert lines == [
        f"CoreML model package not found: {first}",
        "Model context: backend=CoreML; expected=.mlpackage or .mlmodelc directory bundle; source=backend caller; "
        f"resolved path='{first}'; path kind=missing",
        expected,
    ]


@pytest.mark.parametrize("place", [0, 1, 2])
def test_each_place_near_the_program_is_found(portable, image, tmp_path, place):
    target = candidates(portable.path.parent, V2)[place]
    shutil.copytree(IDENTITY, target)
    run = portable("-i", image, "-o", "out.png")
    assert run.status == 0, run.err
    assert run.info("model_context") == [lookup_text(portable, V2, target, DIRECTORY, tmp_path)]
    assert f"Loading CoreML model package: {target}\n" in run.out


def test_beside_the_program_wins(portable, image):
    for path in candidates(portable.path.parent, V2)[:3]:
        shutil.copytree(IDENTITY, path)
    run = portable("-i", image, "-o", "out.png")
    assert f"resolved path='{portable.path.parent}/{V2}'" in run.info("model_context")[0]


@pytest.fixture
def with_system_folder(portable, tmp_path):
    """The portable program with a folder of the test's own in the place of /usr/local/lib, and that folder."""
    folder = tmp_path / "usr-local-lib"
    folder.mkdir()
    start = tmp_path / "start"
    start.write_text(
        "#!/bin/sh\nexec unshare --map-root-user --mount sh -c "
        f"'mount --bind \"{folder}\" /usr/local/lib && exec \"$0\" \"$@\"' '{portable.path}' \"$@\"\n"
    )
    start.chmod(0o755)
    if Program(tmp_path, start)("--version").status != 0:
        pytest.skip("no folder can be put in another's place here")
    return Program(tmp_path, start), folder


def test_the_manual_install_is_found(with_system_folder, portable, image, tmp_path):
    program, folder = with_system_folder
    shutil.copytree(IDENTITY, folder / "lumvane" / V2)
    run = program("-i", image, "-o", "out.png")
    assert run.status == 0, run.err
    target = f"/usr/local/lib/lumvane/{V2}"
    assert run.info("model_context") == [lookup_text(portable, V2, target, DIRECTORY, tmp_path)]


def test_beside_the_program_wins_over_the_manual_install(with_system_folder, portable, image, tmp_path):
    program, folder = with_system_folder
    shutil.copytree(IDENTITY, folder / "lumvane" / V2)
    nearest = portable.path.parent / V2
    shutil.copytree(IDENTITY, nearest)
    run = program("-i", image, "-o", "out.png")
    assert run.info("model_context") == [lookup_text(portable, V2, nearest, DIRECTORY, tmp_path)]


def test_a_prefix_install_is_found_from_bin(tmp_path, image):
    prefix = tmp_path / "prefix"
    (prefix / "bin").mkdir(parents=True)
    shutil.copy2(PROGRAM, prefix / "bin" / "lumvane")
    shutil.copytree(IDENTITY, prefix / "lib" / "lumvane" / V2)
    assert Program(tmp_path, prefix / "bin" / "lumvane")("-i", image, "-o", "out.png").status == 0


def test_a_regular_file_in_the_packages_place_wins_and_is_named_so(portable, image):
    (portable.path.parent / V2).write_bytes(b"not a package")
    run = portable("-i", image, "-o", "out.png")
    assert run.status == 255
    assert "path kind=regular file" in run.info("model_context")[0]


def test_explicit_weights_list_exactly_this_path(lumvane, image, tmp_path):
    run = lumvane.denoise(image, "out.png", weights="nowhere.mlpackage")
    assert run.info("model_context")[0].endswith(
        f"expected={V2}; source=explicit --weights override; resolved path='nowhere.mlpackage'; path kind=missing; "
        "lookup candidates (in order): 'nowhere.mlpackage'"
    )


def test_other_kinds_of_paths(lumvane, image, tmp_path):
    os.mkfifo(tmp_path / "pipe.mlpackage")
    run = lumvane.denoise("missing.png", "out.png", weights="pipe.mlpackage")
    assert "path kind=other;" in run.info("model_context")[0]


def test_a_working_directory_that_is_gone(lumvane, image, tmp_path):
    gone = tmp_path / "gone"
    gone.mkdir()
    script = f"cd '{gone}' && rmdir '{gone}' && exec '{PROGRAM}' -i '{image}' -o '{tmp_path}/out.png' -w '{IDENTITY}'"
    done = subprocess.run(["/bin/sh", "-c", script], capture_output=True, text=True, check=False)
    assert done.returncode == 0
    assert "working directory='unavailable'; " in done.stderr


def test_the_build_tree_runs_without_options(image, tmp_path):
    """The shipped packages lie where the lookup finds them as soon as the program is built."""
    run = Program(tmp_path)("-i", image, "-o", "out.png")
    assert run.status == 0, run.err
    assert re.search(rf"resolved path='{re.escape(str(PROGRAM.parent))}/{V2}'", run.err)
    assert Program(tmp_path)("-i", image, "-o", "out.png", "-m", "1").status == 0
