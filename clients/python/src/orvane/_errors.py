"""The exceptions of this package."""

import enum


class Code(enum.IntEnum):
    """The canonical status codes."""

    CANCELLED = 1
    UNKNOWN = 2
    INVALID_ARGUMENT = 3
    DEADLINE_EXCEEDED = 4
    NOT_FOUND = 5
    ALREADY_EXISTS = 6
    PERMISSION_DENIED = 7
    RESOURCE_EXHAUSTED = 8
    FAILED_PRECONDITION = 9
    ABORTED = 10
    OUT_OF_RANGE = 11
    UNIMPLEMENTED = 12
    INTERNAL = 13
    UNAVAILABLE = 14
    DATA_LOSS = 15
    UNAUTHENTICATED = 16

    @classmethod
    def _missing_(cls, value: object) -> "Code":
        return cls.UNKNOWN


class RpcError(Exception):
    """A call, a stream or a connection has failed.

    `code` is for programs, `text` for people. UNKNOWN: a handler of the server
    failed the call. UNAVAILABLE: the connection is gone; connect again, perhaps to
    a new server process. FAILED_PRECONDITION: the two ends are incompatible, and
    trying again does not help.
    """

    def __init__(self, code: Code, text: str) -> None:
        super().__init__(code, text)
        self.code = code
        self.text = text

    def __str__(self) -> str:
        return f"{self.code.name}: {self.text}"

    def again(self) -> "RpcError":
        """A new one to raise. Python adds to an exception where it is raised, each
        time, and keeps all that was there.
        """
        return RpcError(self.code, self.text)


class Fail(Exception):
    """Raised by a handler that serves calls of the server: fails the call.

    The text is for people who read the frames. The server's code learns only
    that the call has failed.
    """
