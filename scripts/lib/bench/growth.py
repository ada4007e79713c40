"""Runs bench/growth.cpp: what n units of hostile input cost, for growing n."""

import subprocess


def run(program):
    """{case: {"growth": "linear" or "constant", "points": [(n, seconds)]}}"""
    listed = subprocess.run([program, "--list"], check=True, stdout=subprocess.PIPE, text=True)
    cases = {}
    for line in listed.stdout.splitlines():
        name, growth, _ = line.split()
        cases[name] = {"growth": growth, "points": []}
    table = subprocess.run([program], check=True, stdout=subprocess.PIPE, text=True)
    for line in table.stdout.splitlines()[1:]:
        name, n, milliseconds = line.split()[:3]
        cases[name]["points"].append((int(n), float(milliseconds) / 1000))
    return cases
