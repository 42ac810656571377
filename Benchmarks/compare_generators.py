#!/usr/bin/env python3
"""`vellum generate` beside Debian's sox, an independent generator: whole processes, from start to written file.

    compare_generators.py VELLUM [--bench VELLUM_BENCH] [--runs N] [--minutes M] [--rate HZ]

Each signal is written as a mono 24-bit WAV file, by the two in turn, so that whatever else the machine does falls
on both. Not the same work everywhere: our square holds the harmonics below half the sample rate and has its peak
at the level that was asked for, sox's is two values with whatever that aliases to; our noise has exactly the RMS
that was asked for, which takes a pass ahead. With --bench, the rendering alone in ns per sample stands beside, a
pass ahead included.
"""

import argparse
import json
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

# Our source, sox's words for it, our benchmark of the rendering alone.
SIGNALS = {
    "sine 440 Hz": ({"sine": {"frequency": 440}}, ["sine", "440"], "sine_440"),
    "square 440 Hz": ({"square": {"frequency": 440}}, ["square", "440"], "square_440"),
    "white noise": ({"noise": {"_0": "white"}}, ["whitenoise"], "noise_white"),
    "pink noise": ({"noise": {"_0": "pink"}}, ["pinknoise"], "noise_pink"),
}
GAIN_DB = -20


def document(source, seconds, rate):
    module = {"duration": seconds, "source": source, "gainDB": GAIN_DB}
    return json.dumps({"sampleRate": rate, "bitDepth": "int24", "channels": [{"modules": [module]}]})


def seconds_of(command, output, frames):
    """Wall-clock time of a command that writes `output`; its file is looked at and removed."""
    start = time.perf_counter()
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    taken = time.perf_counter() - start
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {done.returncode}: {done.stderr}")
    bytes_needed = frames * 3
    if not bytes_needed <= output.stat().st_size <= bytes_needed + 1000:
        sys.exit(f"{output}: {output.stat().st_size} bytes for {frames} frames")
    output.unlink()
    return taken


def rendering_alone(bench):
    """{benchmark: ns per sample} of the streaming renderer, measured now."""
    names = "|".join(name for _, _, name in SIGNALS.values())
    command = [bench, f"--benchmark_filter=^source/({names})$", "--benchmark_format=json"]
    done = subprocess.run(command, capture_output=True, text=True, check=True)
    runs = json.loads(done.stdout)["benchmarks"]
    return {run["name"].removeprefix("source/"): run["per_sample"] * 1e9 for run in runs}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("vellum", type=Path)
    parser.add_argument("--bench", type=Path)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--rate", type=int, default=48000)
    options = parser.parse_args()
    sox = shutil.which("sox")
    if sox is None:
        sys.exit("sox is missing: there is nothing to compare with")

    seconds = options.minutes * 60
    frames = round(seconds * options.rate)
    alone = rendering_alone(options.bench) if options.bench else {}
    print(f"{options.minutes:g} minutes, {options.rate} Hz, mono, 24-bit WAV, {options.runs} runs in turn; seconds")
    print(f"{'':14}  {'vellum':^15}  {'sox':^15}  {'times as fast':^15}  rendering")
    print(f"{'':14}  {'min':>7} {'median':>7}  {'min':>7} {'median':>7}  {'min':>7} {'median':>7}  alone")
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        for signal, (source, words, benchmark) in SIGNALS.items():
            spec = folder / "spec.json"
            spec.write_text(document(source, seconds, options.rate), encoding="utf-8")
            ours, theirs = folder / "ours.wav", folder / "theirs.wav"
            commands = [
                ([options.vellum, "generate", spec, ours], ours),
                # No dither on either side, the level alike.
                ([sox, "-D", "-n", "-r", str(options.rate), "-c", "1", "-b", "24", theirs, "synth", f"{seconds:g}"]
                 + words + ["vol", f"{GAIN_DB}dB"], theirs),
            ]
            times = [[], []]
            for run in range(options.runs):
                # Who goes first changes too.
                for k in (0, 1) if run % 2 == 0 else (1, 0):
                    times[k].append(seconds_of(*commands[k], frames))
            (least, median), (their_least, their_median) = [(min(t), statistics.median(t)) for t in times]
            beside = f"{alone[benchmark]:.1f} ns per sample" if benchmark in alone else ""
            print(
                f"{signal:14}  {least:7.3f} {median:7.3f}  {their_least:7.3f} {their_median:7.3f}"
                f"  {their_least / least:7.2f} {their_median / median:7.2f}  {beside}",
                flush=True,
            )


if __name__ == "__main__":
    main()
