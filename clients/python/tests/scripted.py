"""Plays the scripts of clients/corpus: this host against a scripted widget."""

import asyncio
import json
import re
import socket
from collections import defaultdict
from pathlib import Path
from typing import Any

from google.protobuf import json_format
from google.protobuf.message import Message

import orvane
from orvane.rpc.browser import browser_widget_pb2
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient
from orvane.rpc.transport.stream_message_pb2 import StreamMessage

SERVICE = browser_widget_pb2.DESCRIPTOR.services_by_name["BrowserWidgetRpc"]
DEADLINE_SECONDS = 20


def message_class(descriptor: Any) -> type[Message]:
    message_type: type[Message] = descriptor._concrete_class
    return message_type


def to_dict(message: Message) -> Any:
    return json_format.MessageToDict(message)


def key_of(text: str) -> BrowserId:
    if text.isdigit():
        return BrowserId(value=int(text))
    return json_format.Parse(text, BrowserId())


def read_steps(path: Path) -> list[tuple[str, str]]:
    """The first word of each step, and the rest of it."""
    steps: list[tuple[str, str]] = []
    for line in path.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        if line.startswith(" "):
            steps[-1] = (steps[-1][0], steps[-1][1] + line)
        else:
            word, _, rest = line.partition(" ")
            steps.append((word, rest))
    return steps


def bytes_of(text: str) -> bytes:
    return bytes.fromhex(text)


def bytes_of_frame(frame: StreamMessage) -> bytes:
    content = frame.SerializeToString()
    return len(content).to_bytes(4, "little") + content


class Cut(Exception):
    """The widget has died where it was to."""


class Player:
    """One play of a script. What happens at the host is written down by name."""

    def __init__(self, widget: socket.socket, connection: orvane.Connection) -> None:
        self.loop = asyncio.get_running_loop()
        self.widget = widget
        self.connection = connection
        self.happened: dict[str, list[str]] = defaultdict(list)
        self.tasks: dict[str, asyncio.Task[None]] = {}
        self.changed = asyncio.Condition()
        self.one_by_one = False
        self.bytes_left: int | None = None  # Until the widget dies.

    async def note(self, name: str, what: str) -> None:
        async with self.changed:
            self.happened[name].append(what)
            self.changed.notify_all()

    async def take(self, step: tuple[str, str]) -> None:
        word, rest = step
        if word in ("call", "watch", "serve"):
            name, method_name, argument = rest.split(" ", 2)
            method = SERVICE.methods_by_name[method_name]
            start = {"call": self.call, "watch": self.watch, "serve": self.serve}[word]
            self.tasks[name] = self.loop.create_task(start(name, method, argument))
        elif word in ("cancel", "end"):
            self.tasks.pop(rest).cancel()
        elif word == "hello":
            await self.send(await self.receive_hello())
        elif word == ">":
            expected = bytes_of(rest)
            received = await self.receive(len(expected))
            assert received == expected, f"sent {received.hex()}, not {expected.hex()}"
        elif word == "<" and rest == "end":
            self.widget.shutdown(socket.SHUT_WR)
        elif word == "<":
            await self.send(bytes_of(rest))
        elif word == "connection":
            error = await self.connection.wait_closed()
            assert_error(f"{error.code.name}: {error.text}", rest.removeprefix("ends "))
        else:
            await self.expect(word, rest)

    async def receive(self, count: int) -> bytes:
        received = b""
        while len(received) < count:
            chunk = await self.loop.sock_recv(self.widget, count - len(received))
            assert chunk, f"the host has left after {received.hex()}"
            received += chunk
        return received

    async def receive_hello(self) -> bytes:
        length = await self.receive(4)
        return length + await self.receive(int.from_bytes(length, "little"))

    async def send(self, data: bytes) -> None:
        dies = self.bytes_left is not None and self.bytes_left < len(data)
        if dies:
            data = data[: self.bytes_left]
        elif self.bytes_left is not None:
            self.bytes_left -= len(data)
        for piece in [bytes([b]) for b in data] if self.one_by_one else [data]:
            await self.loop.sock_sendall(self.widget, piece)
            if self.one_by_one:
                await asyncio.sleep(0)
        if dies:
            self.widget.close()
            raise Cut

    async def call(self, name: str, method: Any, argument: str) -> None:
        request = json_format.Parse(argument, message_class(method.input_type)())
        try:
            response = await self.connection.call(
                method, request, message_class(method.output_type)
            )
            await self.note(name, f"replies {to_dict(response)}")
        except orvane.RpcError as error:
            await self.note(name, f"fails {error}")

    async def watch(self, name: str, method: Any, argument: str) -> None:
        try:
            async with self.connection.watch(
                method, key_of(argument), message_class(method.output_type)
            ) as events:
                async for event in events:
                    await self.note(name, f"event {to_dict(event)}")
            await self.note(name, "ends")
        except orvane.RpcError as error:
            await self.note(name, f"ends {error}")

    async def serve(self, name: str, method: Any, argument: str) -> None:
        key, answer = argument.split(" => ")
        message_type = message_class(method.output_type)
        fields = message_type.DESCRIPTOR.fields_by_name

        async def handler(call: Message) -> Message:
            called = {"browserId": to_dict(key_of(key)), "call": to_dict(call)}
            await self.note(name, f"called {called}")
            if answer == "never":
                try:
                    await asyncio.Future()
                except asyncio.CancelledError:
                    await self.note(name, "given_up")
                    raise
            if answer.startswith("error: "):
                raise orvane.Fail(answer.removeprefix("error: "))
            response = message_class(fields["response"].message_type)()
            return json_format.Parse(answer, response)

        try:
            async with self.connection.serve(
                method, key_of(key), message_type, handler
            ) as serving:
                await serving.wait_ended()
            await self.note(name, "ends")
        except orvane.RpcError as error:
            await self.note(name, f"ends {error}")

    async def expect(self, name: str, expected: str) -> None:
        async with self.changed:
            await self.changed.wait_for(lambda: self.happened[name])
            happened = self.happened[name].pop(0)
        verb, _, what = expected.partition(" ")
        if verb in ("replies", "event", "called"):
            assert happened == f"{verb} {self.normal(what)}", f"{name} {happened}"
        else:
            assert happened.split(" ")[0] == verb, f"{name} {happened}"
            assert_error(happened.removeprefix(verb).strip(), what)

    @staticmethod
    def normal(text: str) -> Any:
        return json.loads(text)

    async def finish(self) -> None:
        """All that happened was expected, and the host has sent nothing else."""
        await self.connection.close()
        rest = b""
        while chunk := await self.loop.sock_recv(self.widget, 65536):
            rest += chunk
        assert not rest, f"the host sent {rest.hex()} too"
        for task in self.tasks.values():
            await task
        left = {
            name: [what for what in all_ if not re.match(r"(ends|fails) CANCELLED", what)]
            for name, all_ in self.happened.items()
        }
        assert not any(left.values()), f"nobody expected {left}"


def assert_error(actual: str, expected: str) -> None:
    """Only the code counts where no text is expected."""
    if ":" in expected:
        assert actual.rstrip() == expected.rstrip(), f"{actual}, not {expected}"
    else:
        assert actual.split(":")[0] == expected, f"{actual}, not {expected}"


async def play(path: Path, one_by_one: bool = False, die_after: int | None = None) -> bool:
    """Plays a script. With `die_after` the widget closes the connection once it has
    sent so many bytes; False if the script has fewer."""
    near, far = socket.socketpair()
    far.setblocking(False)
    async with asyncio.timeout(DEADLINE_SECONDS):
        connection = await orvane.connect(sock=near)
        BrowserWidgetRpcClient(connection)
        player = Player(far, connection)
        player.one_by_one = one_by_one
        player.bytes_left = die_after
        try:
            for step in read_steps(path):
                await player.take(step)
        except Cut:
            error = await connection.wait_closed()
            assert error.code == orvane.Code.UNAVAILABLE
            # Nothing hangs: each call and stream ends.
            await asyncio.gather(*player.tasks.values())
            return True
        with far:
            if "connection" in [word for word, _ in read_steps(path)]:
                await asyncio.gather(*player.tasks.values())
            else:
                await player.finish()
    return False
