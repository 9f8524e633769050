#!/usr/bin/env python3
"""Writes seeds for TiffDirectoryFuzz into a folder: tiny TIFFs of every form, with and without a header."""

import struct
import sys
from pathlib import Path

HEADER = b"SIMPLE  =                    T\nBITPIX  =                   16\nEND\0"
SIZES = {1: 1, 2: 1, 3: 2, 4: 4, 16: 8}


def tiff(order: str, big: bool, fields: list[tuple[int, int, bytes, int]], following: int = 0) -> bytes:
    """A file of the given byte order ("<" or ">"): header, values too long for their entries, directory."""
    offset, count = ("Q", "Q") if big else ("I", "H")
    width = struct.calcsize(order + offset)
    start = 16 if big else 8
    values, entries = b"", b""
    for tag, kind, value, number in fields:
        field = value.ljust(width, b"\0")
        if len(value) > width:
            field = struct.pack(order + offset, start + len(values))
            values += value
        entries += struct.pack(order + "HH" + offset, tag, kind, number) + field
    mark = b"II" if order == "<" else b"MM"
    head = mark + (struct.pack(order + "HHH", 43, 8, 0) if big else struct.pack(order + "H", 42))
    head += struct.pack(order + offset, start + len(values))
    return head + values + struct.pack(order + count, len(fields)) + entries + struct.pack(order + offset, following)


def numbers(order: str, tag: int, kind: int, values: list[int]) -> tuple[int, int, bytes, int]:
    code = {1: "B", 3: "H", 4: "I", 16: "Q"}[kind]
    return tag, kind, struct.pack(f"{order}{len(values)}{code}", *values), len(values)


def main(folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    for order, name in (("<", "little"), (">", "big")):
        for big in (False, True):
            form = f"{'bigtiff' if big else 'classic'}-{name}"
            image = [
                numbers(order, 256, 3, [4]),
                numbers(order, 257, 4, [4]),
                numbers(order, 258, 3, [16, 16, 16]),
                numbers(order, 273, 16 if big else 4, [8, 40]),
                numbers(order, 284, 3, [2]),
            ]
            seeds = {
                "empty": tiff(order, big, []),
                "plain": tiff(order, big, image),
                "header": tiff(order, big, [*image[:3], (270, 2, HEADER, len(HEADER)), *image[3:]]),
                "short-text": tiff(order, big, [(270, 2, b"abc\0", 4)]),
                "endless": tiff(order, big, image, following=16 if big else 8),
            }
            for kind, content in seeds.items():
                (folder / f"{form}-{kind}.tif").write_bytes(content)


if __name__ == "__main__":
    main(Path(sys.argv[1]))
