"""Turns results into the sections of docs/benchmarks.md."""

import os
import platform
import subprocess

import standard_page
from table import HEADER, memory_text, rate_text, row, speed_text, time_text

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
PEERS = {"libnghttp2_pieces": "libnghttp2, in pieces", "lines_alone": "its lines alone"}

LATENCY = """\
A page of 1 KiB; steps of the poll loop are counted from the start of a request to its end. h2load
(`-c1 -m1`) sends each request when the last one is answered, without any pause in its loop and with
Nagle's algorithm off.

A request right after another one takes 40 ms longer than one after a pause: the RST_STREAM frame that
ends a stream goes out alone, Nagle's algorithm stays on, and so the system holds the next request back
until the server's system has acknowledged those 13 bytes, which it delays by up to 40 ms.
"""
LOAD = """\
One request at a time on each connection; h2load with the same numbers (`-m1 -t1`). Client and
servers share the machine's cores, so h2load's rate is theirs rather than its own.

The rate grows with the connections, since they wait at the same time. The processor time is that of
the poll loop's steps and of credit: once the finished streams of a connection have brought 32 KiB, it
sends a WINDOW_UPDATE frame in every step.

![Requests a second by connections](plots/requests.svg)
"""
DOWNLOAD = """\
The speed is bounded by the credit. A connection's window is 65,535 bytes at first, whatever SETTINGS
say (RFC 9113, 6.9.2), and this client gives back what has arrived in one frame a poll step: at a
step of about 1.1 ms no more than 60 MB/s.
"""
IDLE = """\
Registered with the poller, after so many GETs of the page of 1 KiB. An idle connection's socket can
always be written to, so the poll loop runs a step about every millisecond whether or not there is
work. After 40 GETs each step also sends credit (see above).
"""
CODEC = """\
Medians of processor time of 9 interleaved runs; `bench/codec_bench.cpp` has the cases. Encoding: the
texts consist of characters that Huffman coding does not shorten, so that libnghttp2, which cannot be
told not to code, sends them plain too; typical texts it codes. Receiving: from 8192-byte reads up to
the application's callbacks, with the console's lines made and dropped, or written to /dev/null.
libnghttp2 has a window that never fills and checks no HTTP semantics; it gathers DATA into whole
frames as this client does, or hands it on "in pieces" as it arrives, without any copy. "Its lines
alone" is what making the console's lines takes by itself.

Where ours costs more:
- Decoding: a frame keeps its fields with their texts; libnghttp2 lends out one field at a time.
- Receiving: two lines a frame and one a header field go to standard output, and a frame above a
  read's 8192 bytes is gathered in one place first, which copies its bytes twice.
- Making a request: its header block is encoded twice, when the frame is given its list and when it is
  serialised.
- Making a body: a chunk is copied from the reader's buffer into the frame and from there into the
  outgoing bytes; libnghttp2's reader writes into the outgoing bytes at once.

![Processor time by the peer's](plots/codec.svg)
"""
GROWTH = """\
### Growth

Time against n for the kinds of input whose cost [security.md](security.md) bounds, as
`bench/growth.cpp` makes them. A flat line is a cost in proportion to n, or in the first plot one that
does not depend on it.

![State](plots/growth-state.svg)

![Header blocks](plots/growth-blocks.svg)

![Chunks](plots/growth-chunks.svg)

![Frames](plots/growth-frames.svg)
"""


def codec(results):
    for case, times in results.items():
        own = {name: value * 1e-9 for name, value in times.items()}
        for peer in (name for name in times if not name.startswith("own")):
            yield row(CODEC_TEXTS[case], time_text, own["own"], PEERS.get(peer, peer), own[peer])
        if "own_console" in own:
            yield row(CODEC_TEXTS[case] + ", lines to /dev/null", time_text, own["own_console"],
                      "libnghttp2", own["libnghttp2"])


def latency(gets, paced):
    peer = gets[1]["h2load"]
    for what, own in (("after a pause", paced), ("one after the other", gets[1]["own"])):
        for name in ("p50", "p99"):
            yield row(f"{what}, {name}", time_text, own[name], "h2load", peer[name])
        yield row(f"{what}, poll steps (p50)", "{:.0f}".format, own["steps_p50"])


def load(gets):
    for connections, sides in gets.items():
        own, peer = sides["own"], sides["h2load"]
        what = f"{connections} connection{'s' if connections > 1 else ''}"
        yield row(f"{what}, requests", rate_text, own["requests_per_second"], "h2load",
                  peer["requests_per_second"], rate=True)
        yield row(f"{what}, processor time a request", time_text, own["cpu_per_request"], "h2load",
                  peer["cpu_per_request"])


def downloads(results):
    for scheme, sides in results.items():
        own = sides["own"]
        for name, peer in ((name, side) for name, side in sides.items() if name != "own"):
            yield row(f"{scheme}, speed", speed_text, own["bytes_per_second"], name,
                      peer["bytes_per_second"], rate=True)
            yield row(f"{scheme}, processor time", time_text, own["cpu"], name, peer["cpu"])
            yield row(f"{scheme}, peak memory", memory_text, own["peak_kib"], name, peer["peak_kib"])


def idle(results):
    for (scheme, connections, requests), own in results.items():
        what = f"{connections} {scheme}, after {requests} GET{'s' if requests > 1 else ''} each"
        yield row(f"{what}, processor time a second", time_text, own["cpu_per_second"])
        yield row(f"{what}, voluntary context switches", rate_text, own["switches_per_second"])
        yield row(f"{what}, frames of credit sent", rate_text, own["sends_per_second"])
        if connections > 1:
            yield row(f"{what}, heap a connection", "{:.1f} KiB".format,
                      own["heap_per_connection"] / 1024)


def sections(codec_results, paced, gets, download_results, size, idle_results):
    """[(title, text, rows)]"""
    return [("Latency of GETs on one connection", LATENCY, list(latency(gets, paced))),
            ("GETs on many connections", LOAD, list(load(gets))),
            (f"Download of {size / 1e6:.0f} MB", DOWNLOAD, list(downloads(download_results))),
            ("Idle connections", IDLE, list(idle(idle_results))),
            ("Codec and engine", CODEC, list(codec(codec_results)))]


def first_line(*command):
    return subprocess.check_output(command, text=True).splitlines()[0].strip()


def machine():
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as info:
        model = next((line.split(":")[1].strip() for line in info if line.startswith("model name")),
                     platform.machine())
    return (f"{os.cpu_count()} cores of {model}, Linux {platform.release()}, "
            f"{first_line('g++', '--version')}")


def write_sections(out, all_sections):
    for title, text, rows in all_sections:
        out.write(f"\n### {title}\n\n{text}\n")
        for cells in [HEADER, ["---"] * len(HEADER), *rows]:
            out.write("| " + " | ".join(cells) + " |\n")


def write(path, exact_sections, standard_sections, seconds):
    nghttp2 = first_line("pkg-config", "--modversion", "libnghttp2")
    curl = " ".join(first_line("curl", "--version").split()[:2])
    with open(path, "w", encoding="utf-8") as out:
        out.write(f"""\
# Benchmarks

What the two editions cost, beside libnghttp2, h2load, nghttp and curl on the same machine.

A ratio is our cost by the peer's, in time, processor time or memory (for a rate: the peer's by ours):
below 1 ours is the better one. Both sides were measured in turns in the same run, and are medians of
7 runs. On another machine compare the ratios, not the times.

Made by `scripts/bench` in {seconds / 60:.1f} minutes on {machine()}. Peers: libnghttp2, h2load and
nghttp {nghttp2}, {curl}. All programs talk to servers on loopback.

## The standard edition

{standard_page.INTRODUCTION}""")
        write_sections(out, standard_sections)
        out.write("""
## The exact edition

Client and servers share the machine's cores. All programs talk to the same HAProxy before nghttpd.
""")
        write_sections(out, exact_sections)
        out.write("\n" + GROWTH)
