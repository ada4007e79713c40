#!/usr/bin/env python3
"""Counts instructions with callgrind. The counts depend on the compiler and on the C and C++
libraries, hardly on the machine and not at all on its load.

Usage: instructions.py --check OPS BASELINE     fails when an operation takes over 10% more than recorded
       instructions.py --record OPS BASELINE
       instructions.py --growth GROWTH          fails when the cost of hostile input grows too fast
                                                (tests/cost/README.md)
"""
import concurrent.futures
import os
import re
import subprocess
import sys

MORE = 1.10     # than recorded
LINEAR = 10     # times as many instructions at 8 times the input
CONSTANT = 1.25


def count(*command):
    """The instructions of the program's function measured(), where environment and addresses are
    the same each time."""
    result = subprocess.run(
        ["setarch", "--addr-no-randomize", "valgrind", "--tool=callgrind",
         "--toggle-collect=measured", "--callgrind-out-file=/dev/null", *map(str, command)],
        env={"PATH": os.environ["PATH"], "LC_ALL": "C"}, stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE, text=True, check=False)
    collected = re.search(r"Collected : (\d+)", result.stderr)
    if result.returncode != 0 or collected is None or int(collected[1]) < 1000:
        sys.exit(f"{' '.join(map(str, command))}: nothing was counted\n{result.stderr}")
    return int(collected[1])


def count_all(commands):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(lambda command: count(*command), commands))


def listed(program):
    return [line.split() for line in
            subprocess.check_output([program, "--list"], text=True).splitlines()]


def operations(ops):
    names = [name for name, in listed(ops)]
    return dict(zip(names, count_all([(ops, name) for name in names])))


def record(ops, path):
    compiler = subprocess.check_output(["g++", "--version"], text=True).splitlines()[0]
    counts = operations(ops)
    with open(path, "w", encoding="ascii") as baseline:
        baseline.write("# Instructions that each operation of bench/ops.cpp takes, built as "
                       f"released.\n# Made by scripts/bench --record with {compiler}.\n")
        baseline.writelines(f"{name} {number}\n" for name, number in counts.items())


def check(ops, path):
    with open(path, encoding="ascii") as baseline:
        recorded = dict(line.split() for line in baseline if not line.startswith("#"))
    counts = operations(ops)
    good = counts.keys() == recorded.keys()
    if not good:
        print(f"FAILED: in one of program and baseline only: {counts.keys() ^ recorded.keys()}")
    for name in counts.keys() & recorded.keys():
        growth = counts[name] / int(recorded[name])
        good = good and growth <= MORE
        print(f"{name:20} {recorded[name]:>12} recorded {counts[name]:>12} now {growth - 1:+8.2%} "
              f"{'ok' if growth <= MORE else 'FAILED'}")
    return good


def check_growth(growth):
    cases = listed(growth)
    counts = count_all([(growth, name, int(n) * times) for name, _, n in cases for times in (1, 8)])
    good = bool(cases)
    for (name, kind, n), few, many in zip(cases, counts[::2], counts[1::2]):
        fits = many / few <= (LINEAR if kind == "linear" else CONSTANT)
        good = good and fits
        print(f"{name:20} {kind:>8}: {few:>12} instructions at {n:>7}, {many:>12} at 8 times as many:"
              f" {many / few:6.2f} times {'ok' if fits else 'FAILED'}")
    return good


def main(action, program, *arguments):
    actions = {"--check": check, "--record": record, "--growth": check_growth}
    if actions[action](os.path.abspath(program), *arguments) is False:
        sys.exit(1)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
