"""Clients of orvane services: the browser widget, or services of your own.

    async with orvane.connect(path) as connection:
        widget = BrowserWidgetRpcClient(connection)
        await widget.show(BrowserId(value=7), timeout=5)

Everything belongs to the asyncio loop in which the connection was made and is
used from its thread alone.
"""

from orvane._connection import Connection, Options, connect, default_socket_path
from orvane._errors import Code, Fail, RpcError
from orvane._streams import Events, Handler, Serving

__all__ = [
    "Code",
    "Connection",
    "Events",
    "Fail",
    "Handler",
    "Options",
    "RpcError",
    "Serving",
    "connect",
    "default_socket_path",
]
