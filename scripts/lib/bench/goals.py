"""Holds the results against the goals."""

from dataclasses import dataclass

from rows import CODEC_TEXTS, rate_text, time_text

BODY_BUFFER = 16384


@dataclass
class Goal:
    text: str
    met: bool
    figure: str
    reason: str = ""  # where it is not met: what stands against it


NAGLE = (
    "A stream that has ended is reset, and the RST_STREAM frame goes out alone, in the step that "
    "brought the answer: each write event has one output. Nagle's algorithm stays on, so the "
    "system holds the next request's HEADERS frame back until the server's system has acknowledged "
    "those 13 bytes, and that one delays acknowledgements by up to 40 ms: 40 ms and 2 steps.")

DELAY = "The delay of the acknowledgement, see above, is up to 40 ms, not always 40 ms."

LINES = (
    "Every frame writes two lines to standard output and every header field one, also when nobody "
    "reads them. Making and writing them alone takes {lines}, which libnghttp2 has nothing to set "
    "against: without them it would be {without:.2f} times.")

CREDIT = (
    "{sends:.1f} calls of send a request, where 2 carry it: its HEADERS frame, and the RST_STREAM "
    "frame behind its answer. The others are credit. A stream keeps the bytes that it was not "
    "credited for when it ends, so once a connection's finished streams have brought 32 KiB, its "
    "sum stays above the threshold, and each of its steps sends a WINDOW_UPDATE frame; {steps:.0f} "
    "steps go by in a request (see above). Without a request under way, {idle:.0f} such frames a "
    "second leave 64 connections, which costs {idle_cpu} a second.")


DECODE = (
    "Not met yet: the list keeps its fields for as long as the frame lives, each with texts in a "
    "block of memory of its own, where libnghttp2 lends a field out for a moment and takes the "
    "memory back for the next one.")

GATHER = (
    "The bytes of a frame that is not whole yet are kept in one place, and the frame is decoded from "
    "there when the last of them has come: each byte of a frame above a read's 8192 bytes is copied "
    "twice, which alone is 2 times memcpy's time.")

BLOCK_TWICE = (
    "A header block is encoded twice: when the frame is given its list, and again when it is "
    "serialised. Without the first time it would be near 2 times; the rest is memory for the texts "
    "that libnghttp2 refers to where the application has them.")

CHUNK = (
    "A chunk is copied three times: by the reader into a buffer whose bytes stay there for the next "
    "call, from there into the frame, and from there into the outgoing bytes. libnghttp2's reader "
    "writes into the outgoing bytes at once: 3 copies to 1.")

REASONS = {"decode": DECODE, "reassemble": GATHER, "produce_get": BLOCK_TWICE,
           "produce_body": CHUNK}


def codec(results):
    for case, times in results.items():
        peer = "memcpy" if "memcpy" in times else "libnghttp2"
        limit = 1.5 if peer == "memcpy" else 1.0
        ratio = times["own"] / times[peer]
        reason = next((text for start, text in REASONS.items() if case.startswith(start)), "")
        if "lines_alone" in times:
            lines = times["lines_alone"]
            reason = LINES.format(lines=time_text(lines * 1e-9),
                                  without=(times["own"] - lines) / times[peer])
        yield Goal(f"{CODEC_TEXTS[case]}: at most {limit} times {peer}'s time", ratio <= limit,
                   f"{ratio:.2f} times", reason)


def client(gets, paced, idle):
    step = 1 / idle[("plain", 1, 1)]["steps_per_second"]
    for what, own, reason in (("after a pause", paced, ""),
                              ("right after another one", gets[1]["own"], NAGLE)):
        yield Goal(f"A GET {what} takes the fewest poll steps: one to send it, one to take the "
                   "answer in", own["steps_p50"] <= 2,
                   f"{own['steps_p50']:.0f} steps, {time_text(own['p50'])} at a step of "
                   f"{time_text(step)}", reason)
    for what, own, reason in (("after a pause", paced, ""),
                              ("right after another one", gets[1]["own"], DELAY)):
        spread = own["p99"] - own["p50"]
        yield Goal(f"p99 within one step of p50, {what}", spread <= step,
                   f"{time_text(spread)} apart at a step of {time_text(step)}", reason)
    base = gets[1]["own"]["requests_per_second"]
    shares = {count: sides["own"]["requests_per_second"] / base / count
              for count, sides in gets.items()}
    full = {count for count, sides in gets.items() if sides["own"]["busy"] > 0.9}
    yield Goal("Requests per second grow with the connections until the cores are full",
               all(share >= 0.8 or count in full for count, share in shares.items()),
               ", ".join(f"{rate_text(sides['own']['requests_per_second'])} at {count} "
                         f"({sides['own']['busy']:.0%} of the cores busy)"
                         for count, sides in gets.items()))
    ratio = gets[64]["own"]["cpu_per_request"] / gets[64]["h2load"]["cpu_per_request"]
    yield Goal("Processor time a request at 64 connections: at most 2 times h2load's", ratio <= 2,
               f"{ratio:.2f} times: {time_text(gets[64]['own']['cpu_per_request'])} and "
               f"{time_text(gets[64]['h2load']['cpu_per_request'])}",
               CREDIT.format(sends=gets[64]["own"]["sends_per_request"],
                             steps=gets[64]["own"]["steps_p50"],
                             idle=idle[("plain", 64, 40)]["sends_per_second"],
                             idle_cpu=time_text(idle[("plain", 64, 40)]["cpu_per_second"])))
    heap = idle[("plain", 512, 1)]["heap_per_connection"]
    yield Goal("An idle connection: under 40 KB beside its 16 KiB body buffer",
               heap - BODY_BUFFER < 40_000, f"{(heap - BODY_BUFFER) / 1000:.1f} KB")


def growth(cases):
    worst, name = max((case["instructions"][1] / case["instructions"][0], name)
                      for name, case in cases.items() if case["growth"] == "constant")
    yield Goal("No cost that grows with a connection's history", worst < 1.25,
               f"after 8 times the finished streams an idle call takes {worst:.2f} times the "
               f"instructions at most ({name}); `Cost.GrowsNoFasterThanItsInput` tests it")
