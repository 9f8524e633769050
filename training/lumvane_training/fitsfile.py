"""The little of FITS that the evaluation needs: one image in the primary header unit, written and read.

After the FITS standard 4.0: header cards of 80 characters in blocks of 2880 bytes, big-endian samples, the first axis
running fastest; physical value = BZERO + BSCALE x stored value.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np

Array = np.ndarray
BLOCK, CARD = 2880, 80
TYPES = {8: ">u1", 16: ">i2", 32: ">i4", -32: ">f4", -64: ">f8"}


def _card(key: str, value: int | bool) -> str:
    text = ("T" if value else "F") if isinstance(value, bool) else str(value)
    return f"{key:<8}= {text:>20}".ljust(CARD)


def write(path: Path, image: Array) -> None:
    """Writes [h, w] or [planes, h, w] as 32-bit floats."""
    shape = image.shape[::-1]
    cards = [_card("SIMPLE", True), _card("BITPIX", -32), _card("NAXIS", len(shape))]
    cards += [_card(f"NAXIS{axis}", size) for axis, size in enumerate(shape, 1)]
    header = ("".join(cards) + "END".ljust(CARD)).encode("ascii")
    data = np.ascontiguousarray(image, ">f4").tobytes()
    padded = [part + fill * (-len(part) % BLOCK) for part, fill in ((header, b" "), (data, b"\0"))]
    path.write_bytes(b"".join(padded))


def read(path: Path) -> Array:
    """The primary image as physical values, float64, [h, w] or [planes, h, w]; ValueError where there is none."""
    content = path.read_bytes()
    header, place = {}, 0
    while True:
        card = content[place:place + CARD].decode("ascii", "replace")
        place += CARD
        if card.startswith("END") or not card:
            break
        if card[8:10] == "= ":
            header[card[:8].strip()] = card[10:].split("/")[0].strip()
    shape = [int(header[f"NAXIS{axis}"]) for axis in range(int(header.get("NAXIS", 0)), 0, -1)]
    if len(shape) < 2:
        raise ValueError(f"{path} has no primary image")
    start = -(-place // BLOCK) * BLOCK
    stored = np.frombuffer(content, TYPES[int(header["BITPIX"])], int(np.prod(shape)), start).reshape(shape)
    return float(header.get("BZERO", 0)) + float(header.get("BSCALE", 1)) * stored.astype(np.float64)
