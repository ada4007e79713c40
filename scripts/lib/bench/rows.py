"""Turns results into rows of the one table: what was measured, ours, a peer's, and the ratio."""

from dataclasses import dataclass
from typing import Optional

CODEC_TEXTS = {
    "encode_8": "encode a GET's 8 fields",
    "encode_8_typical": "encode a GET's 8 fields of typical texts",
    "encode_40": "encode 40 fields",
    "encode_40_typical": "encode 40 fields of typical texts",
    "decode_10": "decode 10 literal fields",
    "decode_10_incremental": "decode 10 literal fields that are to be indexed",
    "decode_40": "decode 40 literal fields",
    "decode_40_indexed": "decode 40 indexed fields",
    "receive_16k": "receive 1 MiB of 16 KiB DATA frames",
    "receive_64": "receive 1 MiB of 64-byte DATA frames",
    "receive_mixed": "receive 1 MiB of HEADERS and DATA",
    "reassemble_16k": "only reassemble 1 MiB of 16 KiB DATA",
    "produce_get": "make a GET's bytes",
    "produce_get_typical": "make a GET's bytes of typical texts",
    "produce_body": "make a 1 MiB body's bytes, by reader",
}
VARIANTS = {"own": "", "own_console": ", lines to /dev/null"}
PEERS = {"libnghttp2_pieces": "libnghttp2, in pieces", "lines_alone": "its lines alone"}


@dataclass
class Row:
    """`ratio` is the cost of ours by the peer's: below 1 ours is the better one."""
    section: str
    what: str
    own: str
    peer: str = ""
    theirs: str = ""
    ratio: Optional[float] = None

    def cells(self):
        ratio = "" if self.ratio is None else f"{self.ratio:.2f}"
        return [self.what, self.own, self.peer, self.theirs, ratio]


def scaled(value, units):
    for size, unit in units:
        if value >= size:
            return f"{value / size:.3g} {unit}"
    size, unit = units[-1]
    return f"{value / size:.3g} {unit}"


def time_text(seconds):
    return scaled(seconds, ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns")))


def rate_text(per_second):
    return f"{per_second:,.0f}/s"


def speed_text(bytes_per_second):
    return f"{bytes_per_second / 1e6:,.0f} MB/s"


def memory_text(kib):
    return f"{kib / 1024:.1f} MiB"


def codec(results):
    for case, times in results.items():
        for own in (name for name in times if name.startswith("own")):
            for peer in (name for name in times if not name.startswith("own")):
                if own != "own" and peer != "libnghttp2":
                    continue
                yield Row("Codec and engine", CODEC_TEXTS[case] + VARIANTS[own],
                          time_text(times[own] * 1e-9), PEERS.get(peer, peer),
                          time_text(times[peer] * 1e-9),
                          None if peer == "lines_alone" else times[own] / times[peer])


def latency(gets, paced):
    section = "Latency of GETs on one connection"
    peer = gets[1]["h2load"]
    for what, own in (("after a pause", paced), ("one after the other", gets[1]["own"])):
        for name in ("p50", "p99"):
            yield Row(section, f"{what}, {name}", time_text(own[name]), "h2load",
                      time_text(peer[name]), own[name] / peer[name])
        yield Row(section, f"{what}, poll steps (p50)", f"{own['steps_p50']:.0f}")


def load(gets):
    section = "GETs on many connections"
    for connections, sides in gets.items():
        own, peer = sides["own"], sides["h2load"]
        what = f"{connections} connection{'s' if connections > 1 else ''}"
        yield Row(section, f"{what}, requests",
                  rate_text(own["requests_per_second"]), "h2load",
                  rate_text(peer["requests_per_second"]),
                  peer["requests_per_second"] / own["requests_per_second"])
        yield Row(section, f"{what}, processor time a request",
                  time_text(own["cpu_per_request"]), "h2load",
                  time_text(peer["cpu_per_request"]),
                  own["cpu_per_request"] / peer["cpu_per_request"])


def downloads(results, size):
    section = f"Download of {size / 1e6:.0f} MB"
    for scheme, sides in results.items():
        own = sides["own"]
        for peer_name, peer in ((name, side) for name, side in sides.items() if name != "own"):
            yield Row(section, f"{scheme}, speed", speed_text(own["bytes_per_second"]), peer_name,
                      speed_text(peer["bytes_per_second"]),
                      peer["bytes_per_second"] / own["bytes_per_second"])
            yield Row(section, f"{scheme}, processor time", time_text(own["cpu"]), peer_name,
                      time_text(peer["cpu"]), own["cpu"] / peer["cpu"])
            yield Row(section, f"{scheme}, peak memory", memory_text(own["peak_kib"]), peer_name,
                      memory_text(peer["peak_kib"]), own["peak_kib"] / peer["peak_kib"])


def idle(results):
    section = "Idle connections"
    for (scheme, connections, requests), own in results.items():
        what = f"{connections} {scheme}, after {requests} GET{'s' if requests > 1 else ''} each"
        yield Row(section, f"{what}, processor time a second", time_text(own["cpu_per_second"]))
        yield Row(section, f"{what}, voluntary context switches",
                  rate_text(own["switches_per_second"]))
        yield Row(section, f"{what}, frames of credit sent", rate_text(own["sends_per_second"]))
        if connections > 1:
            yield Row(section, f"{what}, heap a connection",
                      f"{own['heap_per_connection'] / 1024:.1f} KiB")
