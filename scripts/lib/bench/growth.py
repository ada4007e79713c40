"""Runs bench/growth.cpp: what n units of hostile input cost, for growing n."""

import subprocess

import instructions


def run(program):
    """{case: {"growth": "linear" or "constant", "points": [(n, seconds)]}}

    A constant case also has "instructions": a pair, at some n and at 8 times as many.
    """
    listed = subprocess.run([program, "--list"], check=True, stdout=subprocess.PIPE, text=True)
    cases = {}
    for line in listed.stdout.splitlines():
        name, growth, quick = line.split()
        cases[name] = {"growth": growth, "points": []}
        if growth == "constant":
            cases[name]["instructions"] = [
                instructions.count(program, name, str(times * int(quick))) for times in (1, 8)]
    table = subprocess.run([program], check=True, stdout=subprocess.PIPE, text=True)
    for line in table.stdout.splitlines()[1:]:
        name, n, milliseconds = line.split()[:3]
        cases[name]["points"].append((int(n), float(milliseconds) / 1000))
    return cases
