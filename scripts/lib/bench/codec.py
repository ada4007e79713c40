"""Runs the codec benchmarks."""

import json
import statistics
import subprocess
import tempfile


def run(program, quick=False):
    """Returns {case: {variant: median ns of processor time a run}}, in the program's order."""
    repetitions, seconds = (5, 0.01) if quick else (9, 0.05)
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run(
            [program, f"--benchmark_repetitions={repetitions}",
             f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true",
             f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        report = json.load(out)
    times = {}
    for one in sorted(report["benchmarks"], key=lambda one: one["family_index"]):
        if one["run_type"] == "iteration":
            case, variant = one["run_name"].split("/")
            times.setdefault(case, {}).setdefault(variant, []).append(one["cpu_time"])
    return {case: {variant: statistics.median(all_times) for variant, all_times in of_case.items()}
            for case, of_case in times.items()}
