"""The command that generates Python."""

import asyncio
import importlib
import os
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from typing import Any

from test_client import Widget

import orvane
from orvane.rpc.transport.stream_message_pb2 import StreamMessage

PROGRAMS = [f"--protoc={os.environ['ORVANE_PROTOC']}", f"--plugin={os.environ['ORVANE_PLUGIN']}"]

DOOR = """
syntax = "proto3";
import "rpc/browser/browser_id.proto";
message Door { BrowserId browser_id = 1; }
"""

LAMP = """
syntax = "proto3";
package home;
import "google/protobuf/empty.proto";
import "rpc/browser/browser_id.proto";
import "rpc/browser/colour.proto";
message Lamp { BrowserId browser_id = 1; Colour colour = 2; }
service Lamps { rpc Paint(Lamp) returns (Colour); }
"""

COLOUR = """
syntax = "proto3";
package home;
message Colour { int32 red = 1; }
"""

# Names that Python reserves, or that the client uses itself.
NAMES = """
syntax = "proto3";
package names;
message class { message None { int32 from = 1; } }
service Names {
  rpc _Connection(class) returns (class.None);
  rpc Float(class) returns (class.None);
  rpc Import(class) returns (class.None);
}
"""


class Generate(unittest.IsolatedAsyncioTestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def write(self, path: str, text: str) -> None:
        (self.folder / path).parent.mkdir(parents=True, exist_ok=True)
        (self.folder / path).write_text(text)

    def import_generated(self, module: str) -> Any:
        out = str(self.folder / "out")
        sys.path.insert(0, out)
        self.addCleanup(sys.path.remove, out)
        importlib.invalidate_caches()
        return importlib.import_module(module)

    def generate(self, *arguments: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [sys.executable, "-m", "orvane.generate", "--out=out", *arguments],
            cwd=self.folder,
            capture_output=True,
            text=True,
            check=False,
        )

    def test_messages_import_the_protos_of_orvane_from_the_package(self) -> None:
        (self.folder / "door.proto").write_text(DOOR)
        self.assertEqual(self.generate(*PROGRAMS, "door.proto").returncode, 0)
        for written in ["door_pb2.py", "door_pb2.pyi"]:
            self.assertIn(
                "from orvane.rpc.browser import browser_id_pb2",
                (self.folder / "out" / written).read_text(),
            )

    def test_protos_of_others_may_be_in_a_folder_rpc_too(self) -> None:
        self.write("rpc/lamp.proto", LAMP)
        self.write("rpc/browser/colour.proto", COLOUR)
        protos = ["rpc/lamp.proto", "rpc/browser/colour.proto"]
        self.assertEqual(self.generate(*PROGRAMS, *protos).returncode, 0)
        lamps = self.import_generated("rpc.lamp_client")
        colours = self.import_generated("rpc.browser.colour_pb2")
        self.assertEqual(lamps.LampsClient.SERVICE.full_name, "home.Lamps")
        self.assertIs(lamps.colour_pb2, colours)

    async def test_names_that_python_reserves_can_be_called(self) -> None:
        self.write("with/in-names.proto", NAMES)
        self.assertEqual(self.generate(*PROGRAMS, "with/in-names.proto").returncode, 0)
        messages = self.import_generated("with.in_names_pb2")
        module = self.import_generated("with.in_names_client")
        near, far = socket.socketpair()
        far.setblocking(False)
        with far:
            async with asyncio.timeout(20), orvane.connect(sock=near) as connection:
                client = module.NamesClient(connection)
                widget = Widget(far)
                hello = await widget.frame()
                await widget.send(kind=hello.kind, payload=hello.payload)
                request = getattr(messages, "class")()
                for method in (client._connection_, client.float_, client.import_):
                    call = asyncio.create_task(method(request))
                    sent = await widget.frame()
                    # The field 1, from, is 7.
                    await widget.send(
                        kind=StreamMessage.KIND_REPLY,
                        stream_id=sent.stream_id,
                        payload=b"\x08\x07",
                    )
                    self.assertEqual(getattr(await call, "from"), 7)

    def test_a_folder_of_the_package_is_refused(self) -> None:
        self.write("orvane/door.proto", DOOR)
        result = self.generate(*PROGRAMS, "orvane/door.proto")
        self.assertEqual(result.returncode, 1)
        self.assertIn("a proto cannot be in a folder orvane", result.stderr)

    def test_a_proto_with_an_error_writes_nothing(self) -> None:
        (self.folder / "door.proto").write_text(DOOR)
        (self.folder / "broken.proto").write_text("message {")
        result = self.generate(*PROGRAMS, "door.proto", "broken.proto")
        self.assertEqual(result.returncode, 1)
        self.assertIn("broken.proto:1:9", result.stderr)
        self.assertIn("nothing was written", result.stderr)
        self.assertFalse((self.folder / "out").exists())

    def test_a_missing_program_is_named(self) -> None:
        result = self.generate("--protoc=nowhere/protoc", "door.proto")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(
            result.stderr, "orvane.generate: there is no program nowhere/protoc\n"
        )


if __name__ == "__main__":
    unittest.main()
