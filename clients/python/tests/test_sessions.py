"""Recorded sessions, played to a real widget server."""

import asyncio
import os
import unittest
from pathlib import Path

from programs import WidgetServer
from session import Session

import orvane
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient

SESSIONS = sorted(Path(os.environ["ORVANE_SESSIONS"]).glob("*.session"))


async def play(path: Path, socket: str) -> dict[str, int]:
    async with orvane.connect(socket) as connection:
        BrowserWidgetRpcClient(connection)
        return await Session(connection).play(path)


class Sessions(unittest.TestCase):
    def test_the_widget_server_answers_as_recorded(self) -> None:
        self.assertTrue(SESSIONS)
        for path in SESSIONS:
            with self.subTest(path.stem), WidgetServer() as socket:
                counts = asyncio.run(play(path, socket))
                print(f"python: {path.name}: {dict(counts)}")
                self.assertGreater(counts["call"], 0)


if __name__ == "__main__":
    unittest.main()
