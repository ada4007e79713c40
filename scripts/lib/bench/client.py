"""Measures the whole client and its peers, h2load, nghttp and curl, against the same servers."""

import re
import tempfile
import time

from measure import interleaved

PAGE = "/page.html"
DOWNLOAD = "/download"

# By connections, as many requests as take about a second or two: ours, and h2load's.
LOADS = {1: (60, 10_000), 8: (800, 20_000), 64: (4000, 20_000), 256: (8000, 20_000)}
PACED_REQUESTS = 30
PAUSE_MS = 60
# Scheme, connections, and the GETs on each before it is idle.
IDLE = (("plain", 1, 1), ("plain", 64, 1), ("plain", 512, 1), ("tls", 64, 1), ("plain", 64, 40))
IDLE_SECONDS = 2


class Servers:
    """Where they are, and how large what they serve is."""

    def __init__(self, plain, tls, download_size):
        self.ports = {"plain": plain, "tls": tls}
        self.download_size = download_size

    def url(self, path, scheme="plain"):
        prefix = {"plain": "http", "tls": "https"}[scheme]
        return f"{prefix}://127.0.0.1:{self.ports[scheme]}{path}"


def busy_share(seconds):
    """The share of the machine's processor time that is used during the next seconds."""
    times = []
    for pause in (seconds, 0):
        with open("/proc/stat", encoding="ascii") as stat:
            ticks = [int(number) for number in stat.readline().split()[1:9]]
        times.append((sum(ticks), ticks[3] + ticks[4]))  # all, idle
        time.sleep(pause)
    (all_before, idle_before), (all_after, idle_after) = times
    return 1 - (idle_after - idle_before) / max(1, all_after - all_before)


def own_get(runner, servers, connections, requests, pause=0):
    figures = runner.client("get", servers.ports["plain"], PAGE, connections, requests, pause)
    return {**figures, "cpu_per_request": figures["cpu"] / requests}


def h2load_get(runner, servers, connections, requests):
    with tempfile.NamedTemporaryFile(mode="r") as log:
        figures, printed, _ = runner.run(
            "h2load", f"-c{connections}", "-m1", "-t1", f"-n{requests}",
            f"--log-file={log.name}", servers.url(PAGE))
        latencies = sorted(int(line.split("\t")[2]) * 1e-6 for line in log)
    if f" {requests} succeeded," not in printed or len(latencies) != requests:
        raise RuntimeError(f"h2load: not all of {requests} requests succeeded:\n{printed}")
    rate = re.search(r"([0-9.]+) req/s", printed)
    return {**figures, "requests_per_second": float(rate[1]),
            "cpu_per_request": figures["cpu"] / requests,
            "p50": latencies[len(latencies) // 2],
            "p99": latencies[(len(latencies) - 1) * 99 // 100]}


def gets(runner, servers, runs):
    """{connections: {"own": figures, "h2load": figures}}"""
    return {connections: interleaved(
        runs,
        own=lambda c=connections, n=own: own_get(runner, servers, c, n),
        h2load=lambda c=connections, n=peer: h2load_get(runner, servers, c, n))
            for connections, (own, peer) in LOADS.items()}


def paced_gets(runner, servers, runs):
    """GETs on an open connection on which nothing is under way any more."""
    return interleaved(
        runs, own=lambda: own_get(runner, servers, 1, PACED_REQUESTS, PAUSE_MS))["own"]


def downloads(runner, servers, runs):
    """{"plain" or "tls": {program: figures}}"""
    size = servers.download_size

    def own(scheme):
        return runner.client("download", scheme, servers.ports[scheme], DOWNLOAD, size)

    def peer(scheme, *command):
        figures, printed, _ = runner.run(*command, servers.url(DOWNLOAD, scheme))
        if command[0] == "curl" and printed != f"2 {size}":
            raise RuntimeError(f"curl: HTTP version and size are {printed}")
        return {**figures, "bytes_per_second": size / figures["wall"]}

    curl = ("curl", "--silent", "--insecure", "--output", "/dev/null",
            "--write-out", "%{http_version} %{size_download}")
    curl_version = {"plain": "--http2-prior-knowledge", "tls": "--http2"}
    return {scheme: interleaved(
        runs,
        own=lambda s=scheme: own(s),
        nghttp=lambda s=scheme: peer(s, "nghttp", "--null-out", "--no-verify-peer"),
        curl=lambda s=scheme: peer(s, *curl, curl_version[s]))
            for scheme in ("plain", "tls")}


def idle(runner, servers, runs):
    """{(scheme, connections, requests): figures}"""
    return {(scheme, connections, requests): interleaved(
        runs,
        own=lambda s=scheme, c=connections, r=requests: runner.client(
            "idle", s, servers.ports[s], PAGE, c, r, IDLE_SECONDS))["own"]
            for scheme, connections, requests in IDLE}
