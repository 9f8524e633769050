#!/usr/bin/env python3
"""Seeds for the package harness, from the committed packages: make_package_corpus.py <folder>"""

import struct
import sys
from pathlib import Path

PACKAGES = Path(__file__).resolve().parent.parent / "fixtures" / "packages"


def main():
    corpus = Path(sys.argv[1])
    corpus.mkdir(parents=True, exist_ok=True)
    for package in sorted(PACKAGES.glob("*.mlpackage")):
        data = package / "Data" / "com.apple.CoreML"
        message = (data / "model.mlmodel").read_bytes()
        weights = data / "weights" / "weight.bin"
        rest = weights.read_bytes() if weights.exists() else b""
        (corpus / package.stem).write_bytes(struct.pack("<I", len(message)) + message + rest)
    for model in sorted(PACKAGES.glob("*.mlmodel")):
        (corpus / model.stem).write_bytes(b"\xfe\xff\xff\xff" + model.read_bytes())
    manifest = (PACKAGES / "identity.mlpackage" / "Manifest.json").read_bytes()
    (corpus / "manifest").write_bytes(b"\xff\xff\xff\xff" + manifest)


if __name__ == "__main__":
    main()
