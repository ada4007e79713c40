#!/usr/bin/env python3
"""Runs the codec benchmarks.

Usage: codec.py CODEC_BENCH [--quick] [--filter REGEX]    prints the medians of processor time, ours
                                                          beside the peers'
"""

import argparse
import json
import os
import statistics
import subprocess
import tempfile

import rows


def run(program, quick=False, pattern="."):
    """Returns {case: {variant: median ns of processor time a run}}, in the program's order."""
    repetitions, seconds = (5, 0.01) if quick else (9, 0.05)
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run(
            [program, f"--benchmark_filter={pattern}", f"--benchmark_repetitions={repetitions}",
             f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true",
             f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        report = json.load(out)
    times = {}
    for one in sorted(report["benchmarks"], key=lambda one: one["family_index"]):
        if one["run_type"] != "iteration":
            continue
        case, variant = one["run_name"].split("/")
        times.setdefault(case, {}).setdefault(variant, []).append(one["cpu_time"])
    return {case: {variant: statistics.median(all_times) for variant, all_times in of_case.items()}
            for case, of_case in times.items()}


def print_table(results):
    for row in rows.codec(results):
        what, own, peer, theirs, ratio = row.cells()
        print(f"{what:58} {own:>8}  {peer:21} {theirs:>8} {ratio:>6}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--filter", default=".")
    options = parser.parse_args()
    print_table(run(os.path.abspath(options.program), options.quick, options.filter))


if __name__ == "__main__":
    main()
