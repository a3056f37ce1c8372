#!/usr/bin/python3
"""recorded_test.py WIDGET_SERVER WIDGETCTL SESSION RECORDING

Tests that today's server works with the recorded host, and today's host with the
recorded server. README.md tells how the frames are compared.
"""

import os
import socket
import subprocess
import sys
import tempfile
import unittest
from collections import defaultdict

WIDGET_SERVER, WIDGETCTL, SESSION, RECORDING = sys.argv[1:5]
DEADLINE_SECONDS = 60


def read_recording():
    with open(RECORDING) as lines:
        return [(line[0], bytes.fromhex(line[1:])) for line in lines]


def stream_of(frame):
    """The stream that a frame belongs to: the field behind its kind."""
    position, shift, number = 7, 0, 0
    if frame[6:7] != b"\x10":
        return 0
    while True:
        number |= (frame[position] & 0x7F) << shift
        if frame[position] < 0x80:
            return number
        position, shift = position + 1, shift + 7


def without_text(error):
    """The widget's ERROR up to its text, which later versions may word differently."""
    position = 4
    while position < len(error) and error[position] != 0x32:
        position += 1  # The tag.
        while error[position] & 0x80:
            position += 1
        position += 1
    return error[4:position]


class Peer:
    """One end of a connection, frame by frame."""

    def __init__(self, connected):
        connected.settimeout(DEADLINE_SECONDS)
        self.socket = connected
        self.received = bytearray()

    def frame(self):
        """The next one, length included, or None at the end."""
        while True:
            end = 4 + int.from_bytes(self.received[:4], "little")
            if len(self.received) >= 4 and len(self.received) >= end:
                frame = bytes(self.received[:end])
                del self.received[:end]
                return frame
            chunk = self.socket.recv(65536)
            if not chunk:
                return None
            self.received += chunk


class Recorded(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="orvane-")
        self.addCleanup(self.folder.cleanup)
        self.path = os.path.join(self.folder.name, "widget.sock")
        self.recording = read_recording()
        self.assertGreater(len(self.recording), 200)

    def test_todays_server_understands_the_host_of_then(self):
        server = subprocess.Popen(
            [WIDGET_SERVER, "--socket", self.path], stdout=subprocess.PIPE
        )
        self.addCleanup(server.communicate)
        self.addCleanup(server.terminate)
        server.stdout.readline()  # It listens.
        with socket.socket(socket.AF_UNIX) as connected:
            connected.connect(self.path)
            peer = Peer(connected)
            expected = defaultdict(list)
            missing = 0
            for sender, frame in self.recording:
                if sender != ">":
                    expected[stream_of(frame)].append((sender, frame))
                    missing += 1
                    continue
                for _ in range(missing):
                    self.check(peer.frame(), expected)
                missing = 0
                connected.sendall(frame)
            for _ in range(missing):
                self.check(peer.frame(), expected)
        self.assertFalse(any(expected.values()))

    def check(self, actual, expected):
        self.assertIsNotNone(actual, "the server has closed the connection")
        frames = expected[stream_of(actual)]
        self.assertTrue(frames, f"nothing was recorded like {actual.hex()}")
        sender, frame = frames.pop(0)
        self.assertEqual(actual[4:6], frame[4:6])  # The kind.
        is_hello = frame[5] == 8
        is_error = frame[5] == 3
        if is_error:
            self.assertEqual(without_text(actual).hex(), without_text(frame).hex())
        elif sender != "~" and not is_hello:
            self.assertEqual(actual.hex(), frame.hex())

    def test_todays_host_understands_the_server_of_then(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.path)
            listener.listen()
            host = subprocess.Popen(
                [WIDGETCTL, "--socket", self.path, "run", SESSION],
                stdout=subprocess.PIPE,
                text=True,
            )
            connected = listener.accept()[0]
        with connected:
            peer = Peer(connected)
            for sender, frame in self.recording:
                if sender != ">":
                    connected.sendall(frame)
                elif peer.frame() is None:
                    break  # The host leaves when it has seen enough.
            printed = host.communicate(timeout=DEADLINE_SECONDS)[0]
        self.assertEqual(host.returncode, 0, printed)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
