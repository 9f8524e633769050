"""Weights read back from a shipped package, so that a run can start where an earlier one ended.

A package's weight file holds, for each constant, a record of 64 bytes (marker, element type, size, place of the data)
at the offset that the program names; all integers are little-endian.
"""

from __future__ import annotations

import struct
from pathlib import Path

import numpy as np
import torch

from .network import Denoiser

MODEL = "Data/com.apple.CoreML/model.mlmodel"
WEIGHTS = "Data/com.apple.CoreML/weights/weight.bin"
RECORD_MARKER = 0xDEADBEEF
ELEMENTS = {1: np.dtype("<f2"), 2: np.dtype("<f4")}


def _record(blob: bytes, offset: int) -> np.ndarray:
    """The values of the record at `offset`, flat."""
    marker, kind, size, start = struct.unpack_from("<IIQQ", blob, offset)
    if marker != RECORD_MARKER or kind not in ELEMENTS:
        raise ValueError(f"no record of float values at offset {offset} of the weight file")
    return np.frombuffer(blob, ELEMENTS[kind], size // ELEMENTS[kind].itemsize, start)


def constants(package: Path) -> dict[str, np.ndarray]:
    """Every constant of the package's program that lies in the weight file, by name, in its own shape, float32."""
    from coremltools.proto import Model_pb2

    model = Model_pb2.Model()
    model.ParseFromString((package / MODEL).read_bytes())
    blob = (package / WEIGHTS).read_bytes()
    function = model.mlProgram.functions["main"]
    found = {}
    for operation in function.block_specializations[function.opset].operations:
        if operation.type != "const" or not operation.attributes["val"].HasField("blobFileValue"):
            continue
        shape = [d.constant.size for d in operation.outputs[0].type.tensorType.dimensions]
        values = _record(blob, operation.attributes["val"].blobFileValue.offset)
        found[operation.outputs[0].name] = values.reshape(shape).astype(np.float32)
    return found


def layout(details: dict[str, str]) -> Denoiser:
    """The untrained network that a package's record describes; one number of blocks stands for all levels."""
    blocks = tuple(map(int, details["network.blocks"].split()))
    return Denoiser(tuple(map(int, details["network.widths"].split())), blocks[0] if len(blocks) == 1 else blocks)


def state_of(package: Path, network: Denoiser) -> dict[str, torch.Tensor]:
    """The package's weights under the network's own names; fails where one is missing or of another shape."""
    values, state = constants(package), {}
    for name, parameter in network.state_dict().items():
        stem = name.replace(".", "_")
        value = next((values[n] for n in (stem, stem + "_to_fp16") if n in values), None)
        if value is None or tuple(value.shape) != tuple(parameter.shape):
            raise ValueError(f"{package} does not hold {name} of shape {tuple(parameter.shape)}")
        state[name] = torch.from_numpy(value)
    return state


def record(package: Path) -> dict[str, str]:
    """The package's user-defined metadata."""
    from coremltools.proto import Model_pb2

    model = Model_pb2.Model()
    model.ParseFromString((package / MODEL).read_bytes())
    return dict(model.description.metadata.userDefined)


def network_of(package: Path) -> tuple[Denoiser, dict[str, str]]:
    """The network of a package made by `export`, and its training record."""
    details = record(package)
    network = layout(details)
    network.load_state_dict(state_of(package, network))
    return network.eval(), details
