"""The command that generates Python."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PROGRAMS = [f"--protoc={os.environ['ORVANE_PROTOC']}", f"--plugin={os.environ['ORVANE_PLUGIN']}"]

DOOR = """
syntax = "proto3";
import "rpc/browser/browser_id.proto";
message Door { BrowserId browser_id = 1; }
"""


class Generate(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

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
