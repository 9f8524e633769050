"""Network and loss; skipped where torch is absent."""

import math

import pytest

torch = pytest.importorskip("torch")

from lumvane_training import growth, losses, network, stretch  # noqa: E402


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


@torch.no_grad()
@pytest.mark.parametrize("widths, blocks", [((16, 32, 64), 1), ((32, 48, 64), 1), ((24, 32, 80), (1, 2, 3))])
def test_a_grown_network_gives_the_small_ones_answers(small, widths, blocks):
    large = network.Denoiser(widths, blocks)
    large.load_state_dict(growth.grown(small, large))
    image = torch.rand(2, 3, 64, 48)
    assert torch.allclose(large(image), small(image), atol=1e-6)


def test_the_zeros_of_a_grown_network_learn(small):
    """Within two steps, because a new block's first layer waits for its second one to leave zero; but for idle ReLUs."""
    large = network.Denoiser((24, 48, 80), (1, 2, 2))
    large.load_state_dict(growth.grown(small, large))
    before = {name: p.detach().clone() for name, p in large.named_parameters()}
    optimiser = torch.optim.SGD(large.parameters(), 0.1)
    for _ in range(2):
        optimiser.zero_grad()
        large(torch.rand(2, 3, 32, 32)).square().sum().backward()
        torch.nn.utils.clip_grad_norm_(large.parameters(), 1.0)
        optimiser.step()
    for name, parameter in large.named_parameters():
        assert (parameter != before[name]).any(), name
    zeros = [(p != 0)[before[name] == 0] for name, p in large.named_parameters()]
    assert sum(map(len, zeros)) > 10_000 and torch.cat(zeros).float().mean() > 0.9


def test_networks_do_not_shrink(small):
    for widths, blocks in [((16, 32, 48), 1), ((16, 32), 1), ((16, 32, 64, 128), 1), ((16, 32, 64), 0)]:
        with pytest.raises(ValueError, match="does not grow"):
            growth.grown(small, network.Denoiser(widths, blocks))


def test_halfway_between_two_networks(small):
    other = network.Denoiser(small.widths, small.blocks)
    expected = [0.5 * (p + q) for p, q in zip(small.parameters(), other.parameters())]
    mean = network.Denoiser(small.widths, small.blocks)
    mean.load_state_dict(small.state_dict())
    network.move_halfway(mean, other)
    for found, wanted in zip(mean.parameters(), expected):
        assert torch.allclose(found, wanted, atol=1e-7)
    with pytest.raises(ValueError, match="shape"):
        network.move_halfway(mean, network.Denoiser((8, 16), 1))


def test_every_level_has_a_count_of_blocks():
    assert network.parameter_count(network.Denoiser((8, 16), 2)) == network.parameter_count(network.Denoiser((8, 16), (2, 2)))
    with pytest.raises(ValueError, match="2 widths and 1 counts"):
        network.Denoiser((8, 16), (1,))


@torch.no_grad()
def test_bfloat16_trunk_is_close(small):
    image = torch.rand(2, 3, 64, 64)
    exact, rounded = small(image), network.forward_in_bfloat16(small, image)
    assert rounded.dtype == torch.float32
    assert 0 < (rounded - exact).square().mean() < 0.02**2 * (exact - image).square().mean()


def batch_of(clean, noise, sigma):
    full = torch.full_like(clean, sigma)
    return losses.Batch(clean + noise, clean, full, torch.ones_like(clean))


def loss(output, batch):
    return sum(losses.loss_terms(output, batch).values()).item()


def test_loss_is_smallest_at_the_truth():
    clean = torch.rand(4, 3, 32, 32)
    batch = batch_of(clean, 0.05 * torch.randn_like(clean), 0.05)
    at_truth = losses.loss_terms(clean, batch)
    assert at_truth["pixel"].item() == pytest.approx(math.log(losses.PIXEL_GOAL), rel=1e-4)
    assert at_truth["boxes"].item() == pytest.approx(2 * losses.BOX_WEIGHT * math.sqrt(losses.BOX_GOAL), rel=1e-4)
    assert loss(clean, batch) < loss(clean + 0.2 * (batch.noisy - clean), batch) - 1 < loss(batch.noisy, batch) - 3


def test_a_box_error_counts_in_deviations_of_the_box():
    """A shift of a tenth of the noise is 0.4 deviations of a 4 px box and 3.2 of a 32 px box."""
    clean = torch.full((2, 3, 64, 64), 0.3)
    batch = batch_of(clean, 0.1 * torch.randn_like(clean), 0.1)
    noise = losses.pixel_noise(batch)
    border = torch.ones(1, 1, 64, 64)
    got = losses._boxes(torch.full_like(clean, 0.01), batch, noise, border, losses.gray_patches(batch.noisy))
    expected = 0.0
    for size, share in losses.BOX_SHARES.items():
        for channels in (1, 3):
            deviation = math.hypot(1 / size, losses.BOX_FLOOR / 0.1)
            z = 0.1 / (1 - 0.01 / 0.72) * channels**0.5 / deviation
            limit = losses.BOX_LIMIT
            expected += 0.5 * share * (z * z / 2 if z < limit else limit * (z - limit / 2))
    assert got.tolist() == pytest.approx([expected] * 2, rel=0.01)


def test_the_same_error_weighs_more_where_the_stretch_is_flat():
    """In a star's core, where the noise after the stretch is small and the light behind it large."""
    clean = torch.full((1, 3, 32, 32), 0.3)
    sky = batch_of(clean, torch.zeros_like(clean), 0.05)
    core = torch.zeros(1, 1, 32, 32)
    core[..., 14:18, 14:18] = 1
    star = sky._replace(spread=sky.spread * (1 - 0.9 * core), linear_spread=1 + 4 * core.expand_as(clean))
    border, results = torch.ones(1, 1, 32, 32), []
    for batch in (sky, star):
        noise = losses.pixel_noise(batch)
        results.append(losses._boxes(-0.004 * core.expand_as(clean), batch, noise, border, losses.gray_patches(clean)).item())
    assert results[1] > 20 * results[0] > 0


@pytest.mark.parametrize("y, error", [(0.5, 0.01), (0.9, 0.02), (0.95, -0.02)])
def test_errors_bend_as_a_midtones_inverse_does(y, error):
    balance = 0.002
    slope = (stretch.inverse_midtones(balance, y + 1e-6) - stretch.inverse_midtones(balance, y - 1e-6)) / 2e-6
    exact = stretch.inverse_midtones(balance, y + error) - stretch.inverse_midtones(balance, y)
    bent = losses.linear_error(torch.tensor(error), torch.tensor(y)).item()
    assert bent * slope == pytest.approx(exact, rel=0.15)
    assert abs(bent * slope - exact) < abs(error * slope - exact)


def test_floors_shrink_towards_saturation():
    assert losses.floors(torch.tensor([0.0, 0.5, 0.75, 0.9, 1.0])).tolist() == pytest.approx([1.0, 1.0, 1.0, 0.4, 0.1])


def test_gray_term_sees_planes_apart_in_gray_patches_only():
    plane = torch.rand(2, 1, 32, 32)
    clean = plane.repeat(1, 3, 1, 1)
    noise = 0.05 * torch.randn(2, 1, 32, 32).repeat(1, 3, 1, 1)
    batch = batch_of(clean, noise, 0.05)
    tint = torch.tensor([0.01, 0.0, -0.01])[:, None, None]
    assert losses.loss_terms(clean, batch)["gray"] < 1e-5
    assert losses.loss_terms(clean + tint, batch)["gray"] == pytest.approx(losses.GRAY_WEIGHT * 0.02 / 3 / 0.05, rel=0.01)
    colour = batch._replace(noisy=batch.noisy + 0.001 * torch.rand_like(clean))
    assert losses.loss_terms(clean + tint, colour)["gray"] == 0


def test_border_weights():
    weight = losses.border_weight(32, torch.device("cpu"))[0, 0]
    assert weight[0, 16] == pytest.approx(0.1) and weight[16, 16] == 1 and weight.min() == pytest.approx(0.1)


def test_lattice_term_sees_a_checkerboard_and_no_slope():
    row, column = torch.meshgrid(torch.arange(32.0), torch.arange(32.0), indexing="ij")
    board = ((row + column) % 2).expand(1, 3, 32, 32)
    assert losses._lattice(board).item() == pytest.approx(0.5)
    assert losses._lattice(torch.full((1, 3, 32, 32), 0.7)).item() == pytest.approx(0.0, abs=1e-6)
