#!/usr/bin/env python3
"""Measures a trained network on held-out scenes and writes a report in Markdown.

The weights are rounded to float16 first, as the package stores them; with --package the script also checks that the
package holds exactly these weights. With --program the gains are measured through the built program as well.
"""

from __future__ import annotations

import argparse
import json
import sys
from pathlib import Path

import numpy as np
import torch

from lumvane_training import baselines, checkpoint, evaluation, frames, scenes, tiles
from lumvane_training import network as networks


def package_holds(package: Path, network: torch.nn.Module) -> bool:
    """Whether every weight tensor's float16 bytes occur in the package's weight file."""
    blob = (package / "Data/com.apple.CoreML/weights/weight.bin").read_bytes()
    return all(p.detach().half().numpy().tobytes() in blob for p in network.parameters())


def seams(network: networks.Denoiser, seed: int) -> dict:
    """The tile loop against one pass over the whole frame of 992 px, where no seam can be; relative to the noise."""
    scene = scenes.render_scene(seed, 3, 992, scenes.SceneLaws(leaves_share=0.0))
    pair = frames.make_pair(np.random.default_rng([seed, 9]), scene.light, wanted=0.06, mode="other", mono=False)
    whole, tiled = tiles.run(network, pair.noisy), tiles.run_tiled(network, pair.noisy)
    difference = tiled - whole
    sigma = evaluation.measured_sigma(pair)
    band = np.abs(difference[:, :, 480:512]).mean()
    return {"worst_in_sigma": float(np.abs(difference).max() / sigma), "sigma": sigma,
            "rms_share_of_removed": float(np.sqrt(np.mean(difference**2) / np.mean((whole - pair.noisy) ** 2))),
            "band_mean_in_sigma": float(band / sigma)}


def scaling(network: networks.Denoiser) -> float:
    """Largest deviation of f(x/2) from f(x)/2."""
    image = np.random.default_rng(5).random((3, 128, 128), dtype=np.float32)
    return float(np.abs(tiles.run(network, 0.5 * image) - 0.5 * tiles.run(network, image)).max())


def measure(network: networks.Denoiser, options: argparse.Namespace, denoise) -> dict:
    """All figures."""
    mono = "some" if options.mono else "none"
    seed, size = evaluation.HELD_OUT_SEED, options.size
    results = {}
    for name, offset, laws in (("same laws", 0, scenes.SceneLaws()), ("other laws", 1, evaluation.OTHER_LAWS)):
        cases = list(evaluation.held_out(seed + offset, options.scenes, size, laws, mono))
        results[f"gains, {name}"] = evaluation.gain_table(evaluation.gains(cases, denoise))
        if offset == 0:
            results["no harm"] = evaluation.no_harm(cases, denoise)
            results["second pass"] = evaluation.second_pass(cases, denoise)
            results["colour shift"] = evaluation.colour_shift(cases, denoise)
            results["mono planes"] = evaluation.mono_planes(cases, denoise) if options.mono else None
        print(f"{name} done", file=sys.stderr, flush=True)
    sparse = scenes.SceneLaws(leaves_share=0.0, star_density=(2e-4, 4e-3), cluster_share=0.0)
    stars = evaluation.star_errors(seed + 2, options.scenes, size, denoise, sparse)
    results["stars"] = evaluation.star_table(stars)
    results["pure noise"] = evaluation.pure_noise(seed + 3, 6, size, denoise)
    results["seams"] = seams(network, seed + 4)
    results["scaling"] = scaling(network)
    return results


def gain_lines(table: list[dict]) -> list[str]:
    """A Markdown table of gains in dB."""
    names = ["network", *baselines.ALL]
    lines = ["| frames | input noise | n | input PSNR | " + " | ".join(names) + " | network, worst |",
             "| --- | --- | --- | --- | " + " | ".join("---" for _ in names) + " | --- |"]
    for row in table:
        low, high = row["bin"]
        label = f"{low:g} to {high:g}" if high < 1 else f"above {low:g}"
        values = " | ".join(f"{row[n]:+.1f}" for n in names)
        lines.append(f"| {row['kind']} | {label} | {row['count']} | {row['input']:.1f} | {values} | {row['worst']:+.1f} |")
    return lines


def star_lines(table: list[dict]) -> list[str]:
    """A Markdown table of flux errors in percent."""
    lines = ["| SNR | stars | noisy, median | noisy, scatter | denoised, median | denoised, scatter |",
             "| --- | --- | --- | --- | --- | --- |"]
    for row in table:
        low, high = row["bin"]
        label = f"{low:g} to {high:g}" if np.isfinite(high) else f"above {low:g}"
        lines.append(f"| {label} | {row['count']} | {row['before']:+.1%} | {row['before_scatter']:.1%} | "
                     f"{row['after']:+.1%} | {row['after_scatter']:.1%} |")
    return lines


def verdict(value: float, limit: float) -> str:
    """met or missed, with the limit."""
    return f"aim {limit:g}: {'met' if value <= limit else '**missed**'}"


def report(results: dict, command: str) -> str:
    """The report in Markdown."""
    harm, shift, noise, seam = (results[k] for k in ("no harm", "colour shift", "pure noise", "seams"))
    cast = f"{shift['cast_in_sigma_median']:.3f} ({shift['cast_in_sigma_worst']:.3f})"
    means = ", ".join(f"{v:+.5f}" for v in shift["mean"])
    biases = ", ".join(f"{v:+.5f}" for v in shift["bias"])
    largest = max(map(abs, shift["bias"]))
    peak = f"highest peak, input sigma (in the input: {noise['input_peak']:.1f})"
    lines = [f"Measured by `{command}`.", "",
             "Gain in PSNR (dB) over the input, by noise after the stretch, unseen scenes of the training laws:", ""]
    lines += gain_lines(results["gains, same laws"])
    lines += ["", "The same for scenes from beyond the training ranges:", ""] + gain_lines(results["gains, other laws"])
    lines += ["", "Flux of isolated stars in linear light after the inverse stretch, relative to the noise-free frame:", ""]
    lines += star_lines(results["stars"])
    lines += ["", "| check | figure | |", "| --- | --- | --- |"]
    lines += [
        f"| change of noise-free frames, rms, median (worst) | {harm['median']:.4f} ({harm['worst']:.4f}) | "
        f"{verdict(harm['median'], 0.002)} |",
        f"| second pass changes, share of the first | {results['second pass']:.2f} | {verdict(results['second pass'], 0.2)} |",
        f"| mean of output minus input, R, G, B | {means} (worst frame {shift['worst']:.4f}) | |",
        f"| mean of output minus truth, R, G, B | {biases} | {verdict(largest, 0.001)} |",
        f"| colour cast, in input sigma, median (worst) | {cast} | {verdict(shift['cast_in_sigma_median'], 0.02)} |",
        f"| three equal planes differ by at most | {results['mono planes']:.4f} | {verdict(results['mono planes'], 0.001)} |"
        if results["mono planes"] is not None else "| three equal planes | not trained for | |",
        f"| flat sky: noise left, input sigma | {noise['left']:.3f} | |",
        f"| flat sky: {peak} | {noise['highest_peak']:.2f} | {verdict(noise['highest_peak'], 1.0)} |",
        f"| flat sky: shift of the background, input sigma | {noise['shift']:.3f} | {verdict(noise['shift'], 0.02)} |",
        f"| flat sky: 2 px lattice, input sigma | {noise['lattice']:.4f} | {verdict(noise['lattice'], 0.01)} |",
        f"| seams: tiles against one pass, worst pixel, input sigma | {seam['worst_in_sigma']:.3f} | "
        f"{verdict(seam['worst_in_sigma'], 0.25)} |",
        f"| seams: rms share of the removed noise | {seam['rms_share_of_removed']:.4f} | |",
        f"| f(x/2) against f(x)/2, worst | {results['scaling']:.1e} | {verdict(results['scaling'], 1e-5)} |",
    ]
    return "\n".join(lines) + "\n"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("checkpoint", type=Path)
    parser.add_argument("--package", type=Path, help="check that this package holds the same weights")
    parser.add_argument("--program", type=Path, help="measure through this built program instead (needs --package)")
    parser.add_argument("--mono", action=argparse.BooleanOptionalAction, default=None, help="default: as the version")
    parser.add_argument("--scenes", type=int, default=64)
    parser.add_argument("--size", type=int, default=512)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--report", type=Path, help="write Markdown here instead of standard output")
    parser.add_argument("--json", type=Path, help="also write all figures here")
    options = parser.parse_args()
    torch.set_num_threads(options.threads)
    torch.set_flush_denormal(True)
    network, state = checkpoint.averaged_network(options.checkpoint)
    networks.round_to_half(network)
    if options.package and not package_holds(options.package, network):
        sys.exit(f"{options.package} does not hold the weights of {options.checkpoint}")
    if options.mono is None:
        options.mono = state["version"] != 1
    denoise = lambda image: tiles.run(network, image)  # noqa: E731
    if options.program:
        if not options.package or options.size < tiles.WINDOW:
            sys.exit("--program needs --package and frames of at least 512 pixels")
        denoise = tiles.through_program(options.program, options.package, state["version"])
    results = measure(network, options, denoise)
    command = f"evaluate.py runs/{state['name']}/checkpoint.pt --scenes {options.scenes} --size {options.size}"
    command += f" --package ../models/{options.package.name}" if options.package else ""
    text = report(results, command + (" --program lumvane" if options.program else ""))
    if options.json:
        options.json.write_text(json.dumps(results, indent=1) + "\n")
    if options.report:
        options.report.write_text(text)
    else:
        print(text)


if __name__ == "__main__":
    main()
