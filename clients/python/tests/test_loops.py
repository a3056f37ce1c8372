"""The client in a thread of its own; test_glib.py has it in GLib's loop."""

import asyncio
import math
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
                await widget.show(BROWSER, timeout=math.inf)
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


if __name__ == "__main__":
    unittest.main()
