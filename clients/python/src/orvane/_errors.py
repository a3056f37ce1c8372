"""What goes wrong, as exceptions."""

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

    `code` tells programs why, `text` people. UNKNOWN: a handler of the widget
    failed the call. UNAVAILABLE: the connection is gone; connect again, to what
    may be another widget. FAILED_PRECONDITION: the two ends do not fit, which no
    later try will mend.
    """

    def __init__(self, code: Code, text: str) -> None:
        super().__init__(code, text)
        self.code = code
        self.text = text

    def __str__(self) -> str:
        return f"{self.code.name}: {self.text}"


class Fail(Exception):
    """Raised by a handler that serves calls of the widget: fails the call.

    The text is for people who read the frames. The widget's code learns only
    that the call has failed.
    """
