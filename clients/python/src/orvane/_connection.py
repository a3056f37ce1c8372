"""A client's connection to a server."""

from __future__ import annotations

import asyncio
import contextlib
import math
import os
import socket
import struct
from collections.abc import Generator
from dataclasses import dataclass
from typing import Any, TypeVar

from google.protobuf.descriptor import MethodDescriptor, ServiceDescriptor
from google.protobuf.message import EncodeError, Message

from orvane._errors import Code, RpcError
from orvane._streams import EventQueue, Events, Handler, Server, Serving, Stream
from orvane._wire import (
    LEAST_MAX_FRAME_BYTES,
    LENGTH_BYTES,
    MAX_ERROR_TEXT_BYTES,
    UNREADABLE,
    FrameReader,
    check_fit,
    check_type,
    encode,
    error_of,
    hello_of,
    is_stream,
    parse,
)
from orvane.rpc.event_subscription_pb2 import EventSubscription
from orvane.rpc.transport.stream_message_pb2 import Hello, Limits, StreamMessage

MessageT = TypeVar("MessageT", bound=Message)
EventT = TypeVar("EventT", bound=Message)

# Kinds of frames, which are numbers here: looking them up in the class takes time.
_CALL = int(StreamMessage.KIND_CALL)
_REPLY = int(StreamMessage.KIND_REPLY)
_ERROR = int(StreamMessage.KIND_ERROR)
_CANCEL = int(StreamMessage.KIND_CANCEL)
_OPEN = int(StreamMessage.KIND_OPEN)
_NEXT = int(StreamMessage.KIND_NEXT)
_COMPLETE = int(StreamMessage.KIND_COMPLETE)
_HELLO = int(StreamMessage.KIND_HELLO)
_PING = int(StreamMessage.KIND_PING)
_PONG = int(StreamMessage.KIND_PONG)

# What one task of the loop sends leaves together, or as soon as it is so much.
_ENOUGH_TO_WRITE = 8 << 10

# How long closing waits until the server has taken what was sent.
_CLOSE_SECONDS = 2.0


@dataclass(frozen=True)
class Options:
    """Limits of one connection. All are in bytes, except the last one."""

    # The longest frame that is sent or accepted.
    max_frame_bytes: int = 4 << 20
    # Once more bytes wait for the server to read them, calls and answers fail with
    # RESOURCE_EXHAUSTED, until the server has read most of them.
    max_queued_bytes: int = 64 << 20
    # Events of one iterator that have arrived but have not been read; each counts 128
    # bytes more than its message.
    max_unread_event_bytes: int = 16 << 20
    # Calls of the server that one stream's handler may serve at the same time; more
    # calls fail.
    max_served_calls: int = 1024


def default_socket_path(name: str = "widget") -> str:
    """The default path of a server's socket."""
    runtime = os.environ.get("XDG_RUNTIME_DIR")
    folder = f"{runtime}/orvane" if runtime else f"/tmp/orvane-{os.geteuid()}"
    return f"{folder}/{name}.sock"


def connect(
    path: str | None = None,
    *,
    sock: socket.socket | None = None,
    options: Options = Options(),
) -> Connecting:
    """Connects to the server at `path`, by default the browser widget's.

    `sock` is a connected stream socket to use instead, such as one of a
    socketpair; it is closed with the connection. Await the result, or use it in
    `async with`, which closes the connection at its end. RpcError: UNAVAILABLE if
    no server listens there, PERMISSION_DENIED if it belongs to another user,
    INVALID_ARGUMENT if no socket can have that path.
    """
    return Connecting(path, sock, options)


class Connecting:
    """The result of `connect`, to be awaited or used in `async with`."""

    def __init__(
        self, path: str | None, sock: socket.socket | None, options: Options
    ) -> None:
        self._path = path
        self._sock = sock
        self._options = options
        self._connection: Connection | None = None

    def __await__(self) -> Generator[Any, None, Connection]:
        return self._connect().__await__()

    async def __aenter__(self) -> Connection:
        self._connection = await self._connect()
        return self._connection

    async def __aexit__(self, *_: object) -> None:
        assert self._connection is not None
        await self._connection.close()

    async def _connect(self) -> Connection:
        loop = asyncio.get_running_loop()
        connection = Connection(loop, self._options)
        connected = self._sock
        if connected is None:
            path = default_socket_path() if self._path is None else self._path
            connected = _connect_to(path)
        transport, _ = await loop.create_unix_connection(
            lambda: _Protocol(connection), sock=connected
        )
        try:
            _check_peer(transport.get_extra_info("socket"))
        except RpcError:
            transport.abort()
            raise
        return connection


def _connect_to(path: str) -> socket.socket:
    """Never waits: a Unix-domain socket connects at once, or not at all."""
    if not path or "\0" in path:
        raise RpcError(Code.INVALID_ARGUMENT, f"{path!r} is not the path of a socket")
    connecting = socket.socket(socket.AF_UNIX)
    connecting.setblocking(False)
    try:
        connecting.connect(path)
    except OSError as error:
        connecting.close()
        if isinstance(error, BlockingIOError):
            why = "the server has not accepted those who came before"
        else:
            why = error.strerror or str(error)
        code = (
            Code.PERMISSION_DENIED
            if isinstance(error, PermissionError)
            else Code.UNAVAILABLE
        )
        raise RpcError(code, f"{path}: {why}") from error
    return connecting


def _check_peer(connected: socket.socket) -> None:
    """Refuses a server of another user except root. Only Linux tells the user."""
    if not hasattr(socket, "SO_PEERCRED"):
        return
    credentials = connected.getsockopt(
        socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")
    )
    uid = struct.unpack("3i", credentials)[1]
    if uid == -1:
        raise RpcError(Code.UNAVAILABLE, "the socket is not connected")
    if uid not in (0, os.geteuid()):
        raise RpcError(Code.PERMISSION_DENIED, f"user {uid} is at the other end")


class _Protocol(asyncio.Protocol):
    """Passes asyncio's events of the socket on to the connection."""

    def __init__(self, connection: Connection) -> None:
        self._connection = connection

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self._connection._made(transport)

    def data_received(self, data: bytes) -> None:
        self._connection._received(data)

    def pause_writing(self) -> None:
        self._connection._set_full(True)

    def resume_writing(self) -> None:
        self._connection._set_full(False)

    def connection_lost(self, error: Exception | None) -> None:
        self._connection._lost(error)


class Connection:
    """Calls one service at the other end of a Unix-domain socket.

    Calls and messages reach the server in the order in which they are sent; answers
    arrive in any order. When the connection ends, everything in progress ends with
    an RpcError like `error`, and so do later calls and streams. A connection does
    not reconnect, since it might reach a new server process.

    Generated clients call `call`, `watch` and `serve`.
    """

    def __init__(self, loop: asyncio.AbstractEventLoop, options: Options) -> None:
        self.loop = loop
        self.error: RpcError | None = None  # None while the connection exists.
        self._options = options
        self._reader = FrameReader(options.max_frame_bytes)
        self._transport: asyncio.Transport | None = None
        self._service: ServiceDescriptor | None = None
        self._server: Hello | None = None  # Set when its hello arrives.
        self._max_sent_frame_bytes = options.max_frame_bytes
        self._last_id = 0
        self._calls: dict[int, asyncio.Future[bytes]] = {}
        self._streams: dict[int, Stream] = {}
        self._unsent = bytearray()  # Until _flush.
        self._is_full = False  # The server reads too slowly.
        self._gone: asyncio.Future[None] = loop.create_future()

    @property
    def server_limits(self) -> Limits:
        """What the server takes from this client; the proto documents the fields.

        Known from the first answer on, such as that of `settle`. No field is set
        before, nor if the server does not tell. Once it is known, what is longer
        than the server's longest frame fails with RESOURCE_EXHAUSTED. Until then
        it ends the connection.
        """
        return self._server.limits if self._server is not None else Limits()

    async def close(self) -> None:
        """Ends everything in progress with CANCELLED, and the connection."""
        assert self._transport is not None
        self._flush()
        self._transport.close()  # Once what waits has been sent.
        self._end(RpcError(Code.CANCELLED, "the connection was closed"))
        try:
            with contextlib.suppress(TimeoutError):
                await asyncio.wait_for(asyncio.shield(self._gone), _CLOSE_SECONDS)
        finally:
            if not self._gone.done():
                self._transport.abort()

    async def wait_closed(self) -> RpcError:
        """Waits until the connection has ended, and returns why."""
        await asyncio.shield(self._gone)
        assert self.error is not None
        return self.error

    def use(self, service: ServiceDescriptor) -> None:
        """Sends the hello; from now on the connection is for this service."""
        if self._service is service:
            return
        if self._service is not None:
            raise RpcError(
                Code.INVALID_ARGUMENT,
                f"a connection for {self._service.full_name} "
                f"is used for {service.full_name}",
            )
        if self.error is not None:
            raise self.error.again()
        self._service = service
        hello = hello_of(service)
        self._write(encode(_HELLO, 0, payload=hello.SerializeToString()))

    async def call(
        self,
        method: MethodDescriptor,
        request: Message,
        response_type: type[MessageT],
        timeout: float | None = None,
    ) -> MessageT:
        """Calls a unary method. `timeout` is in seconds; None means no timeout.

        So does math.inf. With a timeout of 0 or less the call fails at once with
        DEADLINE_EXCEEDED. If the task that waits is cancelled, the server is told
        that nobody waits. TypeError: the request is not of the method's type.
        """
        check_type(method, request, method.input_type)
        if timeout is not None and math.isnan(timeout):
            raise ValueError("the call's timeout is not a number")
        if timeout is not None and timeout <= 0:
            raise RpcError(Code.DEADLINE_EXCEEDED, "the call's timeout is not above 0")
        stream_id = self._begin(_CALL, method, _serialise(request, "the request"))
        answer: asyncio.Future[bytes] = self.loop.create_future()
        self._calls[stream_id] = answer
        deadline: asyncio.TimerHandle | None = None
        try:
            if timeout is not None and timeout != math.inf:
                deadline = self.loop.call_later(
                    timeout, self._expire, stream_id, timeout
                )
            payload = await answer
        finally:
            if deadline is not None:
                deadline.cancel()
            if self._calls.pop(stream_id, None) is not None:
                self._cancel(stream_id)  # Cancelled, or the loop took no such timeout.
        response = parse(response_type, payload, "the response")
        assert isinstance(response, response_type)
        return response

    def watch(
        self, method: MethodDescriptor, key: Message, event_type: type[EventT]
    ) -> Events[EventT]:
        """Subscribes to the events of `key`, at once."""
        queue = EventQueue(self, method, self._options.max_unread_event_bytes)
        subscription = EventSubscription()
        check_type(method, key, subscription.subscribe.DESCRIPTOR)
        subscription.subscribe.MergeFrom(key)  # type: ignore[arg-type]
        subscription.subscribe.SetInParent()
        self._open(queue, subscription)
        return Events(queue, event_type)

    def serve(
        self,
        method: MethodDescriptor,
        key: Message,
        message_type: type[Message],
        handler: Handler[Any, Any],
    ) -> Serving:
        """Makes this client the one that serves `key`, at once."""
        server = Server(
            self, method, message_type, handler, self._options.max_served_calls
        )
        subscription: Any = message_type()
        check_type(method, key, subscription.browser_id.DESCRIPTOR)
        subscription.browser_id.CopyFrom(key)
        subscription.browser_id.SetInParent()
        subscription.subscribe = True
        self._open(server, subscription)
        return Serving(server)

    async def settle(self) -> None:
        """Returns when the server has handled everything that was sent so far."""
        if self._service is None:
            return
        method = next((m for m in self._service.methods if is_stream(m)), None)
        if method is None:
            raise RpcError(
                Code.UNIMPLEMENTED, f"{self._service.full_name} has no streams"
            )
        barrier = _Barrier(self, method)
        self._open(barrier, None)
        self._write_end_of(barrier)
        await barrier.ended
        if barrier.reason is not None:
            raise barrier.reason.again()

    # For streams ------------------------------------------------------------

    def send_next(self, stream: Stream, message: Message, call_id: int = 0) -> None:
        """Sends a message if the stream is open."""
        if stream.is_open:
            self._send(
                encode(
                    _NEXT,
                    stream.stream_id,
                    call_id=call_id,
                    payload=_serialise(message, "the message"),
                )
            )

    def send_failure(
        self, stream: Stream, message: Message, call_id: int, text: str
    ) -> None:
        """Fails a call of the server."""
        self._write(
            encode(
                _ERROR,
                stream.stream_id,
                call_id=call_id,
                error_code=Code.UNKNOWN,
                error_text=text.encode(errors="backslashreplace")[:MAX_ERROR_TEXT_BYTES],
                payload=message.SerializeToString(),
            )
        )

    def complete(self, stream: Stream) -> None:
        """Removes a stream and tells the server that it has ended."""
        self._streams.pop(stream.stream_id, None)
        self._write_end_of(stream)

    # ------------------------------------------------------------------------

    def _open(self, stream: Stream, subscription: Message | None) -> None:
        stream.stream_id = self._begin(_OPEN, stream.method, b"")
        self._streams[stream.stream_id] = stream
        if subscription is not None:
            try:
                self.send_next(stream, subscription)
            except RpcError:
                stream.close()
                raise

    def _begin(self, kind: int, method: MethodDescriptor, payload: bytes) -> int:
        if self.error is not None:
            raise self.error.again()
        self.use(method.containing_service)
        self._last_id += 1
        self._send(encode(kind, self._last_id, method=method.index, payload=payload))
        return self._last_id

    def _send(self, frame: bytes) -> None:
        """As _write, within the limits."""
        length = len(frame) - LENGTH_BYTES
        if length > self._max_sent_frame_bytes:
            raise RpcError(
                Code.RESOURCE_EXHAUSTED,
                f"frame of {length} bytes; the limit is {self._max_sent_frame_bytes}",
            )
        if self._is_full:
            raise RpcError(
                Code.RESOURCE_EXHAUSTED,
                f"{self._options.max_queued_bytes} bytes wait for the server to read them",
            )
        self._write(frame)

    def _write(self, frame: bytes) -> None:
        if self.error is not None or self.loop.is_closed():
            return
        if not self._unsent:
            self.loop.call_soon(self._flush)
        self._unsent += frame
        if len(self._unsent) >= _ENOUGH_TO_WRITE:
            self._flush()

    def _flush(self) -> None:
        if self._unsent and self._transport is not None:
            unsent, self._unsent = self._unsent, bytearray()
            self._transport.write(unsent)

    def _write_end_of(self, stream: Stream) -> None:
        self._write(encode(_COMPLETE, stream.stream_id))

    def _cancel(self, stream_id: int) -> None:
        self._write(encode(_CANCEL, stream_id))

    def _expire(self, stream_id: int, timeout: float) -> None:
        answer = self._calls.pop(stream_id, None)
        if answer is not None and not answer.done():
            self._cancel(stream_id)
            answer.set_exception(
                RpcError(Code.DEADLINE_EXCEEDED, f"no answer within {timeout:g} s")
            )

    def _made(self, transport: asyncio.Transport) -> None:
        self._transport = transport
        transport.set_write_buffer_limits(self._options.max_queued_bytes)

    def _set_full(self, is_full: bool) -> None:
        self._is_full = is_full

    def _received(self, data: bytes) -> None:
        if self.error is not None:
            return
        try:
            for frame in self._reader.feed(data):
                self._take(frame)
                if self.error is not None:
                    return
        except RpcError as error:
            self._end(error)
            assert self._transport is not None
            self._transport.abort()

    def _lost(self, error: Exception | None) -> None:
        self._end(
            RpcError(
                Code.UNAVAILABLE,
                f"the connection broke: {error}"
                if error
                else "the server closed the connection",
            )
        )
        if not self._gone.done():
            self._gone.set_result(None)

    def _take(self, frame: StreamMessage) -> None:
        """RpcError ends the connection."""
        kind = frame.kind
        stream_id = frame.stream_id
        if kind == _ERROR and stream_id == 0:
            raise RpcError(
                Code.UNAVAILABLE,
                f"the server ended the connection: {error_of(frame).text}",
            )
        if self._service is None:
            raise RpcError(Code.UNAVAILABLE, "the server sent a frame before the client")
        if (kind == _HELLO) != (self._server is None):
            raise RpcError(
                Code.UNAVAILABLE,
                "the server's first frame, and no other, must be a hello",
            )
        if kind == _NEXT:
            stream = self._streams.get(stream_id)
            if stream is not None:  # Else it has ended; this was on its way.
                stream.on_next(frame)
        elif kind == _CANCEL:
            stream = self._streams.get(stream_id)
            if stream is not None:
                stream.on_cancel(frame.call_id)
        elif kind == _REPLY or (kind == _ERROR and stream_id in self._calls):
            answer = self._calls.pop(stream_id, None)
            if answer is None or answer.done():
                return  # Cancelled; the answer was on its way.
            if kind == _ERROR:
                answer.set_exception(error_of(frame))
            else:
                answer.set_result(frame.payload)
        elif kind == _ERROR or kind == _COMPLETE:
            stream = self._streams.pop(stream_id, None)
            if stream is not None:
                stream.end(error_of(frame) if kind == _ERROR else None)
        elif kind == _HELLO:
            self._meet(frame)
        elif kind == _PING:
            # What the server has not read yet says as much.
            assert self._transport is not None
            if self._transport.get_write_buffer_size() == 0:
                self._write(encode(_PONG, 0))
        elif kind != _PONG:
            raise RpcError(
                Code.UNAVAILABLE, f"the server sent a frame of kind {kind}"
            )

    def _meet(self, frame: StreamMessage) -> None:
        assert self._service is not None
        try:
            self._server = Hello.FromString(frame.payload)
        except UNREADABLE:
            raise RpcError(
                Code.UNAVAILABLE, "the server's hello cannot be parsed"
            ) from None
        check_fit(hello_of(self._service), self._server)
        limits = self._server.limits
        if limits.HasField("max_frame_bytes"):
            self._max_sent_frame_bytes = min(
                self._options.max_frame_bytes,
                max(limits.max_frame_bytes, LEAST_MAX_FRAME_BYTES),
            )

    def _end(self, error: RpcError) -> None:
        if self.error is not None:
            return
        self.error = error
        calls, self._calls = self._calls, {}
        streams, self._streams = self._streams, {}
        for answer in calls.values():
            if not answer.done():
                answer.set_exception(error)
        for stream in streams.values():
            stream.end(error)


class _Barrier(Stream):
    """A stream that is opened only to learn when it has ended."""

    def __init__(self, connection: Connection, method: MethodDescriptor) -> None:
        super().__init__(connection, method)
        self.ended: asyncio.Future[None] = connection.loop.create_future()

    def on_next(self, frame: StreamMessage) -> None:
        pass

    def on_end(self) -> None:
        if not self.ended.done():
            self.ended.set_result(None)


def _serialise(message: Message, what: str) -> bytes:
    try:
        return message.SerializeToString()
    except EncodeError as error:
        raise RpcError(
            Code.INVALID_ARGUMENT, f"{what} lacks required fields: {error}"
        ) from error
