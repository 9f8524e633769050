#!/usr/bin/env python3
"""Trains a network from a configuration, resuming from its checkpoint where there is one.

The learning rate falls along a cosine of the run's own clock (time spent training, kept in the checkpoint), so that a run
ends decayed whatever the machine's speed. Several CPU workers each compute the gradient of their share of a batch with one
thread and average it once per step, which suffers less from busy cores than many threads inside every layer do.
"""

from __future__ import annotations

import argparse
import copy
import json
import math
import tempfile
import time
from pathlib import Path

import torch
import torch.distributed as dist
import torch.multiprocessing as multiprocessing

from lumvane_training import GENERATOR_VERSION, checkpoint, config
from lumvane_training.clipping import NormTracker
from lumvane_training.feeder import Feeder
from lumvane_training.losses import Batch, loss_terms
from lumvane_training.network import Denoiser, forward_in_bfloat16, parameter_count

LOG_EVERY = 200
SAVE_SECONDS = 120.0
PAUSE_SECONDS = 15.0
"""Ten steps that take longer were interrupted: the run's clock stands still meanwhile, and the schedule with it."""
BUFFER_PIXELS = 12_000_000
"""Crop pixels that each feeder keeps for mixing: some forty frames of a 512 px pool."""


def learning_rate(run: config.Config, step: int, progress: float) -> float:
    """Linear warm-up over steps, then a cosine over the share of time spent, down to a thousandth."""
    warm = min(1.0, (step + 1) / run.warmup_steps)
    return run.learning_rate * warm * (1e-3 + (1 - 1e-3) * 0.5 * (1.0 + math.cos(math.pi * min(progress, 1.0))))


def average_gradients(network: torch.nn.Module, workers: int) -> None:
    """Replaces every gradient by its mean over the workers, in one message."""
    if workers == 1:
        return
    gradients = [p.grad for p in network.parameters()]
    flat = torch.cat([g.flatten() for g in gradients])
    dist.all_reduce(flat)
    flat /= workers
    for gradient, part in zip(gradients, flat.split([g.numel() for g in gradients])):
        gradient.copy_(part.view_as(gradient))


class Trainer:
    """One worker of a run: network, optimiser, averaged weights, feeder, clock."""

    def __init__(self, run: config.Config, folder: Path, rank: int, workers: int, device: torch.device):
        self.run, self.folder, self.rank, self.workers, self.device = run, folder, rank, workers, device
        torch.manual_seed(run.seed)
        self.network = Denoiser(run.widths, run.blocks).to(device, memory_format=torch.channels_last)
        self.average = copy.deepcopy(self.network)
        self.optimiser = torch.optim.AdamW(self.network.parameters(), run.learning_rate, betas=(0.9, 0.99),
                                           weight_decay=run.weight_decay, foreach=True)
        self.step, self.seconds, self.megapixels = 0, 0.0, 0.0
        self.skipped, self.base_megapixels = 0, 0.0
        self.norms = NormTracker(run.clip_ratio)
        self.terms: dict[str, float] = {}
        # Fused, the loss takes a quarter of its time; unfused it would take as long as the network.
        self.loss_terms = torch.compile(loss_terms, dynamic=False) if run.fuse else loss_terms
        self.feeder: Feeder | None = None
        self.phase: config.Phase | None = None
        self._resume()

    def _resume(self) -> None:
        path = self.folder / "checkpoint.pt"
        if path.exists():
            state = checkpoint.load(path)
            self.network.load_state_dict(state["network"])
            self.average.load_state_dict(state["average"])
            self.optimiser.load_state_dict(state["optimiser"])
            self.step, self.seconds, self.megapixels = state["step"], state["seconds"], state["megapixels"]
            self.base_megapixels = state.get("base_megapixels", 0.0)
            self.norms.usual = state.get("usual_norm")
        elif self.run.start_from:
            weights, self.base_megapixels = checkpoint.starting_point(self.run.start_from, self.network)
            self.network.load_state_dict(weights)
            self.average.load_state_dict(weights)

    @property
    def progress(self) -> float:
        """Share of the run's time that is spent."""
        return self.seconds / (60.0 * self.run.minutes)

    def state(self) -> dict:
        """What the checkpoint holds."""
        return {
            "network": self.network.state_dict(), "average": self.average.state_dict(),
            "optimiser": self.optimiser.state_dict(), "step": self.step, "seconds": self.seconds,
            "megapixels": self.megapixels, "base_megapixels": self.base_megapixels,
            "widths": list(self.network.widths), "blocks": list(self.network.blocks),
            "name": self.run.name, "version": self.run.version, "seed": self.run.seed, "pool_seed": self.run.pool_seed,
            "usual_norm": self.norms.usual, "generator": GENERATOR_VERSION, "progress": self.progress,
            "start_from": self.run.raw["run"].get("start_from", ""),
        }

    def _enter_phase(self) -> None:
        """Starts the feeder of the phase that the clock is in, where that has changed."""
        phase = next((p for p in self.run.phases if self.progress < p.until), self.run.phases[-1])
        if phase is self.phase:
            return
        if self.feeder:
            self.feeder.close()
        self.phase = phase
        share = max(1, phase.batch // self.workers)
        # The step in the seed makes a resumed run see new frames instead of its first ones again.
        seed = [self.run.seed, self.rank, self.step]
        self.feeder = Feeder(seed, self.run.pools, self.run.frame_laws, phase.patch, share, coverage=self.run.coverage,
                             buffer=max(24, BUFFER_PIXELS // phase.patch**2))

    def train_step(self) -> float:
        """One step; returns the loss of this worker's share."""
        self._enter_phase()
        planes = torch.from_numpy(self.feeder.next()).to(self.device)
        batch = Batch(*(planes[:, i].contiguous() for i in range(planes.shape[1])))
        noisy = batch.noisy.contiguous(memory_format=torch.channels_last)
        for group in self.optimiser.param_groups:
            group["lr"] = learning_rate(self.run, self.step, self.progress)
        output = forward_in_bfloat16(self.network, noisy) if self.run.precision == "bfloat16" else self.network(noisy)
        terms = self.loss_terms(output, batch)
        loss = sum(terms.values())
        self.optimiser.zero_grad()
        loss.backward()
        average_gradients(self.network, self.workers)
        norm = torch.nn.utils.clip_grad_norm_(self.network.parameters(), self.norms.limit())
        if not torch.isfinite(norm):
            # All workers hold the same averaged gradient, so all of them skip the step.
            self.skipped += 1
            if self.skipped > 20:
                raise FloatingPointError("twenty steps in a row without a finite gradient")
            return 0.0
        self.skipped = 0
        self.norms.add(float(norm))
        self.optimiser.step()
        # A young average follows closely, an old one slowly.
        decay = min(self.run.average_decay, (1 + self.step) / (10 + self.step))
        with torch.no_grad():
            torch._foreach_lerp_(list(self.average.parameters()), list(self.network.parameters()), 1 - decay)
        self.step += 1
        self.megapixels += self.workers * noisy.shape[0] * noisy.shape[2] * noisy.shape[3] / 1e6
        for name, value in terms.items():
            self.terms[name] = self.terms.get(name, 0.0) + float(value.detach())
        return float(loss.detach())

    def shared_clock(self, spent: float, stop: bool) -> tuple[float, bool]:
        """Worker 0's seconds and whether to stop, so that all workers stop and change phase at the same step."""
        parent = multiprocessing.parent_process()
        stop = stop or (parent is not None and not parent.is_alive())
        if self.workers == 1:
            return spent, stop
        value = torch.tensor([spent, float(stop)], dtype=torch.float64)
        dist.broadcast(value, 0)
        return float(value[0]), bool(value[1])

    def fit(self, stop_after: float) -> None:
        """Trains until the run's time is over or `stop_after` seconds have passed in this call."""
        start = last_check = last_log = last_save = time.monotonic()
        calls, losses, last_megapixels = 0, [], self.megapixels
        while self.progress < 1.0:
            losses.append(self.train_step())
            calls += 1
            if calls % 10 == 0:
                now = time.monotonic()
                spent, stop = self.shared_clock(min(now - last_check, PAUSE_SECONDS), now - start > stop_after)
                last_check = now
                self.seconds += spent
                if stop:
                    break
            if self.rank == 0 and self.step % LOG_EVERY == 0:
                now = time.monotonic()
                rate = (self.megapixels - last_megapixels) / (now - last_log)
                parts = {name: round(value / len(losses), 4) for name, value in self.terms.items()}
                record = {"step": self.step, "minutes": round(self.seconds / 60, 2), "loss": sum(losses) / len(losses),
                          "lr": self.optimiser.param_groups[0]["lr"], "mpx": round(self.megapixels, 1),
                          "mpx_per_s": round(rate, 3), "norm": self.norms.usual, **parts}
                with open(self.folder / "log.jsonl", "a") as log:
                    log.write(json.dumps(record) + "\n")
                print(record, flush=True)
                losses, last_log, last_megapixels = [], now, self.megapixels
                self.terms = {}
            if self.rank == 0 and time.monotonic() - last_save > SAVE_SECONDS:
                checkpoint.save(self.folder / "checkpoint.pt", self.state())
                last_save = time.monotonic()
        if self.rank == 0:
            checkpoint.save(self.folder / "checkpoint.pt", self.state())
        if self.feeder:
            self.feeder.close()


def work(rank: int, workers: int, options: argparse.Namespace) -> None:
    """Entry of one worker process."""
    run = config.load(options.config)
    torch.set_num_threads(options.threads)
    torch.set_flush_denormal(True)
    folder = options.runs / run.name
    folder.mkdir(parents=True, exist_ok=True)
    if workers > 1:
        dist.init_process_group("gloo", init_method=f"file://{options.meeting}", rank=rank, world_size=workers)
    trainer = Trainer(run, folder, rank, workers, torch.device(options.device))
    if rank == 0:
        print(f"{run.name}: {parameter_count(trainer.network)} weights, step {trainer.step}", flush=True)
    trainer.fit(60.0 * options.stop_after if options.stop_after else math.inf)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("config", type=Path)
    parser.add_argument("--runs", type=Path, default=config.TRAINING_ROOT / "runs")
    parser.add_argument("--device", default="cuda" if torch.cuda.is_available() else "cpu")
    parser.add_argument("--workers", type=int, default=1, help="processes that share each batch (CPU)")
    parser.add_argument("--threads", type=int, default=1, help="threads of each worker")
    parser.add_argument("--stop-after", type=float, help="minutes after which this call stops; run it again to go on")
    options = parser.parse_args()
    if options.workers == 1:
        work(0, 1, options)
    else:
        with tempfile.TemporaryDirectory() as folder:
            options.meeting = Path(folder) / "workers"
            multiprocessing.spawn(work, args=(options.workers, options), nprocs=options.workers)


if __name__ == "__main__":
    main()
