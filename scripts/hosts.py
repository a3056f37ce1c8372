#!/usr/bin/env python3
"""Hosts for scripts/attack and scripts/soak, which speak the protocol byte by byte.

    hosts.py ATTACK SOCKET SECONDS    attacks in one of the ways below; then prints a
                                      line, and stays connected until it is killed
    hosts.py behave SOCKET SERVICE    calls every two milliseconds until SIGTERM, then
                                      prints what its calls took, as JSON: how many
                                      there were, the worst and the 99th of 100 in
                                      milliseconds, and how many failed
"""

import json
import resource
import signal
import socket
import struct
import sys
import threading
import time

# Kinds of frames and methods, as docs/protocol.md numbers them.
CALL, REPLY, ERROR, CANCEL, OPEN, NEXT, COMPLETE, HELLO = range(1, 9)
SHOW, KEY_TYPE, TOOLTIPS, TAKE_FOCUS = 5, 14, 41, 50
WIDGET, THERMOSTAT = b"rpc.BrowserWidgetRpc", b"home.Thermostat"
HEAT, CONFIRM_HEAT = 0, 2

FIRST_KEY = 1000

CONNECT_TIMEOUT = 30


def varint(number):
    data = bytearray()
    while number > 0x7f:
        data.append(number & 0x7f | 0x80)
        number >>= 7
    data.append(number)
    return bytes(data)


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


def frame(kind, stream=0, payload=b"", method=None):
    content = field(1, kind)
    if stream:
        content += field(2, stream)
    if method is not None:
        content += field(3, method)
    if payload:
        content += field(15, payload)
    return struct.pack("<I", len(content)) + content


def hello(service=WIDGET):
    return frame(HELLO, payload=field(1, 1) + field(2, 1) + field(3, service))


def key(browser):
    return field(1, browser)


def subscribe(stream, key_bytes):
    return frame(NEXT, stream, field(1, key_bytes))


def unsubscribe(stream, key_bytes):
    return frame(NEXT, stream, field(2, key_bytes))


def serve(stream, key_bytes, on=True):
    return frame(NEXT, stream, field(1, key_bytes) + field(3, int(on)))


class Host:
    """A connection that sends whatever it is told to, and drops what comes back.
    It stays open until its process ends."""

    every = []

    def __init__(self, path, greeting=hello()):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(CONNECT_TIMEOUT)
        self.socket.connect(path)
        if greeting:
            self.socket.sendall(greeting)
        threading.Thread(target=self._drop, daemon=True).start()
        Host.every.append(self)

    def send(self, data):
        self.socket.sendall(data)

    def _drop(self):
        try:
            while self.socket.recv(1 << 20):
                pass
        except OSError:
            pass


def repeat_until(deadline, host, data):
    """Sends `data` again and again; it is best to be some 100 KiB of frames."""
    while time.monotonic() < deadline:
        host.send(data)


# The attacks. Each runs until the deadline, and its connections stay. What it has
# sent last may be handled after that. Keys begin where no host that behaves has any.


def nothing(_, deadline):
    """no attack"""
    wait_until(deadline)


def new_keys(path, deadline):
    """ever new keys on a callback stream, then streams that end"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TAKE_FOCUS))
    browser = FIRST_KEY
    while time.monotonic() < deadline - 1:
        host.send(b"".join(serve(1, key(b)) for b in range(browser, browser + 5000)))
        browser += 5000
    other = Host(path)
    other.send(b"".join(frame(OPEN, i, method=TAKE_FOCUS) + frame(COMPLETE, i) for i in range(1, 100)))


def walks(path, deadline):
    """16 hosts with as many event keys as they may have, then streams that end"""
    hosts = [Host(path) for _ in range(16)]
    for number, host in enumerate(hosts):
        host.send(frame(OPEN, 1, method=TOOLTIPS))
        for first in range(FIRST_KEY + number * 16384, FIRST_KEY + number * 16384 + 16384, 4096):
            host.send(b"".join(subscribe(1, key(b)) for b in range(first, first + 4096)))
    for number in range(2, 318):
        hosts[0].send(frame(OPEN, number, method=TOOLTIPS) + frame(COMPLETE, number))
    wait_until(deadline)


def unknown_fields(path, deadline):
    """400 subscriptions with 4 MiB of unknown fields in the key"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TOOLTIPS) + frame(OPEN, 2, method=TAKE_FOCUS))
    large = field(100, b"x" * (4 * 1024 * 1024 - 100))
    for number in range(200):
        host.send(subscribe(1, key(FIRST_KEY + number) + large))
        host.send(serve(2, key(FIRST_KEY + number) + large))
    wait_until(deadline)


def back_and_forth(path, deadline):
    """subscribe and unsubscribe in turn"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TOOLTIPS))
    repeat_until(deadline, host, (subscribe(1, key(FIRST_KEY)) + unsubscribe(1, key(FIRST_KEY))) * 5000)


def the_same_again(path, deadline):
    """the same subscription again and again"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TOOLTIPS))
    repeat_until(deadline, host, subscribe(1, key(FIRST_KEY)) * 10000)


def streams(path, deadline):
    """streams that subscribe and end, from 16 hosts"""
    hosts = [Host(path) for _ in range(16)]
    number = 1
    while time.monotonic() < deadline:
        data = b"".join(frame(OPEN, i, method=TOOLTIPS) + subscribe(i, key(FIRST_KEY + i)) + frame(COMPLETE, i)
                        for i in range(number, number + 200))
        number += 200
        for host in hosts:
            host.send(data)


def meeting_hashes(path, deadline):
    """16384 keys whose hashes meet"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TOOLTIPS))
    # A word of the hash's own in this place makes it forget all before and the
    # word behind.
    start = b"\x7a\x2e" + b"x" * 14 + (0xa4093822299f31d0).to_bytes(8, "little")
    for first in range(0, 16384, 4096):
        host.send(b"".join(subscribe(1, start + number.to_bytes(8, "little") + b"x" * 16)
                           for number in range(first, first + 4096)))
    wait_until(deadline)


def takeovers(path, deadline):
    """two streams take a key by turns"""
    host = Host(path)
    host.send(frame(OPEN, 1, method=TAKE_FOCUS) + frame(OPEN, 2, method=TAKE_FOCUS))
    repeat_until(deadline, host, (serve(1, key(FIRST_KEY)) + serve(2, key(FIRST_KEY))) * 5000)


def takeovers_unread(path, deadline):
    """the same, and nobody reads the log"""
    takeovers(path, deadline)


def no_utf8(path, deadline):
    """texts that are not UTF-8, of which protobuf writes a line each"""
    number = 1
    host = Host(path)
    while time.monotonic() < deadline:
        host.send(b"".join(frame(CALL, i, field(4, b"\xff"), KEY_TYPE)
                           for i in range(number, number + 2000)))
        number += 2000


def forged_log(path, deadline):
    """line feeds and escape codes in hello"""
    while time.monotonic() < deadline:
        try:
            Host(path, hello(b"evil\nW1122 forged \x1b[2J" + b"x" * 5000))
        except OSError:
            pass
        time.sleep(0.01)


def silence(path, deadline):
    """64 connections that say nothing"""
    for _ in range(64):
        Host(path, None)
    wait_until(deadline)


def late_answers(path, deadline):
    """calls and cancels, where handlers wait for an answer of this host"""
    host = Host(path, hello(THERMOSTAT))
    host.send(frame(OPEN, 1, method=CONFIRM_HEAT))
    host.send(frame(NEXT, 1, field(1, key(FIRST_KEY)) + field(2, 1)))
    hot = field(1, key(FIRST_KEY)) + field(2, field(1, 30))
    number = 2
    while time.monotonic() < deadline:
        host.send(b"".join(frame(CALL, i, hot, HEAT) + frame(CANCEL, i)
                           for i in range(number, number + 2000)))
        number += 2000


def wait_until(deadline):
    time.sleep(max(0, deadline - time.monotonic()))


ATTACKS = {attack.__name__: attack for attack in (
    nothing, new_keys, walks, unknown_fields, back_and_forth, the_same_again, streams, meeting_hashes,
    takeovers, takeovers_unread, no_utf8, forged_log, silence, late_answers)}


def behave(path, service):
    """Calls every two milliseconds; now and then from a new connection."""
    ended = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: ended.set())
    times, failed = [], 0
    connection, number = None, 0
    while not ended.is_set():
        begun = time.monotonic()
        try:
            if connection is None or number == 100:
                connection, number = socket.socket(socket.AF_UNIX), 0
                connection.settimeout(CONNECT_TIMEOUT)
                connection.connect(path)
                connection.sendall(hello(service))
            number += 1
            # A server without this method answers with an error, which is as good.
            connection.sendall(frame(CALL, number, key(1), SHOW))
            answer = b""
            while not answered(answer, number):
                data = connection.recv(1 << 16)
                if not data:
                    raise OSError("the widget has closed the connection")
                answer += data
        except OSError:
            connection = None
            failed += 1
        times.append(time.monotonic() - begun)
        time.sleep(0.002)
    times.sort()
    print(json.dumps({"calls": len(times), "worst": times[-1] * 1e3,
                      "p99": times[len(times) * 99 // 100] * 1e3, "failed": failed}))


def answered(data, number):
    """Whether there is an answer to the call `number`."""
    while len(data) >= 4:
        length = struct.unpack("<I", data[:4])[0]
        if len(data) < 4 + length:
            return False
        content = data[4:4 + length]
        if content.startswith((field(1, REPLY) + field(2, number), field(1, ERROR) + field(2, number))):
            return True
        data = data[4 + length:]
    return False


def main():
    kind, path, argument = sys.argv[1:]
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    if kind == "behave":
        behave(path, argument.encode())
        return
    deadline = time.monotonic() + float(argument)
    try:
        ATTACKS[kind](path, deadline)
    except OSError:  # The server has ended the connection.
        wait_until(deadline)
    print("done", flush=True)
    signal.pause()


if __name__ == "__main__":
    main()
