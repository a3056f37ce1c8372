"""Programs that tests talk to."""

import os
import subprocess
import tempfile
from types import TracebackType


class WidgetServer:
    """A widget server of its own, with a fresh model. Entered, it is its socket."""

    def __enter__(self) -> str:
        self._folder = tempfile.TemporaryDirectory(prefix="orvane-")
        socket = os.path.join(self._folder.name, "widget.sock")
        self._process = subprocess.Popen(
            [os.environ["ORVANE_WIDGET_SERVER"], "--socket", socket],
            stdout=subprocess.PIPE,
        )
        assert self._process.stdout is not None
        self._process.stdout.readline()  # It listens.
        return socket

    def __exit__(
        self,
        _kind: type[BaseException] | None,
        _error: BaseException | None,
        _trace: TracebackType | None,
    ) -> None:
        self._process.terminate()
        self._process.communicate()
        self._folder.cleanup()
