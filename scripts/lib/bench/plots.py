"""Draws the plots, with gnuplot."""

import os
import subprocess

# How many calls the time of each case of growth is of, where it is not of its units.
CALLS = {"registered_requests": 100, "finished_streams": 1000, "uncredited_streams": 1000,
         "credited_streams": 1000}
HEADER = """
set terminal svg size 860,480 font 'sans,12' background 'white' linewidth 1.5
set grid
set key outside right
"""


def draw(path, commands):
    subprocess.run(["gnuplot"], input=f"{HEADER}set output '{path}'\n{commands}", text=True,
                   check=True)


def curves(path, title, x_label, y_label, lines, settings="set logscale xy"):
    """`lines`: {name: [(x, y)]}"""
    data = "\n\n\n".join("\n".join(f"{x} {y}" for x, y in points) for points in lines.values())
    plot = ", ".join(f"$data index {i} with linespoints title '{name}' noenhanced"
                     for i, name in enumerate(lines))
    draw(path, f"$data << end\n{data}\nend\n{settings}\nset title '{title}'\n"
               f"set xlabel '{x_label}'\nset ylabel '{y_label}'\nplot {plot}\n")


def codec(path, results):
    bars = []
    for case, times in results.items():
        peer = "memcpy" if "memcpy" in times else "libnghttp2"
        bars.append(f'"{case}" {times["own"] / times[peer]}')
    data = "\n".join(bars)
    draw(path, f"""$data << end
{data}
end
set title "Processor time, ours by the peer's (libnghttp2; the reassembler's: memcpy)"
set style fill solid 0.6
set boxwidth 0.7
set yrange [0:*]
set xtics rotate by -40 noenhanced
set nokey
plot $data using 0:2:xtic(1) with boxes, 1 with lines
""")


def requests(path, gets):
    curves(path, "GETs on many connections", "connections", "requests a second",
           {side: [(count, sides[side]["requests_per_second"]) for count, sides in gets.items()]
            for side in ("own", "h2load")})


def standard_requests(folder, results):
    """One connection, plain: by streams."""
    for name, figure, label, scale in (
            ("standard-requests", "requests_per_second", "requests a second", 1),
            ("standard-cpu", "cpu_per_request", "µs of processor time a request", 1e6)):
        lines = {}
        for (server, scheme, connections, streams), sides in results.items():
            if scheme != "plain" or connections != 1:
                continue
            for side, figures in sides.items():
                lines.setdefault(f"{side}, {server}", []).append((streams, figures[figure] * scale))
        curves(os.path.join(folder, f"{name}.svg"), "GETs on one connection", "streams at once",
               label, lines)


def growth(folder, cases):
    state, blocks, chunks, frames = {}, {}, {}, {}
    for name, points in cases.items():
        per_unit = [(n, seconds * 1e9 / n) for n, seconds in points]
        if name in CALLS:
            state[name] = [(n, seconds * 1e6 / CALLS[name]) for n, seconds in points]
        elif name.startswith("frame_by_"):
            chunks[name] = per_unit
        elif points[-1][0] > 1_000_000 or name in ("resized_table", "distinct_names"):
            blocks[name] = per_unit
        else:
            frames[name] = per_unit
    flat = "set logscale xy\nset yrange [*<1:1e5]"
    curves(os.path.join(folder, "growth-state.svg"),
           "An idle call, by what the connection has or had", "n", "µs a call", state)
    curves(os.path.join(folder, "growth-blocks.svg"), "A header block, by its fields or bytes",
           "n", "ns a unit", blocks, flat)
    curves(os.path.join(folder, "growth-chunks.svg"),
           "One DATA frame, by its size, received in chunks of 1, 9 and 8192 bytes",
           "bytes of the frame", "ns a byte", chunks)
    curves(os.path.join(folder, "growth-frames.svg"), "Frames in a row, by their number", "n",
           "ns a unit", frames, flat)
