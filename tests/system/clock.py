"""The clock of a daemon under test, which stands until it is moved."""

import mmap
import struct
import tempfile
import time

import programs

from lab.daemon import Daemon


class Clock:
    """A context manager. What is due by a new time happens soon after, but not at once: wait for it."""

    def __init__(self):
        self._file = tempfile.NamedTemporaryFile()
        self._file.truncate(mmap.PAGESIZE)
        self._page = mmap.mmap(self._file.fileno(), mmap.PAGESIZE)
        self._set(time.monotonic_ns())

    def __enter__(self) -> "Clock":
        return self

    def __exit__(self, *_exception) -> None:
        self._page.close()
        self._file.close()

    @property
    def environment(self) -> dict[str, str]:
        """Of a daemon that goes by it."""
        return programs.with_clock(self._file.name)

    def advance(self, daemon: Daemon, seconds: float) -> None:
        """Moves it ahead once the daemon has served, at the time until then, all that has arrived."""
        daemon.settle()
        self._set(self._now + int(seconds * 1e9))

    def _set(self, now: int) -> None:
        self._now = now
        struct.pack_into("@q", self._page, 0, now)
