"""Turns the standard edition's results into sections of docs/benchmarks.md."""

from table import memory_text, rate_text, row, speed_text, time_text

INTRODUCTION = """\
The server has one core of the machine, the client the other. "nghttpd" bounds many rows itself; the
"canned" server (`bench/canned_server.cpp`) answers with prepared bytes and costs next to nothing. The
"raw loop" (`bench/raw_loop.cpp`) is no client: it sends the same request bytes again and again and
counts ended streams, and so shows what the system alone costs. Processor time is the whole process's.
"""
REQUESTS = """\
A page of 1 KiB. Each request is started in the callback that ends another one; `-c` is the number of
connections, `-m` that of the streams of each, as h2load has them.

![Requests a second by streams](plots/standard-requests.svg)

![Processor time by streams](plots/standard-cpu.svg)
"""
DOWNLOADS = "From nghttpd. nghttp and curl drop what they receive, as our client does.\n"
UPLOADS = """\
To nghttpd, which drops it. A block is copied once, at `setContent`; a reader is called for each 16 KiB.
curl reads its body from a file into memory first.
"""
BLOCKED = """\
`blockedRequest`, one after the other on one thread, beside h2load with one stream: h2load hands nothing
over between threads.
"""
THREADS = "One connection to the canned server; each thread waits for its answer before it goes on.\n"
IDLE = """\
1000 clients with a connection of their own each, some seconds after the only request. A client's own
memory is counted, too.
"""
SYSTEM_CALLS = "Counted by strace, against the canned server.\n"
CODEC = """\
Processor time; `bench/standard_codec_bench.cpp` and `bench/standard_session_bench.cpp` have the cases.
libnghttp2's callbacks do nothing, and neither do ours. "Kept" is a head of which all but the path is
encoded once, as a client's is. A session receives in pieces of 64 KiB, a MiB of DATA of one stream or
199 answers of 10 fields and 1 KiB.
"""
CODEC_TEXTS = {
    "decode_literals": "decode {} fields as libnghttp2 first encodes them",
    "decode_own_literals": "decode {} fields as we first encode them",
    "decode_plain_literals": "decode {} literals without Huffman coding",
    "decode_static": "decode {} fields of the static table",
    "decode_indexed": "decode {} fields, all indexed",
    "encode_fresh": "encode a GET, first on its connection",
    "encode_literal_path": "encode a GET, all but the path indexed",
    "encode_indexed": "encode a GET, all indexed",
    "receive_data": "receive 1 MiB of {}-byte DATA frames",
    "receive_answers": "receive 199 answers",
    "produce_gets": "make 199 GETs' bytes",
}


def text_of(case):
    name, _, number = case.rpartition("_")
    if name in CODEC_TEXTS and number.isdigit():
        return CODEC_TEXTS[name].format(number)
    return CODEC_TEXTS[case]


def codec(results):
    for case, times in results.items():
        seconds = {name: value * 1e-9 for name, value in times.items()}
        yield row(text_of(case), time_text, seconds["own"], "libnghttp2", seconds["libnghttp2"])
        if "own_kept" in seconds:
            yield row(f"{text_of(case)}, kept", time_text, seconds["own_kept"], "libnghttp2",
                      seconds["libnghttp2"])


def requests(results):
    for (server, scheme, connections, streams), sides in results.items():
        what = f"{server} {scheme} -c{connections} -m{streams}"
        own = sides["own"]
        for peer in (name for name in sides if name != "own"):
            yield row(f"{what}, requests", rate_text, own["requests_per_second"], peer,
                      sides[peer]["requests_per_second"], rate=True)
            yield row(f"{what}, processor time a request", time_text, own["cpu_per_request"], peer,
                      sides[peer]["cpu_per_request"])
        yield row(f"{what}, p50", time_text, own["p50"], "h2load", sides["h2load"]["p50"])


def transfers(results):
    for case, sides in results.items():
        what = case if isinstance(case, str) else ", ".join(case)
        own = sides["own"]
        for peer in (name for name in sides if name != "own"):
            yield row(f"{what}, speed", speed_text, own["bytes_per_second"], peer,
                      sides[peer]["bytes_per_second"], rate=True)
            yield row(f"{what}, processor time", time_text, own["cpu"], peer, sides[peer]["cpu"])
        yield row(f"{what}, peak memory", memory_text, own["peak_kib"])


def blocked(results):
    for scheme, sides in results.items():
        for name, label in (("p50", "p50"), ("cpu_per_request", "processor time a request")):
            yield row(f"{scheme}, {label}", time_text, sides["own"][name], "h2load",
                      sides["h2load"][name])


def threads(results):
    for count, own in results.items():
        what = f"{count} thread{'s' if count > 1 else ''}"
        yield row(f"{what}, requests", rate_text, own["requests_per_second"])
        yield row(f"{what}, processor time a request", time_text, own["cpu_per_request"])


def idle(results):
    for (scheme, connections), own in results.items():
        what = f"{connections} {scheme}"
        yield row(f"{what}, heap a connection", "{:.1f} KiB".format, own["heap_per_connection"] / 1024)
        yield row(f"{what}, resident memory a connection", "{:.1f} KiB".format,
                  own["memory_per_connection"] / 1024)
        yield row(f"{what}, wake-ups", "{:.1f}/s".format, own["switches_per_second"])


def system_calls(results):
    for (connections, streams), count in results.items():
        yield row(f"-c{connections} -m{streams}, system calls a request", "{:.2f}".format, count)


def sections(measured):
    """[(title, text, rows)] of a dictionary with what standard.py and codec.py have measured."""
    return [("Requests", REQUESTS, list(requests(measured["requests"]))),
            ("System calls", SYSTEM_CALLS, list(system_calls(measured["system_calls"]))),
            ("Downloads of 100 MB", DOWNLOADS, list(transfers(measured["downloads"]))),
            ("Uploads of 100 MB", UPLOADS, list(transfers(measured["uploads"]))),
            ("One blocking thread", BLOCKED, list(blocked(measured["blocked"]))),
            ("Requests from several threads", THREADS, list(threads(measured["threads"]))),
            ("Idle", IDLE, list(idle(measured["idle"]))),
            ("HPACK and session", CODEC, list(codec(measured["codec"])))]
