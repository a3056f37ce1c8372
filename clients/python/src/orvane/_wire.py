"""Frames, their bytes, and the hello of each end."""

import struct
from collections.abc import Iterator
from functools import cache

from google.protobuf.descriptor import Descriptor, MethodDescriptor, ServiceDescriptor
from google.protobuf.message import DecodeError, Message

from orvane._errors import Code, RpcError
from orvane.rpc.transport.stream_message_pb2 import Hello, StreamMessage

OLDEST_PROTOCOL = 1
NEWEST_PROTOCOL = 2
# Every server takes frames of this length.
LEAST_MAX_FRAME_BYTES = 4 << 10
# What is sent of an error's text: enough for people, and it fits every frame.
MAX_ERROR_TEXT_BYTES = 2048
LENGTH_BYTES = 4
_LENGTH = struct.Struct("<I")

# What protobuf's implementations raise for bytes that they cannot parse.
UNREADABLE = (DecodeError, RecursionError, ValueError)


def _varint(number: int) -> bytes:
    if number < 0x80:
        return bytes((number,))
    result = bytearray()
    while number >= 0x80:
        result.append(number & 0x7F | 0x80)
        number >>= 7
    result.append(number)
    return bytes(result)


def encode(
    kind: int,
    stream_id: int,
    *,
    method: int = 0,
    call_id: int = 0,
    error_code: int = 0,
    error_text: bytes = b"",
    payload: bytes = b"",
) -> bytes:
    """A serialised StreamMessage behind its length.

    By hand, since a message object takes several times as long.
    """
    content = b"\x08" + _varint(kind)
    if stream_id:
        content += b"\x10" + _varint(stream_id)
    if method:
        content += b"\x18" + _varint(method)
    if call_id:
        content += b"\x20" + _varint(call_id & 0xFFFFFFFFFFFFFFFF)
    if error_code:
        content += b"\x28" + _varint(error_code)
    if error_text:
        content += b"\x32" + _varint(len(error_text)) + error_text
    if payload:
        content += b"\x7a" + _varint(len(payload)) + payload
    return len(content).to_bytes(LENGTH_BYTES, "little") + content


class FrameReader:
    """Finds the frames in the received bytes, however these are split."""

    def __init__(self, max_frame_bytes: int) -> None:
        self._max_frame_bytes = max_frame_bytes
        self._begun = bytearray()  # A frame that is not whole yet.

    def feed(self, data: bytes) -> Iterator[StreamMessage]:
        """Yields what is complete now. RpcError: the rest cannot be understood."""
        received: bytes | bytearray = data
        if self._begun:
            received = self._begun
            received += data
        begin = 0
        try:
            while len(received) - begin >= LENGTH_BYTES:
                (length,) = _LENGTH.unpack_from(received, begin)
                if length > self._max_frame_bytes:
                    raise RpcError(
                        Code.UNAVAILABLE,
                        f"the connection broke: frame of {length} bytes; "
                        f"the limit is {self._max_frame_bytes}",
                    )
                content = begin + LENGTH_BYTES
                if len(received) - content < length:
                    break
                begin = content + length
                try:
                    frame = StreamMessage.FromString(bytes(received[content:begin]))
                except UNREADABLE:
                    raise RpcError(
                        Code.UNAVAILABLE,
                        "the connection broke: a frame cannot be parsed",
                    ) from None
                yield frame
        finally:
            if received is data:
                self._begun += data[begin:]
            else:
                del self._begun[:begin]


def _line(method: MethodDescriptor) -> str:
    stream = "stream " if is_stream(method) else ""
    return (
        f"{method.name}({stream}{method.input_type.full_name})"
        f" returns ({stream}{method.output_type.full_name})\n"
    )


def is_stream(method: MethodDescriptor) -> bool:
    """Whether a method is a stream, which it is in both directions or in neither.

    Read from the proto, since descriptors of older protobufs do not have it.
    """
    return _streams(method.containing_service)[method.index]


@cache
def _streams(service: ServiceDescriptor) -> list[bool]:
    from google.protobuf.descriptor_pb2 import ServiceDescriptorProto

    proto = ServiceDescriptorProto()
    service.CopyToProto(proto)
    return [method.client_streaming for method in proto.method]


@cache
def hello_of(service: ServiceDescriptor) -> Hello:
    """What an end tells about itself."""
    hello = Hello(
        oldest_protocol=OLDEST_PROTOCOL,
        newest_protocol=NEWEST_PROTOCOL,
        service=service.full_name,
    )
    digest = 0xCBF29CE484222325  # 64-bit FNV-1a.
    for method in service.methods:
        for byte in _line(method).encode():
            digest = (digest ^ byte) * 0x100000001B3 & 0xFFFFFFFFFFFFFFFF
        hello.methods.append(digest)
    return hello


def _in_words(hello: Hello) -> str:
    text = (
        f"protocols {hello.oldest_protocol} to {hello.newest_protocol}"
        f" and {hello.service} with {len(hello.methods)} methods"
    )
    return text + (f" ({hello.methods[-1]:016x})" if hello.methods else "")


def check_fit(client: Hello, server: Hello) -> None:
    """RpcError if the two ends cannot work together."""
    difference = _difference(client, server)
    if difference:
        raise RpcError(
            Code.FAILED_PRECONDITION,
            f"client and server are incompatible: they differ in {difference}; "
            f"the client speaks {_in_words(client)}, the server {_in_words(server)}",
        )


def _difference(client: Hello, server: Hello) -> str | None:
    spoken = min(client.newest_protocol, server.newest_protocol)
    if spoken < max(client.oldest_protocol, server.oldest_protocol):
        return "protocol"
    if client.service != server.service:
        return "service"
    for index, (ours, theirs) in enumerate(zip(client.methods, server.methods)):
        if ours != theirs:
            return f"method {index}"
    return None


def error_of(frame: StreamMessage) -> RpcError:
    """The error that an ERROR frame describes. Its text need not be UTF-8."""
    text = frame.error_text.decode(errors="backslashreplace")
    return RpcError(Code(frame.error_code), text)


def check_type(method: MethodDescriptor, given: object, expected: Descriptor) -> None:
    """TypeError if a method is given something else than such a message."""
    name = given.DESCRIPTOR.full_name if isinstance(given, Message) else type(given).__name__
    if not isinstance(given, Message) or name != expected.full_name:
        raise TypeError(f"{method.name} takes {expected.full_name}, not {name}")


def parse(message_type: type[Message], payload: bytes, what: str) -> Message:
    """RpcError, code INTERNAL, if the payload cannot be parsed as that message."""
    try:
        return message_type.FromString(payload)
    except UNREADABLE:
        raise RpcError(
            Code.INTERNAL,
            f"{what} cannot be parsed as {message_type.DESCRIPTOR.full_name}",
        ) from None
