#!/usr/bin/env python3
"""Passes connections on to an HTTP/2 server on 127.0.0.1 and writes down every frame of them.

Usage: recorder.py [--tls CERTIFICATE_AND_KEY [--alpn]] [--at-once] SERVER_PORT LOG...

Each LOG is that of a port of its own, which is the log's first line. Over TLS, the recorder is a
server to the client and a client to the server, with ALPN on both sides or on neither. With
--at-once, the client's packets are acknowledged as soon as they have come. A log:

  port 34567
  3 0.012 > HEADERS stream 1, length 31, END_STREAM END_HEADERS
  3 0.013 < HEADERS stream 1, :status 200, length 60, END_HEADERS
  3 10.002 < GOAWAY last stream 425, SETTINGS_TIMEOUT
  3 10.002 < closes
  end: GOAWAY SETTINGS_TIMEOUT; 213 requests; 10 s; 1 unanswered

(connection, seconds since its beginning, direction). The line "end:" comes once for a connection,
when it was the server that ended it: how, after how many requests and seconds, and how many requests
had no whole answer, although no GOAWAY had said that they would not be processed.
"""
import argparse
import asyncio
import contextlib
import itertools
import re
import socket
import ssl
import struct
import time

TYPES = ['DATA', 'HEADERS', 'PRIORITY', 'RST_STREAM', 'SETTINGS', 'PUSH_PROMISE', 'PING', 'GOAWAY',
         'WINDOW_UPDATE', 'CONTINUATION']
ERRORS = ['NO_ERROR', 'PROTOCOL_ERROR', 'INTERNAL_ERROR', 'FLOW_CONTROL_ERROR', 'SETTINGS_TIMEOUT',
          'STREAM_CLOSED', 'FRAME_SIZE_ERROR', 'REFUSED_STREAM', 'CANCEL', 'COMPRESSION_ERROR',
          'CONNECT_ERROR', 'ENHANCE_YOUR_CALM', 'INADEQUATE_SECURITY', 'HTTP_1_1_REQUIRED']
SETTINGS = {1: 'HEADER_TABLE_SIZE', 2: 'ENABLE_PUSH', 3: 'MAX_CONCURRENT_STREAMS',
            4: 'INITIAL_WINDOW_SIZE', 5: 'MAX_FRAME_SIZE', 6: 'MAX_HEADER_LIST_SIZE',
            8: 'ENABLE_CONNECT_PROTOCOL'}
FLAGS = {'DATA': {1: 'END_STREAM', 8: 'PADDED'},
         'HEADERS': {1: 'END_STREAM', 4: 'END_HEADERS', 8: 'PADDED', 32: 'PRIORITY'},
         'SETTINGS': {1: 'ACK'}, 'PING': {1: 'ACK'}, 'CONTINUATION': {4: 'END_HEADERS'}}
PREFACE = b'PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n'
HEAD = 9  # octets before a frame's payload
CHUNK = 65536

SIZE_UPDATES = re.compile(rb'^([\x20-\x3e]|\x3f[\x80-\xff]*[\x00-\x7f])*')  # RFC 7541, 6.3
# The static table's entries for :status (RFC 7541, Appendix A), and the digits in Huffman's code
# (Appendix B).
STATUSES = {8: '200', 9: '204', 10: '206', 11: '304', 12: '400', 13: '404', 14: '500'}
DIGITS = {'00000': '0', '00001': '1', '00010': '2', '011001': '3', '011010': '4', '011011': '5',
          '011100': '6', '011101': '7', '011110': '8', '011111': '9'}


def number(payload, at):
    return struct.unpack_from('>I', payload.ljust(at + 4, b'\0'), at)[0]


def error(code):
    return ERRORS[code] if code < len(ERRORS) else hex(code)


def digits(code):
    """Three digits in Huffman's code."""
    bits = ''.join(f'{octet:08b}' for octet in code)
    text = ''
    at = 0
    while len(text) < 3:
        word = next((bits[at:at + n] for n in (5, 6) if bits[at:at + n] in DIGITS), None)
        if word is None:
            return '?'
        text += DIGITS[word]
        at += len(word)
    return text


def status(block):
    """The status that a header block begins with; '' if there is none, or one that only the
    connection's table has."""
    block = SIZE_UPDATES.sub(b'', block)
    if not block:
        return ''
    first = block[0]
    if first & 0x80:
        return STATUSES.get(first & 0x7f, '')
    index = first & 0x3f if first & 0x40 else first & 0x0f
    if index not in STATUSES or len(block) < 2:
        return ''
    length = block[1]
    value = block[2:2 + (length & 0x7f)]
    return digits(value) if length & 0x80 else value.decode('ascii', 'replace')


def describe(kind, flags, stream, payload):
    """A frame in words."""
    name = TYPES[kind] if kind < len(TYPES) else f'type {kind}'
    words = [text for bit, text in FLAGS.get(name, {}).items() if flags & bit]
    if name == 'GOAWAY':
        debug = f', {payload[8:]}' if payload[8:] else ''
        return f'GOAWAY last stream {number(payload, 0)}, {error(number(payload, 4))}{debug}'
    if name == 'RST_STREAM':
        return f'RST_STREAM stream {stream}, {error(number(payload, 0))}'
    if name == 'WINDOW_UPDATE':
        return f'WINDOW_UPDATE stream {stream}, {number(payload, 0)}'
    if name == 'SETTINGS':
        for at in range(0, len(payload) - 5, 6):
            key, value = struct.unpack_from('>HI', payload, at)
            words.append(f'{SETTINGS.get(key, hex(key))}={value}')
        return ' '.join([name, *words])
    told = ''
    if name == 'HEADERS' and not flags & 8:
        code = status(payload[5:] if flags & 32 else payload)
        told = f':status {code}, ' if code else ''
    return f'{name} stream {stream}, {told}length {len(payload)}, ' + (
        ' '.join(words) or 'no flags')


class Connection:
    """Both directions of one connection."""

    def __init__(self, index, log):
        self.index = index
        self.log = log
        self.begun = time.monotonic()
        self.requests = 0
        self.unanswered = set()  # streams
        self.last_processed = 2**31 - 1  # says GOAWAY
        self.last_word = None  # how the server announced the end
        self.over = False

    def note(self, direction, words):
        self.log.write(f'{self.index} {self.age():.3f} {direction} {words}\n')

    def age(self):
        return time.monotonic() - self.begun

    def frame(self, direction, kind, flags, stream, payload):
        self.note(direction, describe(kind, flags, stream, payload))
        name = TYPES[kind] if kind < len(TYPES) else ''
        if direction == '>':
            if name == 'HEADERS':
                self.requests += 1
                self.unanswered.add(stream)
        elif name == 'RST_STREAM' or name in ('HEADERS', 'DATA') and flags & 1:
            self.unanswered.discard(stream)
        elif name == 'GOAWAY':
            self.last_processed = min(self.last_processed, number(payload, 0))
            if self.last_word in (None, 'GOAWAY NO_ERROR'):
                self.last_word = f'GOAWAY {error(number(payload, 4))}'

    def frames(self, direction, held):
        """Notes the whole frames in `held`; returns what follows them."""
        if direction == '<' and held.startswith(b'HTTP/1'):
            self.last_word = held.split(b'\r\n')[0].decode('ascii', 'replace')
            self.note(direction, self.last_word)
            return b''
        if direction == '>' and PREFACE.startswith(held[:len(PREFACE)]):
            if len(held) < len(PREFACE):
                return held
            held = held[len(PREFACE):]
        at = 0
        while len(held) - at >= HEAD:
            length = int.from_bytes(held[at:at + 3], 'big')
            if len(held) - at < HEAD + length:
                break
            kind, flags, stream = struct.unpack_from('>BBI', held, at + 3)
            self.frame(direction, kind, flags, stream & 0x7fffffff,
                       held[at + HEAD:at + HEAD + length])
            at += HEAD + length
        return held[at:]

    def ended(self, direction, how):
        self.note(direction, how)
        if not self.over and (self.last_word or direction == '<'):
            unanswered = sum(stream <= self.last_processed for stream in self.unanswered)
            self.log.write(f'end: {self.last_word or how}; {self.requests} requests; '
                           f'{self.age():.0f} s; {unanswered} unanswered\n')
        self.over = True

    async def copy(self, direction, source, sink, received):
        """Passes bytes on until either side has ended the connection."""
        held = b''
        how = None
        while how is None:
            try:
                data = await source.read(CHUNK)
            except ssl.SSLError as failure:
                how = f'ends TLS: {failure.reason}'
            except OSError:
                how = 'resets the connection'
            else:
                received()
                held = self.frames(direction, held + data)
                if not data:
                    how = 'closes'
                elif not await written(sink, data):
                    return  # the other direction tells of that end
        self.ended(direction, how)
        sink.close()


async def written(sink, data):
    try:
        sink.write(data)
        await sink.drain()
    except OSError:
        return False
    return True


class Recorder:
    """What listens for one log."""

    def __init__(self, options, log, to_client, to_server):
        self.options = options
        self.log = log
        self.to_client = to_client
        self.to_server = to_server
        self.indexes = itertools.count(1)

    async def start(self):
        listener = await asyncio.start_server(self.serve, '127.0.0.1', 0, backlog=128,
                                              ssl=self.to_client)
        self.log.write(f'port {listener.sockets[0].getsockname()[1]}\n')
        return listener

    async def serve(self, from_client, to_client):
        index = next(self.indexes)
        try:
            from_server, to_server = await asyncio.open_connection(
                '127.0.0.1', self.options.server_port, ssl=self.to_server)
        except OSError as failure:
            self.log.write(f'{index} 0.000 < cannot connect: {failure}\n')
            to_client.close()
            return
        client = to_client.get_extra_info('socket')

        def acknowledge():
            if self.options.at_once:
                with contextlib.suppress(OSError):  # what was read may be the last there is
                    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)

        connection = Connection(index, self.log)
        await asyncio.gather(connection.copy('>', from_client, to_server, acknowledge),
                             connection.copy('<', from_server, to_client, lambda: None))
        to_client.close()
        to_server.close()


def tls_contexts(certificate, alpn):
    """A server's, and a client's that trusts everybody; both know of ALPN, or neither."""
    to_client = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    to_client.load_cert_chain(certificate)
    to_server = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    to_server.check_hostname = False
    to_server.verify_mode = ssl.CERT_NONE
    if alpn:
        to_client.set_alpn_protocols(['h2'])
        to_server.set_alpn_protocols(['h2'])
    return to_client, to_server


async def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--tls')
    parser.add_argument('--alpn', action='store_true')
    parser.add_argument('--at-once', action='store_true')
    parser.add_argument('server_port', type=int)
    parser.add_argument('logs', nargs='+')
    options = parser.parse_args()
    contexts = tls_contexts(options.tls, options.alpn) if options.tls else (None, None)
    listeners = []
    for path in options.logs:
        log = open(path, 'w', buffering=1, encoding='ascii', errors='backslashreplace')
        listeners.append(await Recorder(options, log, *contexts).start())
    await asyncio.gather(*(listener.serve_forever() for listener in listeners))


asyncio.run(main())
