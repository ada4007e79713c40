#!/usr/bin/env python3
"""Runs all benchmarks, prints one table and the goals, and writes docs/benchmarks.md.

Called by scripts/bench, which builds the programs and starts the servers.
"""

import argparse
import os
import time

import client
import codec
import document
import goals
import growth
import plots
import rows
from measure import Runner

FULL_RUNS = 5
QUICK_RUNS = 2
QUIET_SECONDS = 2
QUIET_SHARE = 0.15


def say(text):
    print(text, flush=True)


def print_table(all_rows):
    header = ["what", "ours", "peer", "theirs", "ratio"]
    table = [header] + [row.cells() for row in all_rows]
    widths = [max(len(line[i]) for line in table) for i in range(len(header))]
    section = None
    for row, line in zip([None] + all_rows, table):
        if row is not None and row.section != section:
            section = row.section
            print(f"-- {section}")
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def print_goals(all_goals):
    for goal in all_goals:
        print(f"{'met    ' if goal.met else 'NOT MET'} {goal.text}: {goal.figure}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True, help="a build's folder of programs")
    parser.add_argument("--plain", type=int, required=True, help="the server's port")
    parser.add_argument("--tls", type=int, required=True, help="its port for TLS")
    parser.add_argument("--download-size", type=int, required=True)
    parser.add_argument("--docs", help="where to write; nothing is written without")
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()

    busy = client.busy_share(QUIET_SECONDS)
    if options.docs and busy > QUIET_SHARE:
        raise SystemExit(f"bench: the machine is {busy:.0%} busy with other things; figures that are "
                         "to be published need a quiet one")

    started = time.monotonic()
    runs = QUICK_RUNS if options.quick else FULL_RUNS
    runner = Runner(options.programs)
    servers = client.Servers(options.plain, options.tls, options.download_size)

    say("== codec and engine")
    codec_results = codec.run(os.path.join(options.programs, "codec_bench"), options.quick)
    say("== GETs")
    paced = client.paced_gets(runner, servers, runs)
    gets = client.gets(runner, servers, runs)
    say("== downloads")
    downloads = client.downloads(runner, servers, runs)
    say("== idle connections")
    idle = client.idle(runner, servers, runs)

    all_rows = [*rows.codec(codec_results), *rows.latency(gets, paced), *rows.load(gets),
                *rows.downloads(downloads, servers.download_size), *rows.idle(idle)]
    all_goals = [*goals.codec(codec_results), *goals.client(gets, paced, idle)]
    if not options.quick:
        say("== growth")
        cases = growth.run(os.path.join(options.programs, "growth"))
        all_goals += goals.growth(cases)
    print_table(all_rows)
    say("-- Goals")
    print_goals(all_goals)
    if options.docs:
        folder = os.path.join(options.docs, "plots")
        os.makedirs(folder, exist_ok=True)
        plots.codec(os.path.join(folder, "codec.svg"), codec_results)
        plots.requests(os.path.join(folder, "requests.svg"), gets)
        plots.growth(folder, cases)
        document.write(os.path.join(options.docs, "benchmarks.md"), all_rows, all_goals,
                       time.monotonic() - started)


if __name__ == "__main__":
    main()
