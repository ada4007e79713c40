#!/usr/bin/env python3
"""Runs the codec benchmarks and prints their medians of processor time, ours beside the peer's.

Usage: codec.py CODEC_BENCH [--quick] [--filter REGEX]
"""

import argparse
import json
import os
import statistics
import subprocess
import tempfile


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


def readable(nanoseconds):
    for unit, size in (("ms", 1e6), ("us", 1e3), ("ns", 1)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def rows(results):
    """Every variant of ours beside every one of a peer's: (case, ours, time, peer, time, ratio)."""
    for case, times in results.items():
        ours = [name for name in times if name.startswith("own")]
        peers = [name for name in times if not name.startswith("own")]
        for own in ours:
            for peer in peers:
                yield case, own, times[own], peer, times[peer], times[own] / times[peer]


def print_table(results):
    print(f"{'case':24} {'ours':12} {'time':>9}   {'peer':18} {'time':>9} {'ratio':>6}")
    for case, own, own_time, peer, peer_time, ratio in rows(results):
        print(f"{case:24} {own:12} {readable(own_time):>9}   {peer:18} {readable(peer_time):>9} "
              f"{ratio:6.2f}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--filter", default=".")
    options = parser.parse_args()
    print_table(run(os.path.abspath(options.program), options.quick, options.filter))


if __name__ == "__main__":
    main()
