"""What the scripts do on systems other than this one, whose commands are stood in for by small scripts."""

import subprocess

import pytest
from conftest import SOURCE

INSTALL = SOURCE / "scripts" / "install-dependencies"
# Answers for the formulae that are installed, notes what it is asked to install.
BREW = """#!/bin/sh
case "$1" in
  list) for word; do :; done; case " {installed} " in *" $word "*) ;; *) exit 1 ;; esac ;;
  install) echo "$@" >> "{log}" ;;
esac
"""


class Elsewhere:
    """A system that has these commands alone."""

    def __init__(self, folder, name):
        self.folder = folder / "bin"
        self.folder.mkdir()
        self.log = folder / "log"
        self.add("uname", f"#!/bin/sh\necho {name}\n")

    def add(self, name, text):
        path = self.folder / name
        path.write_text(text)
        path.chmod(0o755)

    def add_brew(self, *installed):
        self.add("brew", BREW.format(installed=" ".join(installed), log=self.log))

    def install(self, *words):
        return subprocess.run(
            ["/bin/sh", INSTALL, *words],
            env={"PATH": str(self.folder)},
            capture_output=True,
            text=True,
            check=False,
        )

    @property
    def asked(self):
        return self.log.read_text().splitlines() if self.log.exists() else []


@pytest.fixture
def mac(tmp_path):
    return Elsewhere(tmp_path, "Darwin")


def test_a_mac_gets_what_building_lacks(mac):
    mac.add_brew("cmake", "cfitsio")
    done = mac.install("build")
    assert (done.returncode, done.stdout, done.stderr) == (0, "Installing: ninja opencv tclap\n", "")
    assert mac.asked == ["install --quiet ninja opencv tclap"]


def test_a_mac_that_has_all_is_left_alone(mac):
    mac.add_brew("cmake", "ninja", "opencv", "cfitsio", "tclap")
    done = mac.install("build")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert mac.asked == []


@pytest.mark.parametrize("words", [["test"], []])
def test_a_mac_is_told_that_tests_want_debian(mac, words):
    mac.add_brew()
    done = mac.install(*words)
    assert (done.returncode, mac.asked) == (1, [])
    assert "on Debian alone. docs/building.md tells" in done.stderr


def test_a_mac_without_homebrew_is_told_so(mac):
    done = mac.install("build")
    assert done.returncode == 1
    assert "Homebrew is missing. docs/building.md tells" in done.stderr


def test_another_linux_is_told_where_to_read(tmp_path):
    done = Elsewhere(tmp_path, "Linux").install("build")
    assert (done.returncode, done.stdout) == (1, "")
    assert "docs/building.md tells what is needed." in done.stderr


def test_formulae_are_the_ones_that_the_documents_name():
    text = (SOURCE / "docs" / "building.md").read_text(encoding="utf-8")
    (formulae,) = [line for line in INSTALL.read_text().splitlines() if line.startswith("formulae=")]
    assert f"brew install {formulae[len('formulae='):].strip(chr(34))}\n" in text
