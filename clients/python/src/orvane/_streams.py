"""The client's side of streams."""

from __future__ import annotations

import asyncio
from collections import deque
from collections.abc import AsyncIterator, Awaitable, Callable
from types import TracebackType
from typing import TYPE_CHECKING, Any, Generic, TypeVar

from google.protobuf.descriptor import MethodDescriptor
from google.protobuf.message import Message

from orvane._errors import Code, Fail, RpcError
from orvane._wire import parse
from orvane.rpc.stream_options_pb2 import SLOW_HOST_KEEP_LATEST, slow_host
from orvane.rpc.transport.stream_message_pb2 import StreamMessage

if TYPE_CHECKING:
    from orvane._connection import Connection

EventT = TypeVar("EventT", bound=Message, covariant=True)
CallT = TypeVar("CallT", bound=Message)
ResponseT = TypeVar("ResponseT", bound=Message)

# Serves a call of the server. May raise Fail. Is cancelled when the server does not
# wait for the answer any longer.
Handler = Callable[[CallT], Awaitable[ResponseT]]

# About how many bytes an unread event takes in addition to its payload.
_EVENT_OVERHEAD_BYTES = 128

# Events that a reader gets before other tasks have their turn.
_MOST_AT_ONCE = 100


class Stream:
    """An open stream, as its connection sees it."""

    def __init__(self, connection: Connection, method: MethodDescriptor) -> None:
        self.connection = connection
        self.method = method
        self.stream_id = 0  # Given by the connection.
        self.is_open = True
        self.reason: RpcError | None = None  # Set if it ended with an error.

    def on_next(self, frame: StreamMessage) -> None:
        raise NotImplementedError

    def on_cancel(self, call_id: int) -> None:
        """The server does not wait for the answer to a call any longer."""

    def on_end(self) -> None:
        raise NotImplementedError

    def end(self, reason: RpcError | None) -> None:
        """The stream has ended at the other end."""
        if self.is_open:
            self.is_open = False
            self.reason = reason
            self.on_end()

    def close(self, reason: RpcError | None = None) -> None:
        """Ends it and tells the server. Does nothing if it has ended before."""
        if self.is_open:
            self.connection.complete(self)
            self.end(reason)

    def close_soon(self) -> None:
        """Like close, from any thread."""
        loop = self.connection.loop
        if self.is_open and not loop.is_closed():
            loop.call_soon_threadsafe(self.close)


class EventQueue(Stream):
    """Events that have arrived but have not been read yet."""

    def __init__(
        self, connection: Connection, method: MethodDescriptor, max_bytes: int
    ) -> None:
        super().__init__(connection, method)
        options = method.GetOptions()
        self._keeps_latest = (
            options.Extensions[slow_host] == SLOW_HOST_KEEP_LATEST  # type: ignore[index]
        )
        self._max_bytes = max_bytes
        self._bytes = 0
        self._payloads: deque[bytes] = deque()
        self._reader: asyncio.Future[None] | None = None

    def on_next(self, frame: StreamMessage) -> None:
        self._payloads.append(frame.payload)
        self._bytes += len(frame.payload) + _EVENT_OVERHEAD_BYTES
        if self._bytes > self._max_bytes and self._keeps_latest:
            self.take()
        elif self._bytes > self._max_bytes:
            self._payloads.pop()
            self.close(
                RpcError(
                    Code.RESOURCE_EXHAUSTED,
                    f"more events of {self.method.name} came than were read; "
                    f"the limit is {self._max_bytes} bytes",
                )
            )
        self._wake()

    def on_end(self) -> None:
        self._wake()

    def _wake(self) -> None:
        if self._reader is not None and not self._reader.done():
            self._reader.set_result(None)

    def take(self) -> bytes | None:
        """The oldest event, if there is one."""
        if not self._payloads:
            return None
        payload = self._payloads.popleft()
        self._bytes -= len(payload) + _EVENT_OVERHEAD_BYTES
        return payload

    async def wait(self) -> None:
        """Returns when an event has arrived or the stream has ended."""
        if self._reader is not None:
            raise RuntimeError(f"two tasks read the events of {self.method.name}")
        self._reader = asyncio.get_running_loop().create_future()
        try:
            await self._reader
        finally:
            self._reader = None


class Events(AsyncIterator[EventT], Generic[EventT]):
    """The events of one key, beginning with the call that returned this.

    Ends when the server completes the stream. If the stream ends in another way,
    also because too many events were not read (Options.max_unread_event_bytes), it
    first returns the events that arrived before and then raises RpcError. For a
    method with SLOW_HOST_KEEP_LATEST the oldest event is dropped instead.

    One task reads. While it waits, RuntimeError is raised in another one that
    finds no event either.

    The stream is open until `close`, the end of `async with`, or until nothing
    refers to this object any longer.
    """

    def __init__(self, queue: EventQueue, event_type: type[EventT]) -> None:
        self._queue = queue
        self._event_type = event_type
        self._at_once = 0  # Events that were returned without waiting.

    def close(self) -> None:
        """Ends the stream, if it is open. Unread events can still be read."""
        self._queue.close()

    def __del__(self) -> None:
        # On whichever thread the garbage is collected.
        self._queue.close_soon()

    async def __anext__(self) -> EventT:
        queue = self._queue
        self._at_once += 1
        if self._at_once > _MOST_AT_ONCE:  # Others have their turn.
            self._at_once = 0
            await asyncio.sleep(0)
        while (payload := queue.take()) is None:
            if queue.reason is not None:
                raise queue.reason.again()
            if not queue.is_open:
                raise StopAsyncIteration
            await queue.wait()
            self._at_once = 0
        try:
            event = parse(self._event_type, payload, "an event")
        except RpcError as error:
            queue.close(error)
            raise
        assert isinstance(event, self._event_type)
        return event

    async def __aenter__(self) -> Events[EventT]:
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()


class Server(Stream):
    """Answers the calls of one key."""

    def __init__(
        self,
        connection: Connection,
        method: MethodDescriptor,
        message_type: type[Message],
        handler: Handler[Any, Any],
        max_calls: int,
    ) -> None:
        super().__init__(connection, method)
        self._message_type: Any = message_type
        self._handler = handler
        self._max_calls = max_calls
        self._tasks: dict[int, asyncio.Task[None]] = {}  # By the id of the call.
        self._given_up: set[int] = set()  # Of those, by the server.
        self.ended: asyncio.Future[None] = connection.loop.create_future()

    def on_next(self, frame: StreamMessage) -> None:
        try:
            message: Any = parse(self._message_type, frame.payload, "a call")
        except RpcError as error:
            self.close(error)
            return
        if not message.HasField("call"):
            self.close(
                RpcError(Code.INTERNAL, "the server sent a message without a call")
            )
        elif frame.call_id in self._tasks:
            self.close(
                RpcError(
                    Code.INTERNAL,
                    f"the server sent call {frame.call_id} again before it was answered",
                )
            )
        elif len(self._tasks) >= self._max_calls:
            self._fail(
                message,
                frame.call_id,
                f"the client serves {len(self._tasks)} calls already",
            )
        else:
            call_id = frame.call_id
            task = self.connection.loop.create_task(self._serve(message, call_id))
            self._tasks[call_id] = task
            task.add_done_callback(lambda _: self._forget(call_id))

    def _forget(self, call_id: int) -> None:
        del self._tasks[call_id]
        self._given_up.discard(call_id)

    def on_cancel(self, call_id: int) -> None:
        if call_id in self._tasks:
            self._given_up.add(call_id)
            self._tasks[call_id].cancel()

    def on_end(self) -> None:
        for task in self._tasks.values():
            task.cancel()
        if not self.ended.done():
            self.ended.set_result(None)

    async def _serve(self, message: Any, call_id: int) -> None:
        answer = self._message_type()
        answer.browser_id.CopyFrom(message.browser_id)
        try:
            response = await self._handler(message.call)
            answer.response.CopyFrom(response)
            answer.response.SetInParent()
            if call_id not in self._given_up:
                self.connection.send_next(self, answer, call_id)
        except Fail as failure:
            self._fail(message, call_id, str(failure))
        except RpcError as error:  # Too long to be sent, or a call that failed.
            self._fail(message, call_id, str(error))
        except asyncio.CancelledError:
            self._fail(message, call_id, "the handler was cancelled")
            raise
        except Exception as error:  # A bug in the handler, which its author must see.
            self._fail(message, call_id, f"the handler raised {type(error).__name__}")
            self.connection.loop.call_exception_handler(
                {
                    "message": f"the handler of {self.method.name} raised",
                    "exception": error,
                }
            )

    def _fail(self, message: Any, call_id: int, text: str) -> None:
        if not self.is_open or call_id in self._given_up:
            return
        answer = self._message_type()
        answer.browser_id.CopyFrom(message.browser_id)
        self.connection.send_failure(self, answer, call_id, text)


class Serving:
    """Serves the calls of a key until `close` or the end of `async with`.

    Then the handlers that still run are cancelled. The end of `async with` raises
    RpcError if the stream has failed before, for example because the server is gone.
    """

    def __init__(self, server: Server) -> None:
        self._server = server

    def close(self) -> None:
        """Stops serving. Does nothing if the stream has ended before."""
        self._server.close()

    async def wait_ended(self) -> None:
        """Returns when the stream has ended; raises RpcError if it failed."""
        await asyncio.shield(self._server.ended)
        if self._server.reason is not None:
            raise self._server.reason.again()

    async def __aenter__(self) -> Serving:
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        _error: BaseException | None,
        _trace: TracebackType | None,
    ) -> None:
        self.close()
        if kind is None and self._server.reason is not None:
            raise self._server.reason.again()
