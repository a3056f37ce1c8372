"""Frames, their bytes, and the hello of each end."""

from collections.abc import Iterator
from functools import cache

from google.protobuf.descriptor import MethodDescriptor, ServiceDescriptor
from google.protobuf.message import DecodeError, Message

from orvane._errors import Code, RpcError
from orvane.rpc.transport.stream_message_pb2 import Hello, StreamMessage

PROTOCOL = 1
_LENGTH_BYTES = 4

# What protobuf's implementations raise for bytes that they cannot parse.
UNREADABLE = (DecodeError, RecursionError, ValueError)


def encode(frame: StreamMessage) -> bytes:
    """The bytes of a frame, with its length in front."""
    content = frame.SerializeToString()
    return len(content).to_bytes(_LENGTH_BYTES, "little") + content


class FrameReader:
    """Finds the frames in the received bytes, however these are split."""

    def __init__(self, max_frame_bytes: int) -> None:
        self._max_frame_bytes = max_frame_bytes
        self._received = bytearray()

    def feed(self, data: bytes) -> Iterator[StreamMessage]:
        """Yields the complete frames. RpcError: the rest cannot be parsed."""
        received = self._received
        received += data
        begin = 0
        try:
            while len(received) - begin >= _LENGTH_BYTES:
                content = begin + _LENGTH_BYTES
                length = int.from_bytes(received[begin:content], "little")
                if length > self._max_frame_bytes:
                    raise RpcError(
                        Code.UNAVAILABLE,
                        f"the connection broke: frame of {length} bytes; "
                        f"the limit is {self._max_frame_bytes}",
                    )
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
            del received[:begin]


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
        oldest_protocol=PROTOCOL, newest_protocol=PROTOCOL, service=service.full_name
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


def check_fit(host: Hello, widget: Hello) -> None:
    """RpcError if the two ends cannot work together."""
    difference = _difference(host, widget)
    if difference:
        raise RpcError(
            Code.FAILED_PRECONDITION,
            f"client and server are incompatible: they differ in {difference}; "
            f"the client speaks {_in_words(host)}, the server {_in_words(widget)}",
        )


def _difference(host: Hello, widget: Hello) -> str | None:
    spoken = min(host.newest_protocol, widget.newest_protocol)
    if spoken < max(host.oldest_protocol, widget.oldest_protocol):
        return "protocol"
    if host.service != widget.service:
        return "service"
    for index, (ours, theirs) in enumerate(zip(host.methods, widget.methods)):
        if ours != theirs:
            return f"method {index}"
    return None


def error_of(frame: StreamMessage) -> RpcError:
    """The error that an ERROR frame describes. Its text need not be UTF-8."""
    text = frame.error_text.decode(errors="backslashreplace")
    return RpcError(Code(frame.error_code), text)


def parse(message_type: type[Message], payload: bytes, what: str) -> Message:
    """RpcError, code INTERNAL, if the payload cannot be parsed as that message."""
    try:
        return message_type.FromString(payload)
    except UNREADABLE:
        raise RpcError(
            Code.INTERNAL,
            f"{what} cannot be parsed as {message_type.DESCRIPTOR.full_name}",
        ) from None
