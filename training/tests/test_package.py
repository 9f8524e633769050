"""Exported packages; skipped where torch or coremltools is absent."""

import filecmp
import json

import pytest

torch = pytest.importorskip("torch")
pytest.importorskip("coremltools")

from lumvane_training import checkpoint, network, package, shipped  # noqa: E402

ALLOWED = {"cast", "conv", "conv_transpose", "relu", "add", "concat", "pixel_shuffle", "upsample_nearest_neighbor"}


@pytest.fixture(scope="module")
def two_exports(tmp_path_factory):
    torch.manual_seed(3)
    net = network.Denoiser((16, 32))
    paths = []
    for name in ("first", "second"):
        model = package.convert(net, tile=64)
        package.describe(model, "9.0", "A test.", {"training.seed": "3"})
        paths.append(tmp_path_factory.mktemp(name) / "net.mlpackage")
        package.write(model, paths[-1])
    return paths


def test_same_weights_give_the_same_bytes(two_exports):
    first, second = two_exports
    names = sorted(str(p.relative_to(first)) for p in first.rglob("*") if p.is_file())
    assert names == sorted(str(p.relative_to(second)) for p in second.rglob("*") if p.is_file())
    assert filecmp.cmpfiles(first, second, names, shallow=False) == (names, [], [])


def test_manifest_points_at_files(two_exports):
    manifest = json.loads((two_exports[0] / "Manifest.json").read_text())
    assert manifest["rootModelIdentifier"] in manifest["itemInfoEntries"]
    assert all((two_exports[0] / "Data" / e["path"]).exists() for e in manifest["itemInfoEntries"].values())


def test_only_operations_of_the_oldest_program_version(two_exports):
    assert set(package.operations(two_exports[0])) <= ALLOWED


def test_the_image_is_never_rounded_in_the_last_sum(two_exports):
    from coremltools.proto import Model_pb2

    model = Model_pb2.Model()
    model.ParseFromString((two_exports[0] / "Data/com.apple.CoreML/model.mlmodel").read_bytes())
    function = model.mlProgram.functions["main"]
    last = function.block_specializations[function.opset].operations[-1]
    assert last.type == "add"
    assert {binding.name for argument in last.inputs.values() for binding in argument.arguments} & {package.INPUT}
    assert [o.name for o in last.outputs] == [package.OUTPUT]


def test_weights_come_back_from_a_package(tmp_path):
    torch.manual_seed(4)
    net = network.Denoiser((16, 32))
    model = package.convert(net, tile=64)
    package.describe(model, "9.0", "A test.", {"network.widths": "16 32", "network.blocks": "1", "training.megapixels": "7",
                                               "training.megapixels_before": "5"})
    package.write(model, tmp_path / "net.mlpackage")
    back, details = shipped.network_of(tmp_path / "net.mlpackage")
    assert details["training.megapixels"] == "7"
    for name, value in net.state_dict().items():
        assert torch.equal(back.state_dict()[name], value.half().float()), name
    weights, megapixels = checkpoint.starting_point(tmp_path / "net.mlpackage", network.Denoiser((16, 32)))
    assert megapixels == 12 and set(weights) == set(net.state_dict())
    with pytest.raises(ValueError):
        shipped.state_of(tmp_path / "net.mlpackage", network.Denoiser((16, 64)))
