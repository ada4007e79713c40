#!/usr/bin/env python3
"""Holds what the tests left out against the list of reasons.

Usage: coverage_gaps.py COVERAGE.json TESTING.md

COVERAGE.json is gcovr's. TESTING.md has a table with a row for each line of code that no test
runs: | `file` | `the line, without its indent` | reason |. Lines of one text need a row each. Prints
a table by file, every line of a text that has too few rows, and every row above the number of its
lines. Exits 0 only if at least 97% of the lines were run and lines and rows agree.
"""
import collections
import json
import re
import sys

GOAL = 97.0
ROW = re.compile(r"^\| `([\w.]+)` \| `(.+)` \| (.+) \|$")


def counted_lines(coverage):
    """Yields file, line number, whether the line was run, branches taken and branches."""
    merged = {}
    for unit in coverage["files"]:
        name = unit["file"]
        for line in unit["lines"]:
            if line.get("gcovr/noncode") or line.get("gcovr/excluded"):
                continue
            branches = [branch["count"] > 0 for branch in line.get("branches", [])]
            entry = merged.setdefault((name, line["line_number"]), [0, branches])
            entry[0] += line["count"]
            if entry[1] is not branches:
                entry[1] = [a or b for a, b in zip(entry[1], branches)] or branches
    for (name, number), (count, branches) in sorted(merged.items()):
        yield name, number, count > 0, sum(branches), len(branches)


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main(coverage_file, testing_file):
    with open(coverage_file, encoding="utf-8") as file:
        coverage = json.load(file)
    with open(testing_file, encoding="utf-8") as file:
        rows = collections.Counter(
            match.group(1, 2) for match in map(ROW.match, file.read().splitlines()) if match)

    totals, gaps, sources = {}, collections.defaultdict(list), {}
    for name, number, run, taken, branches in counted_lines(coverage):
        total = totals.setdefault(name, [0, 0, 0, 0])
        for index, value in enumerate((int(run), 1, taken, branches)):
            total[index] += value
        if not run:
            if name not in sources:
                with open(name, encoding="utf-8") as file:
                    sources[name] = file.read().splitlines()
            short = name.rsplit("/", 1)[-1]
            gaps[(short, sources[name][number - 1].strip())].append(f"{name}:{number}")
    if not totals:
        sys.exit("coverage_gaps: no line was counted")

    print(f"{'file':34} {'lines':>12} {'branches':>14}")
    totals["all"] = [sum(column) for column in zip(*totals.values())]
    for name, (run, lines, taken, branches) in totals.items():
        print(f"{name:34} {run:5}/{lines:<5}{percent(run, lines):6.1f}% "
              f"{taken:5}/{branches:<5}{percent(taken, branches):6.1f}%")

    failed = False
    for gap, places in gaps.items():
        if rows[gap] < len(places):
            failed = True
            known = f" ({rows[gap]} of {len(places)} explained)" if rows[gap] else ""
            for place in places:
                print(f"{place}: no test runs this, and {testing_file} does not say why{known}: "
                      f"{gap[1]}")
    for (name, text), count in sorted(rows.items()):
        for _ in range(count - len(gaps.get((name, text), []))):
            failed = True
            print(f"{testing_file} explains a line that is run or gone: {name}: {text}")
    run, lines = totals["all"][:2]
    if percent(run, lines) < GOAL:
        failed = True
        print(f"below the goal of {GOAL}% of the lines")
    return 1 if failed else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
