"""The client in the loops of others: a thread of its own, and GLib through gbulb."""

import asyncio
import threading
import unittest

from programs import WidgetServer

import orvane
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient

BROWSER = BrowserId(value=2)
DEADLINE_SECONDS = 20


async def drive(path: str) -> str:
    """Calls what fails, since the browser is not attached: returns the words."""
    async with asyncio.timeout(DEADLINE_SECONDS), orvane.connect(path) as connection:
        widget = BrowserWidgetRpcClient(connection)
        async with widget.when_tooltip_changed(BROWSER):
            await connection.settle()
            try:
                await widget.show(BROWSER, timeout=DEADLINE_SECONDS)
            except orvane.RpcError as error:
                return error.text
    return "shown"


class Loops(unittest.TestCase):
    def test_a_thread_of_its_own_beside_a_toolkit(self) -> None:
        loop = asyncio.new_event_loop()
        thread = threading.Thread(target=loop.run_forever, daemon=True)
        thread.start()
        with WidgetServer() as path:
            future = asyncio.run_coroutine_threadsafe(drive(path), loop)
            self.assertIn("not attached", future.result(DEADLINE_SECONDS))
        loop.call_soon_threadsafe(loop.stop)
        thread.join()
        loop.close()

    def test_glib_by_gbulb(self) -> None:
        try:
            import gbulb  # type: ignore[import]
        except ImportError:
            self.skipTest("there is no gbulb (Debian: python3-gbulb)")
        from gi.repository import GLib  # type: ignore[import]

        async def drive_in_glib(path: str) -> str:
            is_glib = asyncio.Event()
            GLib.idle_add(is_glib.set)
            async with asyncio.timeout(DEADLINE_SECONDS):
                await is_glib.wait()
            return await drive(path)

        loop = gbulb.GLibEventLoop(context=GLib.MainContext.default())
        with WidgetServer() as path:
            self.assertIn("not attached", loop.run_until_complete(drive_in_glib(path)))
        loop.close()


if __name__ == "__main__":
    unittest.main()
