#!/usr/bin/env python3
"""Writes small FITS files as seeds for fits_reader_fuzz: make_fits_corpus.py FOLDER. Needs astropy."""

import gzip
import sys
from pathlib import Path

import numpy as np
from astropy.io import fits


def main():
    folder = Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    random = np.random.default_rng(1)
    for dtype in (np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.int64, np.float32, np.float64):
        pixels = random.random((3, 5, 4))
        if np.issubdtype(dtype, np.integer):
            pixels = (pixels * 100).astype(dtype)
        pixels = pixels.astype(dtype)
        cards = [("DATAMIN", 0.0), ("DATAMAX", 99.0), ("BUNIT", "adu"), ("OBJECT", "x")]
        for name, data in (("cube", pixels), ("mono", pixels[0]), ("triples", np.moveaxis(pixels, 0, 2).copy())):
            hdu = fits.PrimaryHDU(data)
            for card in cards:
                hdu.header.append(card)
            hdu.writeto(folder / f"{np.dtype(dtype).name}-{name}.fits", overwrite=True)
    table = fits.BinTableHDU.from_columns([fits.Column(name="a", format="E", array=np.arange(3.0))])
    image = fits.ImageHDU(np.zeros((3, 4), np.int16))
    image.header["BLANK"] = -1
    fits.HDUList([fits.PrimaryHDU(), table, image]).writeto(folder / "extensions.fits", overwrite=True)
    for coding in ("RICE_1", "GZIP_1", "GZIP_2", "PLIO_1", "HCOMPRESS_1"):
        pixels = np.arange(400, dtype=np.int16).reshape(20, 20)
        compressed = fits.CompImageHDU(pixels, compression_type=coding)
        fits.HDUList([fits.PrimaryHDU(), compressed]).writeto(folder / f"tiles-{coding.lower()}.fits", overwrite=True)
    (folder / "zipped.fits").write_bytes(gzip.compress((folder / "uint16-mono.fits").read_bytes()))


if __name__ == "__main__":
    main()
