"""Hosts of the corpus that misbehave, against a real widget server."""

import os
import socket
import unittest
from pathlib import Path

from programs import WidgetServer
from scripted import DEADLINE_SECONDS, SERVICE, bytes_of, bytes_of_frame, read_steps

from orvane._wire import FrameReader, hello_of
from orvane.rpc.transport.stream_message_pb2 import StreamMessage

SCRIPTS = sorted((Path(os.environ["ORVANE_CORPUS"]) / "scripts/hosts").glob("*.script"))
HELLO = StreamMessage(
    kind=StreamMessage.KIND_HELLO, payload=hello_of(SERVICE).SerializeToString()
)


class Host:
    def __init__(self, path: str) -> None:
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(DEADLINE_SECONDS)
        self.socket.connect(path)
        self._reader = FrameReader(4 << 20)
        self._frames: list[StreamMessage] = []

    def frame(self) -> StreamMessage | None:
        """The next one, or None at the end of the connection."""
        while not self._frames:
            chunk = self.socket.recv(65536)
            if not chunk:
                return None
            self._frames += self._reader.feed(chunk)
        return self._frames.pop(0)


class Hosts(unittest.TestCase):
    def play(self, script: Path, path: str) -> None:
        host = Host(path)
        with host.socket:
            for word, rest in read_steps(script):
                if word == "hello":
                    host.socket.sendall(bytes_of_frame(HELLO))
                    hello = host.frame()
                    assert hello is not None
                    self.assertEqual(hello.kind, StreamMessage.KIND_HELLO)
                elif word == ">":
                    host.socket.sendall(bytes_of(rest))
                elif rest == "end":
                    self.assertIsNone(host.frame())
                else:
                    actual = host.frame()
                    assert actual is not None, f"closed in place of {rest}"
                    expected = StreamMessage.FromString(bytes_of(rest)[4:])
                    # Words are for people, and may become better ones.
                    self.assertEqual(bool(actual.error_text), bool(expected.error_text))
                    actual.error_text = expected.error_text = b""
                    self.assertEqual(actual, expected)

    def test_each_gets_what_the_script_says(self) -> None:
        self.assertGreater(len(SCRIPTS), 10)
        for script in SCRIPTS:
            with self.subTest(script.stem), WidgetServer() as path:
                self.play(script, path)
        print(f"server: {len(SCRIPTS)} scripts agree")


if __name__ == "__main__":
    unittest.main()
