"""Random and damaged bytes from a widget: nothing but RpcError comes of them."""

import asyncio
import os
import random
import socket
import time
import unittest
from pathlib import Path

import scripted

import orvane
from orvane._wire import FrameReader
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient
from orvane.rpc.browser.focus_pb2 import TakeFocusCall, TakeFocusResponse

SECONDS = float(os.environ.get("ORVANE_FUZZ_SECONDS", "10"))
SEEDS = sorted((Path(os.environ["ORVANE_CORPUS"]) / "scripts").glob("*/*.script"))
BROWSER = BrowserId(value=9)


def widget_bytes(path: Path) -> bytes:
    return b"".join(
        scripted.bytes_of(rest)
        for word, rest in scripted.read_steps(path)
        if word == "<" and rest != "end"
    )


def damaged(data: bytes, chance: random.Random) -> bytes:
    result = bytearray(data)
    for _ in range(chance.randint(0, 4)):
        at = chance.randrange(len(result) + 1)
        kind = chance.randrange(4)
        if kind == 0:
            result[at:at] = chance.randbytes(chance.randint(1, 8))
        elif kind == 1:
            del result[at : at + chance.randint(1, 8)]
        elif kind == 2 and at < len(result):
            result[at] ^= 1 << chance.randrange(8)
        else:
            result[at:at] = result[: chance.randint(0, 40)]
    return bytes(result)


async def take_focus(call: TakeFocusCall) -> TakeFocusResponse:
    return TakeFocusResponse(taken=True)


async def survive(data: bytes) -> None:
    near, far = socket.socketpair()
    far.setblocking(False)
    loop = asyncio.get_running_loop()
    with far:
        async with asyncio.timeout(20), orvane.connect(sock=near) as connection:
            client = BrowserWidgetRpcClient(connection)
            call = asyncio.create_task(client.get_accessibility_token(BROWSER))
            events = client.when_tooltip_changed(BROWSER)
            serving = client.on_take_focus(BROWSER, take_focus)
            await asyncio.sleep(0)
            hello = await loop.sock_recv(far, 454)  # The whole one.
            await loop.sock_sendall(far, hello + data)
            far.shutdown(socket.SHUT_WR)
            error = await connection.wait_closed()
            assert error.code == orvane.Code.UNAVAILABLE, error
            for ended in (call, serving.wait_ended()):
                try:
                    await ended
                except orvane.RpcError:
                    pass
            try:
                async for _ in events:
                    pass
            except orvane.RpcError:
                pass


class Fuzz(unittest.TestCase):
    def setUp(self) -> None:
        self.seed = int(os.environ.get("ORVANE_FUZZ_SEED", time.time_ns()))
        self.chance = random.Random(self.seed)
        self.seeds = [data for path in SEEDS if (data := widget_bytes(path))]
        self.assertGreater(len(self.seeds), 40)

    def run_for(self, seconds: float, what: object) -> None:
        end = time.monotonic() + seconds
        count = 0
        while time.monotonic() < end:
            data = damaged(self.chance.choice(self.seeds), self.chance)
            try:
                what(data)  # type: ignore[operator]
            except BaseException:
                print(f"seed {self.seed}, bytes {data.hex()}")
                raise
            count += 1
        print(f"python: {count} inputs, seed {self.seed}")

    def test_the_reader_finds_frames_or_raises(self) -> None:
        def read(data: bytes) -> None:
            reader = FrameReader(4 << 20)
            try:
                while data:
                    count = self.chance.randint(1, len(data))
                    list(reader.feed(data[:count]))
                    data = data[count:]
            except orvane.RpcError:
                pass

        self.run_for(SECONDS / 2, read)

    def test_a_host_survives(self) -> None:
        with asyncio.Runner() as runner:
            self.run_for(SECONDS / 2, lambda data: runner.run(survive(data)))


if __name__ == "__main__":
    unittest.main()
