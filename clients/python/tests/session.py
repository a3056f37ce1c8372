"""Plays a session file (clients/corpus/README.md) to a widget server."""

import asyncio
import json
import re
from collections import defaultdict
from pathlib import Path
from typing import Any

from google.protobuf import json_format
from google.protobuf.message import Message
from scripted import SERVICE, key_of, message_class

import orvane

TIMEOUT_SECONDS = 10
# Where the first arrow stands that is not inside a string of the JSON.
ARROW = re.compile(r'((?:[^"=]|"(?:[^"\\]|\\.)*"|=(?!>))*)=>[ \t]*(.*)$')


def has_all_of(actual: Message, expected: Message) -> bool:
    """Whether every field that `expected` has is the same in `actual`."""
    for field, value in expected.ListFields():
        found = getattr(actual, field.name)
        if field.message_type is not None and field.label != field.LABEL_REPEATED:
            if not actual.HasField(field.name) or not has_all_of(found, value):
                return False
        elif field.message_type is not None:
            if len(found) != len(value) or not all(map(has_all_of, found, value)):
                return False
        elif found != value:
            return False
    return True


class Session:
    def __init__(self, connection: orvane.Connection) -> None:
        self.connection = connection
        self.counts: dict[str, int] = defaultdict(int)
        self.arrived: dict[str, asyncio.Queue[Message]] = defaultdict(asyncio.Queue)
        self.open: dict[tuple[str, str], Any] = {}
        self.tasks: set[asyncio.Task[None]] = set()

    async def play(self, path: Path) -> dict[str, int]:
        for number, line in enumerate(path.read_text().split("\n"), 1):
            line = line.lstrip()
            if line and not line.startswith("#"):
                try:
                    await self.take(line)
                except (AssertionError, TimeoutError) as error:
                    raise AssertionError(f"line {number}: {error}") from error
        await self.connection.settle()
        left = [name for name, queue in self.arrived.items() if not queue.empty()]
        assert not left, f"nobody expected all of {left}"
        for stream in self.open.values():
            stream.close()
        return self.counts

    async def take(self, line: str) -> None:
        word, _, rest = line.partition(" ")
        if word == "watch":
            name, key = rest.strip().split(None, 1)
            method = SERVICE.methods_by_name[name]
            events = self.connection.watch(
                method, key_of(key), message_class(method.output_type)
            )
            self.open[name, key] = events
            self.tasks.add(asyncio.create_task(self.collect(name, events)))
        elif word == "serve":
            self.serve(rest)
        elif word in ("event", "called"):
            name, text = rest.strip().split(None, 1)
            message_type = message_class(SERVICE.methods_by_name[name].output_type)
            expected = json_format.Parse(text, message_type())
            async with asyncio.timeout(TIMEOUT_SECONDS):
                actual = await self.arrived[name].get()
            assert has_all_of(actual, expected), f"{name}: {actual}"
        elif word == "end":
            name, key = rest.strip().split(None, 1)
            self.open.pop((name, key)).close()
        else:
            await self.call(line)
            word = "call"
        self.counts[word] += 1

    async def collect(self, name: str, events: orvane.Events[Any]) -> None:
        async for event in events:
            self.arrived[name].put_nowait(event)

    def serve(self, rest: str) -> None:
        match = ARROW.match(rest)
        assert match is not None, rest
        name, key = match[1].strip().split(None, 1)
        method = SERVICE.methods_by_name[name]
        message_type = message_class(method.output_type)
        response_type = message_class(
            message_type.DESCRIPTOR.fields_by_name["response"].message_type
        )
        answer = match[2]

        async def handler(call: Message) -> Message:
            message: Any = message_type()
            message.browser_id.CopyFrom(key_of(key))
            message.call.CopyFrom(call)
            message.call.SetInParent()
            self.arrived[name].put_nowait(message)
            if answer.startswith("error:"):
                raise orvane.Fail(answer.removeprefix("error:").removeprefix(" "))
            return json_format.Parse(answer, response_type())

        self.open[name, key] = self.connection.serve(
            method, key_of(key), message_type, handler
        )

    async def call(self, line: str) -> None:
        match = ARROW.match(line)
        assert match is not None, line
        name, request = match[1].strip().split(None, 1)
        method = SERVICE.methods_by_name[name]
        response_type = message_class(method.output_type)
        try:
            response = await self.connection.call(
                method,
                json_format.Parse(request, message_class(method.input_type)()),
                response_type,
                TIMEOUT_SECONDS,
            )
        except orvane.RpcError as error:
            assert match[2].startswith("error:"), f"{name}: {error}"
            expected = match[2].removeprefix("error:").removeprefix(" ")
            assert error.text == expected, f"{name}: {error}"
            return
        # The JSON of a wrapper message is a plain value such as `false`.
        assert json.dumps(json_format.MessageToDict(response)) == json.dumps(
            json_format.MessageToDict(json_format.Parse(match[2], response_type()))
        ), f"{name}: {response}"
