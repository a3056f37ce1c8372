"""Generates Python from protos: messages, their types, and clients of services.

    python3 -m orvane.generate -I. --out=OUT home/thermostat.proto

This runs protoc with protoc-gen-orvane beside it. The protos that come with
orvane need no -I. Their modules are found in this package: where protoc writes
"from rpc.browser import browser_id_pb2", the result imports it from
orvane.rpc.browser. Other protos may be in a folder `rpc` too.
"""

from __future__ import annotations

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

_PACKAGE = pathlib.Path(__file__).resolve().parent
_IMPORT = re.compile(r"^from (rpc[\w.]*) import (\S+)", re.MULTILINE)


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m orvane.generate",
        description="Generates Python from protos: messages, their types, and clients of services.",
    )
    parser.add_argument(
        "-I",
        "--proto_path",
        metavar="DIR",
        action="append",
        default=[],
        help="a folder in which protos are looked for; default: the current one",
    )
    parser.add_argument("--out", metavar="DIR", required=True, type=pathlib.Path)
    parser.add_argument("--protoc", default="protoc", help="default: the one in PATH")
    parser.add_argument(
        "--plugin",
        metavar="PROTOC-GEN-ORVANE",
        default="protoc-gen-orvane",
        help="default: the one in PATH",
    )
    parser.add_argument("protos", metavar="PROTO", nargs="+")
    return parser.parse_args()


def _modules() -> set[str]:
    """What protoc calls the modules of this package."""
    return {
        ".".join(proto.relative_to(_PACKAGE).with_suffix("").parts) + "_pb2"
        for proto in _PACKAGE.glob("rpc/**/*.proto")
    }


def _program(name: str) -> str:
    found = shutil.which(name)
    if found is None:
        sys.exit(f"orvane.generate: there is no program {name}")
    return found


def main() -> None:
    arguments = _arguments()
    ours = _modules()

    def from_package(statement: re.Match[str]) -> str:
        module, name = statement.groups()
        is_ours = not ours.isdisjoint((module, f"{module}.{name}"))
        return f"from orvane.{module} import {name}" if is_ours else statement[0]

    folders = [*(arguments.proto_path or ["."]), str(_PACKAGE)]
    with tempfile.TemporaryDirectory() as scratch:
        protoc = [
            _program(arguments.protoc),
            f"--plugin=protoc-gen-orvane={_program(arguments.plugin)}",
            f"--python_out={scratch}",
            f"--pyi_out={scratch}",
            f"--orvane_out=language=python:{scratch}",
        ]
        protoc += [f"--proto_path={folder}" for folder in folders]
        protoc += arguments.protos
        if subprocess.run(protoc, check=False).returncode != 0:
            sys.exit("orvane.generate: protoc failed, nothing was written")
        for written in sorted(pathlib.Path(scratch).rglob("*.py*")):
            target = arguments.out / written.relative_to(scratch)
            target.parent.mkdir(parents=True, exist_ok=True)
            code = written.read_text(encoding="utf-8")
            target.write_text(_IMPORT.sub(from_package, code), encoding="utf-8")


if __name__ == "__main__":
    main()
