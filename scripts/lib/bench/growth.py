"""Runs bench/growth.cpp: what n units of hostile input cost, for growing n."""

import subprocess


def run(program):
    """Returns {case: [(n, seconds)]}."""
    cases = {}
    for line in subprocess.check_output([program], text=True).splitlines()[1:]:
        name, n, milliseconds = line.split()[:3]
        cases.setdefault(name, []).append((int(n), float(milliseconds) / 1000))
    return cases
