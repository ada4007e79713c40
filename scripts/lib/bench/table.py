"""Cells of the tables of docs/benchmarks.md."""

HEADER = ["what", "ours", "peer", "theirs", "ratio"]


def scaled(value, units):
    size, unit = next((one for one in units if value >= one[0]), units[-1])
    return f"{value / size:.3g} {unit}"


def time_text(seconds):
    return scaled(seconds, ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns")))


def rate_text(per_second):
    return f"{per_second:,.0f}/s"


def speed_text(bytes_per_second):
    return f"{bytes_per_second / 1e6:,.0f} MB/s"


def memory_text(kib):
    return f"{kib / 1024:.1f} MiB"


def row(what, text, own, peer="", theirs=None, rate=False):
    """The cells of a row. The ratio is the cost of ours by the peer's: below 1 ours is better."""
    if theirs is None:
        return [what, text(own), "", "", ""]
    return [what, text(own), peer, text(theirs),
            f"{theirs / own if rate else own / theirs:.2f}"]
