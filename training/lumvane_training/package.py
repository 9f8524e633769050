"""Core ML packages from trained networks, byte for byte the same for the same weights."""

from __future__ import annotations

import json
import shutil
import tempfile
import uuid
from pathlib import Path

import coremltools
import torch

from .network import Denoiser

TILE = 512
INPUT, OUTPUT = "image", "denoised"
AUTHOR = "The Lumvane developers"
LICENSE = "Apache-2.0"


def _in_half(operation) -> bool:
    """Everything but the last addition: rounding the image itself to float16 would cost more than the network's error."""
    inputs = operation.inputs.values()
    return not (operation.op_type == "add" and any(getattr(value, "name", "") == INPUT for value in inputs))


def convert(network: Denoiser, tile: int = TILE) -> coremltools.models.MLModel:
    """The network as an ML program of the oldest deployment target: float32 interface and last sum, float16 weights."""
    network = network.eval()
    with torch.no_grad():
        traced = torch.jit.trace(network, torch.rand(1, 3, tile, tile))
    return coremltools.convert(
        traced, convert_to="mlprogram", minimum_deployment_target=coremltools.target.iOS15,
        compute_precision=coremltools.transform.FP16ComputePrecision(op_selector=_in_half), skip_model_load=True,
        inputs=[coremltools.TensorType(INPUT, shape=(1, 3, tile, tile))], outputs=[coremltools.TensorType(OUTPUT)])


def describe(model: coremltools.models.MLModel, version: str, text: str, details: dict[str, str]) -> None:
    """Fills in the metadata that users and tools read."""
    model.author, model.license, model.version, model.short_description = AUTHOR, LICENSE, version, text
    model.input_description[INPUT] = "Tile of 512 x 512 pixels, planes R, G, B, values 0 to 1; grayscale as three equal planes."
    model.output_description[OUTPUT] = "The tile without its noise, same shape and scale."
    for key, value in details.items():
        model.user_defined_metadata[key] = value


def stable_identifiers(package: Path) -> None:
    """Rewrites the manifest's random identifiers as ones that follow from the item paths, in a fixed order."""
    manifest_path = package / "Manifest.json"
    manifest = json.loads(manifest_path.read_text())
    names = {old: str(uuid.uuid5(uuid.NAMESPACE_URL, entry["path"])).upper()
             for old, entry in manifest["itemInfoEntries"].items()}
    manifest["itemInfoEntries"] = {names[old]: entry for old, entry in manifest["itemInfoEntries"].items()}
    manifest["rootModelIdentifier"] = names[manifest["rootModelIdentifier"]]
    manifest_path.write_text(json.dumps(manifest, indent=2, sort_keys=True) + "\n")


def stable_bytes(model_file: Path) -> None:
    """Drops the date of conversion and serialises maps in sorted order, which protobuf otherwise leaves open."""
    from coremltools.proto import Model_pb2

    model = Model_pb2.Model()
    model.ParseFromString(model_file.read_bytes())
    model.description.metadata.userDefined.pop("com.github.apple.coremltools.conversion_date", None)
    model_file.write_bytes(model.SerializeToString(deterministic=True))
    model_file.chmod(0o644)


def write(model: coremltools.models.MLModel, target: Path) -> None:
    """Saves beside the target and replaces it, so that nobody ever sees half a package."""
    with tempfile.TemporaryDirectory(dir=target.parent) as folder:
        package = Path(folder) / target.name
        model.save(str(package))
        stable_identifiers(package)
        stable_bytes(package / "Data/com.apple.CoreML/model.mlmodel")
        if target.exists():
            shutil.rmtree(target)
        package.rename(target)


def operations(package: Path) -> dict[str, int]:
    """How often each operation occurs in the package's program, constants left out."""
    from coremltools.proto import Model_pb2

    model = Model_pb2.Model()
    model.ParseFromString((package / "Data/com.apple.CoreML/model.mlmodel").read_bytes())
    function = model.mlProgram.functions["main"]
    counts: dict[str, int] = {}
    for operation in function.block_specializations[function.opset].operations:
        if operation.type != "const":
            counts[operation.type] = counts.get(operation.type, 0) + 1
    return counts
