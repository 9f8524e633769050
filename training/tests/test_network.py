"""Network and loss; skipped where torch is absent."""

import pytest

torch = pytest.importorskip("torch")

from lumvane_training import losses, network  # noqa: E402


@pytest.fixture(scope="module")
def small():
    torch.manual_seed(1)
    return network.Denoiser((16, 32, 64)).eval()


@torch.no_grad()
def test_scaling_the_input_scales_the_output(small):
    image = torch.rand(1, 3, 64, 64)
    assert torch.allclose(small(0.25 * image), 0.25 * small(image), atol=1e-6)
    assert torch.count_nonzero(small(torch.zeros(1, 3, 64, 64))) == 0


@torch.no_grad()
def test_shape_is_kept_and_start_is_near_identity(small):
    image = torch.rand(2, 3, 96, 64)
    output = small(image)
    assert output.shape == image.shape
    assert (output - image).square().mean().sqrt() < 0.2


def test_no_biases(small):
    assert all("bias" not in name for name, _ in small.named_parameters())


@torch.no_grad()
def test_context_ends_at_the_receptive_field(small):
    """A change on one side of the image does not reach the far side: no pooling over the image."""
    image = torch.rand(1, 3, 256, 64)
    changed = image.clone()
    changed[:, :, :8] = 0
    assert torch.equal(small(image)[:, :, 200:], small(changed)[:, :, 200:])


def test_loss_is_smallest_at_the_truth():
    clean = torch.rand(4, 3, 32, 32)
    noisy = clean + 0.05 * torch.randn_like(clean)
    at_truth, at_input = losses.denoising_loss(clean, noisy, clean), losses.denoising_loss(noisy, noisy, clean)
    assert at_truth < 0.1 * at_input
    # The smoothing floor, lowered by the border weights.
    assert 0.3 * losses.SMOOTHING < at_truth < losses.SMOOTHING


def test_border_weights():
    weight = losses.border_weight(32, torch.device("cpu"))[0, 0]
    assert weight[0, 16] == pytest.approx(0.1) and weight[16, 16] == 1 and weight.min() == pytest.approx(0.1)


def test_patch_weights_have_mean_one():
    clean = torch.rand(8, 3, 32, 32)
    weight = losses.patch_weights(clean + torch.linspace(0.001, 0.2, 8)[:, None, None, None], clean)
    assert weight.mean() == pytest.approx(1.0, abs=1e-5) and weight[0] > weight[-1]


def test_lattice_term_sees_a_checkerboard_and_no_slope():
    row, column = torch.meshgrid(torch.arange(32.0), torch.arange(32.0), indexing="ij")
    board = ((row + column) % 2).expand(1, 3, 32, 32)
    assert losses._lattice(board).item() == pytest.approx(0.5)
    assert losses._lattice(torch.full((1, 3, 32, 32), 0.7)).item() == pytest.approx(0.0, abs=1e-6)
