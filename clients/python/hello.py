# clients/python/hello.py: a complete program that calls a method, watches events
# and answers the widget.

import asyncio
import sys

import orvane
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient
from orvane.rpc.browser.cursor_pb2 import CURSOR_TYPE_POINTER
from orvane.rpc.browser.focus_pb2 import TakeFocusCall, TakeFocusResponse
from orvane.rpc.browser.geometry_pb2 import PointDip, RectDip
from orvane.rpc.browser.mouse_pb2 import MouseEnterRequest, PointerState
from orvane.rpc.browser.window_pb2 import RENDERING_MODE_OFF_SCREEN, AttachRequest


async def take_focus(call: TakeFocusCall) -> TakeFocusResponse:
    return TakeFocusResponse(taken=True)


async def main(path: str) -> None:
    browser = BrowserId(value=2)
    async with orvane.connect(path) as connection:
        widget = BrowserWidgetRpcClient(connection)
        cursors = widget.when_cursor_changed(browser)
        async with widget.on_take_focus(browser, take_focus):
            await widget.attach(
                AttachRequest(
                    browser_id=browser,
                    rendering_mode=RENDERING_MODE_OFF_SCREEN,
                    bounds=RectDip(width=320, height=200),
                ),
                timeout=5,
            )
            await widget.show(browser)
            print("browser 2 is shown")
            at = PointerState(position=PointDip(x=160, y=26))
            await widget.forward_mouse_enter(
                MouseEnterRequest(browser_id=browser, pointer=at)
            )
            async for event in cursors:
                is_link = event.cursor.type == CURSOR_TYPE_POINTER
                print("the pointer is over", "a link" if is_link else "something else")
                break


asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else orvane.default_socket_path()))
