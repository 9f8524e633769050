#!/usr/bin/env python3
"""One tile of well-known networks by the engine, by ONNX Runtime and by PyTorch, in turns and with the same threads.

  bench/compare_engines.py --engine build/bench/bench/engine_tile [--threads 2] [--rounds 5] [NETWORK...]

Needs torch, coremltools, onnx, onnxscript and onnxruntime from PyPI. Every network gets random weights; the same weights
go into a Core ML package and into an ONNX file. Each engine is a process of its own, so that its peak of memory is its
own, too; what it needs before it has seen the network is taken off.

On a machine that others use, too, --processor-time with one thread tells what the tile costs while it computes.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SIZE = 512
sys.path[:0] = [str(ROOT / "tests/fixtures/packages"), str(ROOT / "training")]


def networks():
    """name: a function that makes the module."""
    from architectures.gated import NAFNet
    from architectures.plain import DRUNet, RCAN
    from lumvane_training import config
    from lumvane_training.network import Denoiser

    shipped = config.load(ROOT / "training/configs/v2.toml")
    return {
        "ours": lambda: Denoiser(shipped.widths, shipped.blocks),
        "drunet": lambda: DRUNet((64, 128, 256, 512), 4),
        "nafnet": lambda: NAFNet(32, 4),
        "rcan": lambda: RCAN(64, 2, 4),
    }


def export(name, folder):
    """Writes name.mlpackage, name.onnx and name.pt with one set of weights; returns multiply-adds."""
    import torch
    from package_writing import convert

    torch.manual_seed(1)
    module = networks()[name]().eval()
    example = torch.rand(1, 3, SIZE, SIZE)
    with torch.no_grad():
        convert(module, (1, 3, SIZE, SIZE)).save(str(folder / f"{name}.mlpackage"))
        torch.onnx.export(module, (example,), str(folder / f"{name}.onnx"), dynamo=False, opset_version=17)
        torch.jit.trace(module, example).save(str(folder / f"{name}.pt"))
    return multiply_adds(module, example)


def multiply_adds(module, example):
    """Of all convolutions of one pass."""
    import torch

    total = 0

    def count(layer, _, result):
        nonlocal total
        kernel = layer.weight.numel() // (layer.out_channels if isinstance(layer, torch.nn.Conv2d) else layer.in_channels)
        pixels = result if isinstance(layer, torch.nn.Conv2d) else None
        if pixels is not None:
            total += kernel * result.numel()
        else:
            total += layer.weight.numel() * result.shape[2] * result.shape[3] // layer.stride[0] ** 2

    hooks = [
        layer.register_forward_hook(count)
        for layer in module.modules()
        if isinstance(layer, (torch.nn.Conv2d, torch.nn.ConvTranspose2d))
    ]
    with torch.no_grad():
        module(example)
    for hook in hooks:
        hook.remove()
    return total


def matrix_peak(threads):
    """Multiply-adds a second of a large matrix product, the best of a few: what the machine can do at this moment."""
    import torch

    torch.set_num_threads(threads)
    a, b = torch.rand(2048, 2048), torch.rand(2048, 2048)
    best = min(timed(lambda: torch.mm(a, b)) for _ in range(10))
    return 2048**3 / best


def copied_bytes():
    """Bytes a second, read and written, of a plain copy that no cache holds, the best of a few."""
    import torch

    a = torch.rand(64 << 20)
    b = torch.empty_like(a)
    return 2 * a.nbytes / min(timed(lambda: b.copy_(a)) for _ in range(5))


clock = time.perf_counter


def timed(work):
    start = clock()
    work()
    return clock() - start


# ---- the other engines, each in a process of its own


def peak_megabytes():
    """The system's own account of this process. What getrusage says begins with the peak of the process before it."""
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1]) / 1024
    return 0.0


def serve(kind, path, threads):
    """Speaks as engine_tile does."""
    if kind == "onnxruntime":
        import numpy
        import onnxruntime

        options = onnxruntime.SessionOptions()
        options.intra_op_num_threads = threads
        before = peak_megabytes()
        opened = timed(lambda: globals().update(session=onnxruntime.InferenceSession(path, options)))
        feed = {globals()["session"].get_inputs()[0].name: numpy.full((1, 3, SIZE, SIZE), 0.25, numpy.float32)}

        def work():
            globals()["session"].run(None, feed)

    else:
        import torch

        torch.set_num_threads(threads)
        torch.set_flush_denormal(True)
        before = peak_megabytes()
        opened = timed(lambda: globals().update(module=torch.jit.load(path).eval()))
        module = globals()["module"].to(memory_format=torch.channels_last)
        tile = torch.full((1, 3, SIZE, SIZE), 0.25).to(memory_format=torch.channels_last)

        def work():
            with torch.inference_mode():
                module(tile)

    print(f"{1e3 * opened:.3f}", flush=True)
    print(f"{1e3 * timed(work):.3f}", flush=True)
    for _ in sys.stdin:
        print(f"{1e3 * timed(work):.3f}", flush=True)
    print(f"{peak_megabytes() - before:.1f}", flush=True)


class Engine:
    """A child that runs one tile per line."""

    def __init__(self, command, threads):
        environment = dict(os.environ, OMP_NUM_THREADS=str(threads))
        self.child = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=environment
        )
        self.opening, self.first, self.times = self._number(), self._number(), []

    def _number(self):
        line = self.child.stdout.readline()
        if not line:
            raise SystemExit(f"{self.child.args[:3]} ended early")
        return float(line)

    def run(self):
        """A turn: a tile that finds the caches as another engine left them, which does not count, and two that do."""
        for turn in range(3):
            self.child.stdin.write("\n")
            self.child.stdin.flush()
            taken = self._number()
            if turn > 0:
                self.times.append(taken)

    def peak(self):
        """Ends the child."""
        self.child.stdin.close()
        peak = self._number()
        self.child.wait()
        return peak


def compare(name, folder, options):
    work = export(name, folder)
    serve_with = [sys.executable, __file__, "--threads", str(options.threads)]
    serve_with += ["--processor-time", "--serve"] if options.processor_time else ["--serve"]
    clock_name = "processor" if options.processor_time else "wall"
    commands = {
        "engine": [options.engine, str(folder / f"{name}.mlpackage"), str(SIZE), clock_name],
        "onnxruntime": [*serve_with, "onnxruntime", str(folder / f"{name}.onnx")],
        "pytorch": [*serve_with, "pytorch", str(folder / f"{name}.pt")],
    }
    engines = {kind: Engine(command, options.threads) for kind, command in commands.items()}
    peaks = []
    for _ in range(options.rounds):
        peaks.append(matrix_peak(options.threads))
        for engine in engines.values():
            engine.run()
    peak = max(peaks)
    print(f"\n{name}: {work / 1e9:.2f} G multiply-adds at {SIZE} x {SIZE}, {options.threads} threads; "
          f"matrix products reach {peak / 1e9:.0f} G a second, copies {copied_bytes() / 1e9:.1f} GB a second")
    print(f"{'':12} {'best ms':>9} {'median':>9} {'of peak':>8} {'memory MB':>10} {'opening ms':>11} {'first tile':>11}")
    best = {}
    for kind, engine in engines.items():
        best[kind] = min(engine.times), engine.peak()
        share = work / (best[kind][0] / 1e3) / peak
        print(f"{kind:12} {best[kind][0]:9.1f} {statistics.median(engine.times):9.1f} {share:8.2f} "
              f"{best[kind][1]:10.0f} {engine.opening:11.1f} {engine.first:11.1f}")
    rival = min(best["onnxruntime"], best["pytorch"])
    print(f"engine / faster of the others: time {best['engine'][0] / rival[0]:.2f}, "
          f"memory {best['engine'][1] / rival[1]:.2f}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("networks", nargs="*", default=["ours", "drunet", "nafnet", "rcan"])
    parser.add_argument("--engine", default=str(ROOT / "build/bench/bench/engine_tile"))
    parser.add_argument("--threads", type=int, default=os.cpu_count())
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--keep", type=Path, help="folder that keeps the exported networks")
    parser.add_argument("--serve", nargs=2, help=argparse.SUPPRESS)
    parser.add_argument("--processor-time", action="store_true", help="instead of wall time; needs --threads 1")
    options = parser.parse_args()
    if options.processor_time:
        if options.threads != 1:
            parser.error("--processor-time needs --threads 1")
        global clock
        clock = time.process_time
    if options.serve:
        serve(*options.serve, options.threads)
        return
    with tempfile.TemporaryDirectory() as scratch:
        folder = options.keep or Path(scratch)
        folder.mkdir(parents=True, exist_ok=True)
        for name in options.networks:
            compare(name, folder, options)


if __name__ == "__main__":
    main()
