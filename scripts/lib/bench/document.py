"""Writes docs/benchmarks.md."""

import os
import platform
import subprocess

NOTES = {
    "Codec and engine": """\
Medians of processor time of 9 interleaved runs; `bench/codec_bench.cpp` has the cases. Encoding: the
texts consist of characters that Huffman coding does not shorten, so that libnghttp2, which cannot be
told not to code, sends them plain too; typical texts it codes. Receiving: from 8192-byte reads up to
the application's callbacks, with the console's lines made and dropped, or written to /dev/null.
libnghttp2 has a window that never fills and checks no HTTP semantics; it gathers DATA into whole
frames as this client does, or hands it on "in pieces" as it arrives, without any copy. "Its lines
alone" is what making the console's lines takes by itself.

![Processor time by the peer's](plots/codec.svg)
""",
    "Latency of GETs on one connection": """\
A page of 1 KiB; steps are counted from the start of a request to its end. h2load (`-c1 -m1`) sends
each request when the last one is answered, without any pause in its loop and with Nagle's algorithm
off.
""",
    "GETs on many connections": """\
One request at a time on each connection; h2load with the same numbers (`-m1 -t1`). Client and
servers share the machine's cores, so h2load's rate is theirs rather than its own.

![Requests a second by connections](plots/requests.svg)
""",
    "Download": """\
The speed is bounded by the credit. A connection's window is 65,535 bytes at first, whatever SETTINGS
say (RFC 9113, 6.9.2), and this client gives back what has arrived in one frame a poll step: at a
step of about 1.1 ms no more than 60 MB/s.
""",
    "Idle connections": """\
Registered with the poller, after so many GETs of the page of 1 KiB. An idle connection's socket can
always be written to, so the poll loop runs a step about every millisecond whether or not there is
work.
""",
}


def shell(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE,
                          text=True).stdout.splitlines()[0].strip()


def machine():
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as info:
        model = next((line.split(":")[1].strip() for line in info if line.startswith("model name")),
                     platform.machine())
    return (f"{os.cpu_count()} cores of {model}, Linux {platform.release()}, "
            f"{shell('g++', '--version')}")


def table(header, lines):
    yield "| " + " | ".join(header) + " |"
    yield "|" + "---|" * len(header)
    for line in lines:
        yield "| " + " | ".join(line) + " |"


def sections(all_rows):
    section = None
    lines = []
    for row in [*all_rows, None]:
        if row is None or row.section != section:
            if lines:
                yield from table(["what", "ours", "peer", "theirs", "ratio"], lines)
                yield ""
            lines = []
            if row is None:
                return
            section = row.section
            yield f"## {section}"
            yield ""
            for start, note in NOTES.items():
                if section.startswith(start):
                    yield note
        lines.append(row.cells())


def goals(all_goals):
    yield "## Goals"
    yield ""
    yield from table(["goal", "met", "figure"],
                     [[goal.text, "yes" if goal.met else "**no**", goal.figure]
                      for goal in all_goals])
    yield ""
    missed = [goal for goal in all_goals if not goal.met and goal.reason]
    if missed:
        yield "What stands against those that are not met:"
        yield ""
    for goal in missed:
        yield f"- {goal.text}: {goal.reason}"
    yield ""


def write(path, all_rows, all_goals, seconds):
    lines = [
        "# Benchmarks", "",
        f"Made by `scripts/bench` in {seconds / 60:.1f} minutes on {machine()}. Peers: libnghttp2 "
        f"{shell('pkg-config', '--modversion', 'libnghttp2')}, h2load and nghttp of the same "
        f"version, {' '.join(shell('curl', '--version').split()[:2])}; all programs talk to the "
        "same HAProxy in front of nghttpd, on loopback.", "",
        "A ratio is our cost by the peer's, in time, processor time or memory (for a rate: the "
        "peer's by ours): below 1 ours is the better one. Both sides of a ratio were measured in "
        "turns in the same run, and are medians of at least 5. On another machine compare the "
        "ratios, not the times.", "",
        *sections(all_rows),
        "## Growth", "",
        "Time against n for the kinds of input that [security.md](security.md) holds bounded, as "
        "`bench/growth.cpp` makes them. A flat line is a cost in proportion to n, or in the first "
        "plot one that does not depend on it.", "",
        "![State](plots/growth-state.svg)", "", "![Header blocks](plots/growth-blocks.svg)", "",
        "![Chunks](plots/growth-chunks.svg)", "", "![Frames](plots/growth-frames.svg)", "",
        *goals(all_goals),
        "## Instructions", "",
        "`bench/baseline.txt` has the instructions that ten operations take, counted by callgrind. "
        "`scripts/bench --check` fails when one takes over 10% more; `scripts/bench --record` "
        "records anew. Unlike times, these counts do not depend on how busy the machine is.",
    ]
    with open(path, "w", encoding="utf-8") as out:
        out.write("\n".join(lines).rstrip() + "\n")
