"""The client in GLib's loop: by PyGObject 3.50 and later, or by gbulb, which works
with older ones only. Exit code 77: skipped, for want of both."""

import asyncio
import sys
import unittest

from programs import WidgetServer
from test_loops import DEADLINE_SECONDS, drive

try:
    from gi.repository import GLib  # type: ignore[import]
except ImportError as error:
    print(f"skipped, {error} (Debian: python3-gi)")
    sys.exit(77)


def new_loop() -> asyncio.AbstractEventLoop:
    try:
        from gi.events import GLibEventLoopPolicy  # type: ignore[import]
    except ImportError:
        import gbulb  # type: ignore[import]

        older: asyncio.AbstractEventLoop = gbulb.GLibEventLoop(
            context=GLib.MainContext.default()
        )
        return older
    asyncio.set_event_loop_policy(GLibEventLoopPolicy())
    return asyncio.get_event_loop_policy().get_event_loop()


try:
    loop = new_loop()
except ImportError as error:
    print(f"skipped, {error} (Debian: python3-gbulb)")
    sys.exit(77)


async def drive_in_glib(path: str) -> str:
    is_glib = asyncio.Event()
    GLib.idle_add(is_glib.set)
    async with asyncio.timeout(DEADLINE_SECONDS):
        await is_glib.wait()
    return await drive(path)


class Glib(unittest.TestCase):
    def test_the_client_works_in_the_loop_of_glib(self) -> None:
        with WidgetServer() as path:
            self.assertIn("not attached", loop.run_until_complete(drive_in_glib(path)))
        loop.close()


if __name__ == "__main__":
    unittest.main()
