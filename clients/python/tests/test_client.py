"""What the client promises beyond what travels."""

import asyncio
import gc
import math
import socket
import sys
import tempfile
import unittest
from collections.abc import AsyncIterator
from contextlib import asynccontextmanager
from typing import Any
from unittest import mock

from scripted import bytes_of_frame

import orvane
from orvane import Code, RpcError
from orvane._wire import FrameReader
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.browser_widget_client import BrowserWidgetRpcClient
from orvane.rpc.browser.cursor_pb2 import CursorChanged
from orvane.rpc.browser.focus_pb2 import TakeFocus, TakeFocusCall, TakeFocusResponse
from orvane.rpc.browser.keyboard_pb2 import KeyTypeRequest
from orvane.rpc.browser.tooltip_pb2 import TooltipChanged
from orvane.rpc.transport.stream_message_pb2 import Hello, StreamMessage

BROWSER = BrowserId(value=9)


class Widget:
    """The other end: takes frames apart and sends what a test tells it to."""

    def __init__(self, far: socket.socket) -> None:
        self.socket = far
        self._reader = FrameReader(4 << 20)
        self._frames: list[StreamMessage] = []

    async def frame(self) -> StreamMessage:
        loop = asyncio.get_running_loop()
        while not self._frames:
            chunk = await loop.sock_recv(self.socket, 65536)
            if not chunk:
                raise EOFError
            self._frames += self._reader.feed(chunk)
        return self._frames.pop(0)

    async def send(self, **fields: object) -> None:
        frame = StreamMessage(**fields)  # type: ignore[arg-type]
        await asyncio.get_running_loop().sock_sendall(self.socket, bytes_of_frame(frame))


class ClientTest(unittest.IsolatedAsyncioTestCase):
    @asynccontextmanager
    async def connected(
        self, options: orvane.Options = orvane.Options()
    ) -> AsyncIterator[tuple[BrowserWidgetRpcClient, orvane.Connection, Widget]]:
        near, far = socket.socketpair()
        far.setblocking(False)
        with far:
            async with asyncio.timeout(20), orvane.connect(
                sock=near, options=options
            ) as connection:
                client = BrowserWidgetRpcClient(connection)
                widget = Widget(far)
                hello = await widget.frame()
                await widget.send(kind=hello.kind, payload=hello.payload)
                yield client, connection, widget

    async def settle(self, connection: orvane.Connection, widget: Widget) -> None:
        """All that the widget has sent has been handled."""
        settled = asyncio.create_task(connection.settle())
        while (frame := await widget.frame()).kind != StreamMessage.KIND_COMPLETE:
            pass
        await widget.send(
            kind=StreamMessage.KIND_COMPLETE, stream_id=frame.stream_id
        )
        await settled

    async def settle_as_first(
        self, connection: orvane.Connection, widget: Widget
    ) -> None:
        """Nothing has been sent that the widget has not seen yet."""
        settled = asyncio.create_task(connection.settle())
        opened = await widget.frame()
        self.assertEqual(opened.kind, StreamMessage.KIND_OPEN)
        self.assertEqual((await widget.frame()).kind, StreamMessage.KIND_COMPLETE)
        await widget.send(
            kind=StreamMessage.KIND_COMPLETE, stream_id=opened.stream_id
        )
        await settled

    async def test_a_cancelled_task_gives_up_its_call(self) -> None:
        async with self.connected() as (client, _, widget):
            call = asyncio.create_task(client.show(BROWSER))
            sent = await widget.frame()
            call.cancel()
            frame = await widget.frame()
            self.assertEqual(frame.kind, StreamMessage.KIND_CANCEL)
            self.assertEqual(frame.stream_id, sent.stream_id)
            with self.assertRaises(asyncio.CancelledError):
                await call

    async def test_a_call_ends_at_its_timeout(self) -> None:
        async with self.connected() as (client, _, widget):
            with self.assertRaises(RpcError) as raised:
                await client.show(BROWSER, timeout=0.01)
            self.assertEqual(raised.exception.code, Code.DEADLINE_EXCEEDED)
            await widget.frame()
            frame = await widget.frame()
            self.assertEqual(frame.kind, StreamMessage.KIND_CANCEL)

    async def test_a_widget_may_ask_whether_the_host_is_there(self) -> None:
        async with self.connected() as (_, connection, widget):
            await widget.send(kind=StreamMessage.KIND_PONG)
            await widget.send(kind=StreamMessage.KIND_PING)
            self.assertEqual(await widget.frame(), StreamMessage(
                kind=StreamMessage.KIND_PONG
            ))
            await self.settle_as_first(connection, widget)

    async def test_an_infinite_timeout_is_none(self) -> None:
        async with self.connected() as (client, connection, widget):
            with mock.patch.object(connection.loop, "call_later") as call_later:
                call = asyncio.create_task(client.show(BROWSER, timeout=math.inf))
                sent = await widget.frame()
                call_later.assert_not_called()
            await widget.send(
                kind=StreamMessage.KIND_REPLY, stream_id=sent.stream_id
            )
            await call

    async def test_a_timeout_of_0_or_less_has_passed(self) -> None:
        async with self.connected() as (client, connection, widget):
            for timeout in (0, -1, -math.inf):
                with self.assertRaises(RpcError) as raised:
                    await client.show(BROWSER, timeout=timeout)
                self.assertEqual(raised.exception.code, Code.DEADLINE_EXCEEDED)
            await self.settle_as_first(connection, widget)

    async def test_a_timeout_is_a_number(self) -> None:
        async with self.connected() as (client, connection, widget):
            with self.assertRaisesRegex(ValueError, "timeout is not a number"):
                await client.show(BROWSER, timeout=math.nan)
            await self.settle_as_first(connection, widget)

    async def test_a_request_of_another_type_is_not_sent(self) -> None:
        async def handler(call: TakeFocusCall) -> TakeFocusResponse:
            return TakeFocusResponse()

        wrong: Any = TooltipChanged()
        async with self.connected() as (client, connection, widget):
            with self.assertRaisesRegex(
                TypeError, "Show takes BrowserId, not rpc.TooltipChanged"
            ):
                await client.show(wrong)
            with self.assertRaisesRegex(TypeError, "Show takes BrowserId, not NoneType"):
                await client.show(None)  # type: ignore[arg-type]
            with self.assertRaisesRegex(TypeError, "WhenTooltipChanged takes BrowserId"):
                client.when_tooltip_changed(wrong)
            with self.assertRaisesRegex(TypeError, "OnTakeFocus takes BrowserId"):
                client.on_take_focus(wrong, handler)
            await self.settle_as_first(connection, widget)

    async def test_the_end_of_the_connection_ends_all_with_its_reason(self) -> None:
        async with self.connected() as (client, connection, widget):
            call = asyncio.create_task(client.show(BROWSER))
            await widget.frame()
            events = client.when_tooltip_changed(BROWSER)
            widget.socket.close()
            for ended in (call, anext(events), client.hide(BROWSER)):
                with self.assertRaises(RpcError) as raised:
                    await ended
                self.assertEqual(raised.exception.code, Code.UNAVAILABLE)
            self.assertIs(await connection.wait_closed(), connection.error)

    async def test_an_error_does_not_keep_what_its_receivers_had(self) -> None:
        async with self.connected() as (client, connection, widget):
            events = client.when_tooltip_changed(BROWSER)
            widget.socket.close()
            error = await connection.wait_closed()
            for ended in (client.show(BROWSER), anext(events)):
                try:  # assertRaises would remove the traceback.
                    await ended
                except RpcError as raised:
                    self.assertEqual(str(raised), str(error))
                # It would hold the frames of all callers.
                self.assertIsNone(error.__traceback__)

    async def test_closing_that_is_cancelled_closes(self) -> None:
        async with self.connected() as (client, connection, _):
            call = asyncio.create_task(
                client.forward_key_type(KeyTypeRequest(text="x" * (1 << 20)))
            )
            await asyncio.sleep(0)
            closing = asyncio.create_task(connection.close())
            await asyncio.sleep(0)
            closing.cancel()
            await connection.wait_closed()
            await asyncio.gather(call, closing, return_exceptions=True)

    async def test_a_reader_of_many_events_gives_others_their_turn(self) -> None:
        async with self.connected() as (client, connection, widget):
            events = client.when_tooltip_changed(BROWSER)
            opened = await widget.frame()
            for _ in range(1000):
                await widget.send(kind=StreamMessage.KIND_NEXT, stream_id=opened.stream_id)
            await self.settle(connection, widget)
            turned = asyncio.Event()
            connection.loop.call_soon(turned.set)
            read = 0
            while not turned.is_set():
                await anext(events)
                read += 1
            self.assertLess(read, 200)

    async def test_events_that_came_before_the_end_are_delivered(self) -> None:
        async with self.connected() as (client, _, widget):
            events = client.when_tooltip_changed(BROWSER)
            opened = await widget.frame()
            event = TooltipChanged(text="Hi")
            await widget.send(
                kind=StreamMessage.KIND_NEXT,
                stream_id=opened.stream_id,
                payload=event.SerializeToString(),
            )
            widget.socket.close()
            self.assertEqual(await anext(events), event)
            with self.assertRaises(RpcError):
                await anext(events)

    async def test_only_one_task_waits_for_events(self) -> None:
        async with self.connected() as (client, _, widget):
            events = client.when_tooltip_changed(BROWSER)
            opened = await widget.frame()
            first = asyncio.create_task(events.__anext__())
            await asyncio.sleep(0)  # It waits.
            with self.assertRaisesRegex(RuntimeError, "two tasks read"):
                await anext(events)
            await widget.send(
                kind=StreamMessage.KIND_NEXT, stream_id=opened.stream_id
            )
            self.assertEqual(await first, TooltipChanged())

    async def test_unread_events_are_bounded(self) -> None:
        options = orvane.Options(max_unread_event_bytes=1000)
        async with self.connected(options) as (client, connection, widget):
            events = client.when_drop_down_deleted(BROWSER)
            opened = await widget.frame()
            for _ in range(100):
                await widget.send(
                    kind=StreamMessage.KIND_NEXT, stream_id=opened.stream_id
                )
            await self.settle(connection, widget)
            count = 0
            with self.assertRaises(RpcError) as raised:
                async for _ in events:
                    count += 1
            self.assertEqual(raised.exception.code, Code.RESOURCE_EXHAUSTED)
            self.assertEqual(count, 7)  # 128 bytes each.

    async def test_the_latest_is_kept_where_only_that_counts(self) -> None:
        options = orvane.Options(max_unread_event_bytes=1000)
        async with self.connected(options) as (client, connection, widget):
            events = client.when_cursor_changed(BROWSER)
            opened = await widget.frame()
            for number in range(1, 101):
                event = CursorChanged(browser_id=BrowserId(value=number))
                await widget.send(
                    kind=StreamMessage.KIND_NEXT,
                    stream_id=opened.stream_id,
                    payload=event.SerializeToString(),
                )
            await self.settle(connection, widget)
            events.close()
            values = [event.browser_id.value async for event in events]
            self.assertEqual(values[-1], 100)
            self.assertLess(len(values), 8)

    async def test_what_the_widget_does_not_read_is_bounded(self) -> None:
        options = orvane.Options(max_queued_bytes=100_000)
        request = KeyTypeRequest(text="x" * 10_000)
        async with self.connected(options) as (client, _, _):
            calls = [
                asyncio.create_task(client.forward_key_type(request)) for _ in range(200)
            ]
            done, _ = await asyncio.wait(
                calls, return_when=asyncio.FIRST_COMPLETED
            )
            error = done.pop().exception()
            assert isinstance(error, RpcError)
            self.assertEqual(error.code, Code.RESOURCE_EXHAUSTED)
            for call in calls:
                call.cancel()
            await asyncio.gather(*calls, return_exceptions=True)

    async def test_a_request_that_is_too_long_is_not_sent(self) -> None:
        options = orvane.Options(max_frame_bytes=1000)
        async with self.connected(options) as (client, connection, widget):
            with self.assertRaises(RpcError) as raised:
                await client.forward_key_type(KeyTypeRequest(text="x" * 1000))
            self.assertEqual(raised.exception.code, Code.RESOURCE_EXHAUSTED)
            await self.settle(connection, widget)

    async def test_a_host_learns_what_the_widget_takes(self) -> None:
        near, far = socket.socketpair()
        far.setblocking(False)
        with far:
            async with asyncio.timeout(20), orvane.connect(sock=near) as connection:
                BrowserWidgetRpcClient(connection)
                self.assertFalse(connection.server_limits.HasField("max_calls"))
                widget = Widget(far)
                frame = await widget.frame()
                hello = Hello.FromString(frame.payload)
                hello.limits.max_calls = 3
                await widget.send(kind=frame.kind, payload=hello.SerializeToString())
                await self.settle(connection, widget)
                self.assertEqual(connection.server_limits.max_calls, 3)
                self.assertFalse(connection.server_limits.HasField("max_streams"))

    async def test_an_iterator_that_nobody_refers_to_ends_its_stream(self) -> None:
        async with self.connected() as (client, _, widget):
            events = client.when_tooltip_changed(BROWSER)
            opened = await widget.frame()
            await widget.frame()
            del events
            gc.collect()
            frame = await widget.frame()
            self.assertEqual(frame.kind, StreamMessage.KIND_COMPLETE)
            self.assertEqual(frame.stream_id, opened.stream_id)

    async def test_an_iterator_may_be_collected_on_another_thread(self) -> None:
        async with self.connected() as (client, _, widget):
            iterators = [client.when_tooltip_changed(BROWSER)]
            await widget.frame()
            await widget.frame()
            await asyncio.to_thread(iterators.clear)
            frame = await widget.frame()
            self.assertEqual(frame.kind, StreamMessage.KIND_COMPLETE)

    async def serve_one(
        self, client: BrowserWidgetRpcClient, widget: Widget, handler: object
    ) -> StreamMessage:
        """What the widget gets for a call that `handler` serves."""
        serving = client.on_take_focus(BROWSER, handler)  # type: ignore[arg-type]
        opened = await widget.frame()
        await widget.frame()
        call = TakeFocus(browser_id=BROWSER, call=TakeFocusCall())
        await widget.send(
            kind=StreamMessage.KIND_NEXT,
            stream_id=opened.stream_id,
            call_id=1,
            payload=call.SerializeToString(),
        )
        answer = await widget.frame()
        serving.close()
        return answer

    async def test_a_handler_that_raises_fails_its_call_and_is_reported(self) -> None:
        reported: list[object] = []
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(
            lambda _, context: reported.append(context["exception"])
        )
        mistake = KeyError("oops")

        async def handler(call: TakeFocusCall) -> TakeFocusResponse:
            raise mistake

        async with self.connected() as (client, _, widget):
            answer = await self.serve_one(client, widget, handler)
            self.assertEqual(answer.kind, StreamMessage.KIND_ERROR)
            self.assertEqual(answer.error_text, b"the handler raised KeyError")
            self.assertEqual(reported, [mistake])

    async def test_a_handler_that_answers_nonsense_fails_its_call(self) -> None:
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(lambda _, context: None)

        async def handler(call: TakeFocusCall) -> str:
            return "yes"

        async with self.connected() as (client, _, widget):
            answer = await self.serve_one(client, widget, handler)
            self.assertEqual(answer.kind, StreamMessage.KIND_ERROR)

    async def test_ending_to_serve_cancels_the_handlers(self) -> None:
        cancelled = asyncio.Event()
        started = asyncio.Event()

        async def handler(call: TakeFocusCall) -> TakeFocusResponse:
            started.set()
            try:
                await asyncio.Event().wait()
            finally:
                cancelled.set()
            return TakeFocusResponse()

        async with self.connected() as (client, _, widget):
            async with client.on_take_focus(BROWSER, handler):
                opened = await widget.frame()
                call = TakeFocus(browser_id=BROWSER, call=TakeFocusCall())
                await widget.send(
                    kind=StreamMessage.KIND_NEXT,
                    stream_id=opened.stream_id,
                    call_id=1,
                    payload=call.SerializeToString(),
                )
                await started.wait()
            await cancelled.wait()
            await widget.frame()
            frame = await widget.frame()
            self.assertEqual(frame.kind, StreamMessage.KIND_COMPLETE)

    async def test_calls_beyond_the_limit_fail(self) -> None:
        async def handler(call: TakeFocusCall) -> TakeFocusResponse:
            await asyncio.Event().wait()
            return TakeFocusResponse()

        options = orvane.Options(max_served_calls=0)
        async with self.connected(options) as (client, _, widget):
            answer = await self.serve_one(client, widget, handler)
            self.assertEqual(answer.kind, StreamMessage.KIND_ERROR)

    async def test_a_connection_is_for_one_service(self) -> None:
        from google.protobuf import descriptor_pb2, descriptor_pool

        file = descriptor_pb2.FileDescriptorProto(name="other.proto")
        file.service.add(name="Other")
        pool = descriptor_pool.DescriptorPool()
        other = pool.AddSerializedFile(file.SerializeToString())
        if other is None:
            other = pool.FindFileByName("other.proto")
        async with self.connected() as (_, connection, _widget):
            with self.assertRaises(RpcError) as raised:
                connection.use(other.services_by_name["Other"])
            self.assertEqual(raised.exception.code, Code.INVALID_ARGUMENT)

    async def test_nobody_listens(self) -> None:
        with self.assertRaises(RpcError) as raised:
            await orvane.connect("/nowhere/widget.sock")
        self.assertEqual(raised.exception.code, Code.UNAVAILABLE)

    async def test_a_server_that_accepts_nobody_is_not_there(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            path = f"{folder}/socket"
            with socket.socket(socket.AF_UNIX) as server, socket.socket(
                socket.AF_UNIX
            ) as other:
                server.bind(path)
                server.listen(0)
                other.connect(path)
                with self.assertRaises(RpcError) as raised:
                    await orvane.connect(path)
                self.assertEqual(raised.exception.code, Code.UNAVAILABLE)

    async def test_what_cannot_be_a_path_is_refused(self) -> None:
        for path in ("", "/tmp/socket\0", "\0socket"):
            with self.assertRaises(RpcError) as raised:
                await orvane.connect(path)
            self.assertEqual(raised.exception.code, Code.INVALID_ARGUMENT)

    def test_no_module_has_a_name_that_others_may_have(self) -> None:
        self.assertNotIn("rpc", sys.modules)


if __name__ == "__main__":
    unittest.main()
