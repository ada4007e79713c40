"""Measures the standard edition beside its peers, and beside the least that a client can do."""

import os
import re
import subprocess
import tempfile

from measure import interleaved, read_figures

PAGE = "/page.html"
DOWNLOAD = "/download"
CLIENT_CORE = 1  # the servers have core 0

# Server and scheme, then connections, streams of each, and requests.
LOADS = {
    ("nghttpd", "plain"): ((1, 1, 10_000), (1, 32, 40_000), (1, 100, 40_000), (8, 32, 40_000),
                           (64, 1, 20_000)),
    ("nghttpd", "tls"): ((1, 1, 10_000), (1, 32, 40_000), (1, 100, 40_000), (8, 32, 40_000)),
    ("canned", "plain"): ((1, 1, 20_000), (1, 32, 200_000), (1, 100, 200_000), (8, 32, 200_000)),
    ("canned", "tls"): ((1, 32, 100_000),),
}
BLOCKED_REQUESTS = 10_000
THREADS = (1, 8, 32)
THREAD_REQUESTS = 20_000  # of all threads
IDLE = (("plain", 1000), ("tls", 1000))
IDLE_SECONDS = 3
SYSTEM_CALLS = ((1, 1), (64, 1), (1, 32), (1, 100))  # connections, streams
SYSTEM_CALL_REQUESTS = 4000


class Servers:
    """`ports`: {(server, scheme): port}; `files` is where nghttpd's files lie."""

    def __init__(self, ports, files, download_size):
        self.ports = ports
        self.files = files
        self.download_size = download_size

    def url(self, server, scheme, path):
        prefix = {"plain": "http", "tls": "https"}[scheme]
        return f"{prefix}://127.0.0.1:{self.ports[server, scheme]}{path}"


class Clients:
    """Runs clients on a core of their own."""

    def __init__(self, runner, servers):
        self.runner = runner
        self.servers = servers

    def run(self, *command):
        return self.runner.run("taskset", "-c", CLIENT_CORE, *command)

    def program(self, name):
        return os.path.join(self.runner.programs, name)

    def own(self, mode, server, scheme, path, *arguments):
        figures, _, printed = self.run(
            self.program("standard_client_bench"), mode, scheme,
            self.servers.ports[server, scheme], path, *arguments)
        return {**figures, **read_figures(printed)}

    def raw(self, mode, server, path, *arguments):
        figures, _, printed = self.run(
            self.program("raw_loop"), mode, self.servers.ports[server, "plain"], path, *arguments)
        return {**figures, **read_figures(printed)}

    def h2load(self, server, scheme, connections, streams, requests):
        with tempfile.NamedTemporaryFile(mode="r") as log:
            figures, printed, _ = self.run(
                "h2load", f"-c{connections}", f"-m{streams}", "-t1", f"-n{requests}",
                f"--log-file={log.name}", self.servers.url(server, scheme, PAGE))
            latencies = sorted(int(line.split("\t")[2]) * 1e-6 for line in log)
        if f" {requests} succeeded," not in printed:
            raise RuntimeError(f"h2load: not all of {requests} requests succeeded:\n{printed}")
        rate = re.search(r"([0-9.]+) req/s", printed)
        return {**figures, "requests_per_second": float(rate[1]),
                "p50": latencies[len(latencies) // 2]}

    def transfer(self, command, server, scheme, path):
        figures, printed, _ = self.run(*command, self.servers.url(server, scheme, path))
        if command[0] == "curl" and not printed.startswith("2 200"):
            raise RuntimeError(f"curl: HTTP version and status are {printed}")
        return {**figures, "bytes_per_second": self.servers.download_size / figures["wall"]}


def with_cpu(figures, requests):
    """The processor time of the whole process by request: of library, program and start."""
    return {**figures, "cpu_per_request": figures["cpu"] / requests}


def requests(clients, runs):
    """{(server, scheme, connections, streams): {program: figures}}"""
    results = {}
    for (server, scheme), loads in LOADS.items():
        for connections, streams, count in loads:
            sides = {
                "own": lambda a=(server, scheme, PAGE, connections, streams, count):
                    with_cpu(clients.own("requests", *a), a[-1]),
                "h2load": lambda a=(server, scheme, connections, streams, count):
                    with_cpu(clients.h2load(*a), a[-1]),
            }
            if scheme == "plain" and connections == 1:
                sides["raw loop"] = lambda a=(server, PAGE, streams, count): with_cpu(
                    clients.raw("requests", *a), a[-1])
            results[server, scheme, connections, streams] = interleaved(runs, **sides)
    return results


def curl(scheme, *more):
    version = {"plain": "--http2-prior-knowledge", "tls": "--http2"}[scheme]
    return ("curl", "--silent", "--insecure", version, "--output", "/dev/null",
            "--write-out", "%{http_version} %{http_code}", *more)


def downloads(clients, runs):
    """{scheme: {program: figures}}"""
    results = {}
    for scheme in ("plain", "tls"):
        at = ("nghttpd", scheme, DOWNLOAD)
        sides = {
            "own": lambda a=at: clients.own("download", *a),
            "nghttp": lambda a=at: clients.transfer(
                ("nghttp", "--null-out", "--no-verify-peer"), *a),
            "curl": lambda a=at: clients.transfer(curl(a[1]), *a),
        }
        if scheme == "plain":
            sides["raw loop"] = lambda: clients.raw("download", "nghttpd", DOWNLOAD)
        results[scheme] = interleaved(runs, **sides)
    return results


def uploads(clients, runs):
    """{(scheme, "block" or "reader"): {program: figures}}"""
    size = clients.servers.download_size
    body = f"@{clients.servers.files}{DOWNLOAD}"
    return {(scheme, kind): interleaved(
        runs,
        own=lambda s=scheme, k=kind: clients.own("upload", "nghttpd", s, PAGE, size, k),
        curl=lambda s=scheme: clients.transfer(
            curl(s, "--data-binary", body), "nghttpd", s, PAGE))
            for scheme in ("plain", "tls") for kind in ("block", "reader")}


def blocked(clients, runs):
    """{scheme: {program: figures}}"""
    results = {}
    for scheme in ("plain", "tls"):
        sides = {
            "own": lambda s=scheme: clients.own("blocked", "nghttpd", s, PAGE, BLOCKED_REQUESTS),
            "h2load": lambda s=scheme: with_cpu(
                clients.h2load("nghttpd", s, 1, 1, BLOCKED_REQUESTS), BLOCKED_REQUESTS),
        }
        results[scheme] = interleaved(runs, **sides)
    return results


def threads(clients, runs):
    """{threads: figures}"""
    return {count: interleaved(
        runs, own=lambda c=count: clients.own("threads", "canned", "plain", PAGE, c,
                                              THREAD_REQUESTS // c))["own"]
            for count in THREADS}


def idle(clients, runs):
    """{(scheme, connections): figures}"""
    return {(scheme, connections): interleaved(
        runs, own=lambda s=scheme, c=connections: clients.own(
            "idle", "canned", s, PAGE, c, IDLE_SECONDS))["own"]
            for scheme, connections in IDLE}


def count_system_calls(program, port, connections, streams, count):
    with tempfile.NamedTemporaryFile(mode="r") as out:
        subprocess.run(["strace", "-f", "-c", "-o", out.name, program, "requests", "plain",
                        str(port), PAGE, str(connections), str(streams), str(count)],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       timeout=120)
        total = next(line for line in out if line.endswith(" total\n"))
    return int(total.split()[3])


def system_calls(programs, port):
    """{(connections, streams): system calls a request}, what only the start makes left out."""
    program = os.path.join(programs, "standard_client_bench")
    counts = {}
    for connections, streams in SYSTEM_CALLS:
        few, many = (count_system_calls(program, port, connections, streams,
                                        times * SYSTEM_CALL_REQUESTS) for times in (1, 2))
        counts[connections, streams] = (many - few) / SYSTEM_CALL_REQUESTS
    return counts
