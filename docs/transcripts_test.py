#!/usr/bin/python3
"""transcripts_test.py PAGE FOLDER_OF_PROGRAMS...

Runs the ```console blocks of a page, each in a shell of its own, and compares
what they print. Lines that begin with "$ " are typed; "..." at the end of a line
stands for its rest. Numbers and the widths of columns differ from run to run, so
they are not compared, nor is the order of the lines that a command and a program
in the background print.
"""
import os
import re
import subprocess
import sys
import tempfile

# What the pages call the folder for sockets.
RUNTIME = "/run/user/1000"
DONE = "the command has ended"


def blocks(page: str) -> list[list[str]]:
    return [block.splitlines() for block in re.findall(r"^```console\n(.*?)^```$", page, re.M | re.S)]


def comparable(line: str) -> str:
    numbers = r'"?-?\d+(\.\d+)*"?'
    return re.sub(r"\s+", " ", re.sub(rf"(?<![A-Za-z])({numbers}(h|ms|us|ns|m|s)?)+", "N", line)).strip()


def fits(expected: str, line: str) -> bool:
    expected, line = comparable(expected), comparable(line)
    return line.startswith(expected[:-3]) if expected.endswith("...") else line == expected


class Shell:
    def __init__(self, folder: str, programs: list[str]) -> None:
        environment = dict(os.environ, XDG_RUNTIME_DIR=folder, PATH=":".join(programs + [os.environ["PATH"]]))
        self.folder = folder
        self.bash = subprocess.Popen(["bash", "--norc"], cwd=folder, env=environment, text=True,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def run(self, command: str, expected: list[str]) -> None:
        print("$", command, flush=True)
        self.bash.stdin.write(f"{command}\necho '{DONE}'\n")
        self.bash.stdin.flush()
        awaited = list(expected)
        has_ended = False
        while awaited or not has_ended:
            line = self.bash.stdout.readline()
            if not line:
                sys.exit("the shell has ended")
            line = line.rstrip("\n").replace(self.folder, RUNTIME)
            if line == DONE:
                has_ended = True
                continue
            print(line, flush=True)
            fitting = next((one for one in awaited if fits(one, line)), None)
            if fitting is not None:
                awaited.remove(fitting)
            elif line:
                sys.exit("that line is not one of these:\n" + "\n".join(awaited))

    def close(self) -> None:
        self.bash.stdin.write("kill -KILL $(jobs -p) 2>/dev/null; wait\n")
        self.bash.stdin.close()
        self.bash.wait()


def steps(block: list[str]) -> list[tuple[str, list[str]]]:
    """The commands, each with the lines that are expected behind it."""
    found: list[tuple[str, list[str]]] = []
    for line in block:
        if line.startswith("$ "):
            found.append((line[2:], []))
        elif line:
            found[-1][1].append(line)
    return found


def play(block: list[str], programs: list[str]) -> None:
    with tempfile.TemporaryDirectory(prefix="orvane-test-") as folder:
        shell = Shell(folder, programs)
        try:
            for command, expected in steps(block):
                shell.run(command, expected)
        finally:
            shell.close()


def main() -> None:
    with open(sys.argv[1], encoding="utf-8") as page:
        found = blocks(page.read())
    if not found:
        sys.exit("the page has no transcript")
    for block in found:
        play(block, sys.argv[2:])


main()
