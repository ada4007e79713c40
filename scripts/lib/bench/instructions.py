#!/usr/bin/env python3
"""Counts the instructions of the operations of bench/ops.cpp, with callgrind.

Usage: instructions.py OPS --check BASELINE    fails when one takes over 10% more than recorded
       instructions.py OPS --record BASELINE

The counts depend on the compiler and on the C and C++ libraries, hardly on the machine and not at
all on its load.
"""

import argparse
import os
import re
import subprocess
import sys

LIMIT = 1.10


def count(*command):
    """The instructions of the program's function measured(), where environment and addresses are
    the same each time."""
    result = subprocess.run(
        ["setarch", "--addr-no-randomize", "valgrind", "--tool=callgrind",
         "--toggle-collect=measured", "--callgrind-out-file=/dev/null", *command],
        env={"PATH": os.environ["PATH"], "LC_ALL": "C"}, stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE, text=True, check=False)
    collected = re.search(r"Collected : (\d+)", result.stderr)
    if result.returncode != 0 or collected is None or int(collected[1]) < 1000:
        sys.exit(f"{' '.join(command)}: nothing was counted\n{result.stderr}")
    return int(collected[1])


def count_all(ops):
    names = subprocess.run([ops, "--list"], check=True, stdout=subprocess.PIPE,
                           text=True).stdout.split()
    return {name: count(ops, name) for name in names}


def read_baseline(path):
    with open(path, encoding="ascii") as baseline:
        lines = [line.split() for line in baseline if line.strip() and not line.startswith("#")]
    return {name: int(number) for name, number in lines}


def compiler():
    version = subprocess.run(["g++", "--version"], check=True, stdout=subprocess.PIPE, text=True)
    return version.stdout.splitlines()[0]


def record(path, counts):
    with open(path, "w", encoding="ascii") as baseline:
        baseline.write("# Instructions that each operation of bench/ops.cpp takes, built as "
                       f"released.\n# Made by scripts/bench --record with {compiler()}.\n")
        for name, number in counts.items():
            baseline.write(f"{name} {number}\n")


def check(path, counts):
    """Prints a line an operation, and tells whether none has grown too much."""
    baseline = read_baseline(path)
    good = True
    for name in sorted(counts.keys() | baseline.keys(), key=list(counts | baseline).index):
        if name not in counts or name not in baseline:
            print(f"{name:20} FAILED: in {'the baseline' if name in baseline else 'the program'} "
                  "only")
            good = False
            continue
        growth = counts[name] / baseline[name]
        verdict = "ok" if growth <= LIMIT else f"FAILED: over {LIMIT - 1:.0%} more"
        good = good and growth <= LIMIT
        print(f"{name:20} {baseline[name]:>12} recorded {counts[name]:>12} now {growth - 1:+8.2%} "
              f"{verdict}")
    return good


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ops")
    action = parser.add_mutually_exclusive_group(required=True)
    action.add_argument("--check", metavar="BASELINE")
    action.add_argument("--record", metavar="BASELINE")
    options = parser.parse_args()
    counts = count_all(os.path.abspath(options.ops))
    if options.record:
        record(options.record, counts)
    elif not check(options.check, counts):
        sys.exit(1)


if __name__ == "__main__":
    main()
