from typing import Any, TypeVar

from google.protobuf.message import Message

_M = TypeVar("_M", bound=Message)

def MessageToDict(message: Message) -> Any: ...
def Parse(text: str, message: _M) -> _M: ...
