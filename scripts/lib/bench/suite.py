#!/usr/bin/env python3
"""Runs all benchmarks, prints their tables, and writes docs/benchmarks.md.

Called by scripts/bench, which builds the programs and starts the servers.
"""

import argparse
import os
import time

import client
import codec
import growth
import page
import plots
import standard
import standard_page
from measure import Runner
from table import HEADER

FULL_RUNS = 7
QUICK_RUNS = 2
QUIET_SECONDS = 2
QUIET_SHARE = 0.15


def measure_standard(runner, options, runs):
    ports = {(server, scheme): port
             for server, of_server in (("nghttpd", options.nghttpd), ("canned", options.canned))
             for scheme, port in zip(("plain", "tls"), of_server)}
    clients = standard.Clients(runner, standard.Servers(ports, options.files,
                                                        options.download_size))
    return {
        "requests": standard.requests(clients, runs),
        "downloads": standard.downloads(clients, runs),
        "uploads": standard.uploads(clients, runs),
        "blocked": standard.blocked(clients, runs),
        "threads": standard.threads(clients, runs),
        "idle": standard.idle(clients, runs),
        "system_calls": standard.system_calls(options.programs, ports["canned", "plain"]),
        "codec": codec.run(os.path.join(options.programs, "standard_codec_bench"),
                           not options.docs),
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True, help="a build's folder of programs")
    parser.add_argument("--plain", type=int, required=True, help="the server's port")
    parser.add_argument("--tls", type=int, required=True, help="its port for TLS")
    parser.add_argument("--download-size", type=int, required=True)
    parser.add_argument("--files", required=True, help="the folder that the servers have")
    parser.add_argument("--nghttpd", type=int, nargs=2, required=True, help="its ports, plain and TLS")
    parser.add_argument("--canned", type=int, nargs=2, required=True,
                        help="bench/canned_server's ports, plain and TLS")
    parser.add_argument("--docs", help="where to write; without it the runs are fewer and shorter")
    options = parser.parse_args()

    busy = client.busy_share(QUIET_SECONDS)
    if options.docs and busy > QUIET_SHARE:
        raise SystemExit(f"bench: the machine is {busy:.0%} busy with other things; figures that are "
                         "to be published need a quiet one")

    started = time.monotonic()
    runs = FULL_RUNS if options.docs else QUICK_RUNS
    runner = Runner(options.programs)
    servers = client.Servers(options.plain, options.tls, options.download_size)
    codec_results = codec.run(os.path.join(options.programs, "codec_bench"), not options.docs)
    gets = client.gets(runner, servers, runs)
    exact = page.sections(
        codec_results, client.paced_gets(runner, servers, runs), gets,
        client.downloads(runner, servers, runs), servers.download_size,
        client.idle(runner, servers, runs))
    measured = measure_standard(runner, options, runs)
    for title, _, rows in [*exact, *standard_page.sections(measured)]:
        print(f"-- {title}")
        for cells in [HEADER, *rows]:
            print("{:64} {:>10}  {:22} {:>10} {:>8}".format(*cells).rstrip())
    if options.docs:
        folder = os.path.join(options.docs, "plots")
        plots.codec(os.path.join(folder, "codec.svg"), codec_results)
        plots.requests(os.path.join(folder, "requests.svg"), gets)
        plots.standard_requests(folder, measured["requests"])
        plots.growth(folder, growth.run(os.path.join(options.programs, "growth")))
        page.write(os.path.join(options.docs, "benchmarks.md"), exact,
                   standard_page.sections(measured), time.monotonic() - started)


if __name__ == "__main__":
    main()
