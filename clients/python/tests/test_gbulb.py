"""The client in GLib's loop, by gbulb. Exit code 77: skipped, for want of it."""

import asyncio
import sys
import unittest

from programs import WidgetServer
from test_loops import DEADLINE_SECONDS, drive

try:
    import gbulb  # type: ignore[import]
    from gi.repository import GLib  # type: ignore[import]
except ImportError as error:
    print(f"skipped, {error} (Debian: python3-gbulb)")
    sys.exit(77)


async def drive_in_glib(path: str) -> str:
    is_glib = asyncio.Event()
    GLib.idle_add(is_glib.set)
    async with asyncio.timeout(DEADLINE_SECONDS):
        await is_glib.wait()
    return await drive(path)


class Gbulb(unittest.TestCase):
    def test_the_client_works_in_the_loop_of_glib(self) -> None:
        loop = gbulb.GLibEventLoop(context=GLib.MainContext.default())
        with WidgetServer() as path:
            self.assertIn("not attached", loop.run_until_complete(drive_in_glib(path)))
        loop.close()


if __name__ == "__main__":
    unittest.main()
