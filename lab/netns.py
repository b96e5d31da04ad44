"""Work in another network namespace.

A socket belongs for ever to the network namespace in which it was made, and a process starts in
that of the thread that starts it. So it is enough to visit a namespace for a moment.
"""

import contextlib
import ctypes
import os
import subprocess
from collections.abc import Iterable, Iterator

_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def _setns(fd: int) -> None:
    if _libc.setns(fd, _CLONE_NEWNET) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


@contextlib.contextmanager
def inside(name: str | None) -> Iterator[None]:
    """The calling thread works in the network namespace `name`; None is where it is already.

    Other threads are not moved, so keep the visit to what needs it: make sockets, start a process.
    """
    if name is None:
        yield
        return
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
    try:
        there = os.open(f"/run/netns/{name}", os.O_RDONLY | os.O_CLOEXEC)
        try:
            _setns(there)
        finally:
            os.close(there)
        try:
            yield
        finally:
            _setns(home)
    finally:
        os.close(home)


def run(name: str | None, argv: list[str], **options) -> subprocess.CompletedProcess:
    """`subprocess.run` in a network namespace, with its output captured as text."""
    with inside(name):
        return subprocess.run(argv, capture_output=True, text=True, check=False, **options)


def ip_batch(lines: Iterable[str], name: str | None = None) -> None:
    """Runs `ip` commands, without the word `ip`, in one process; the first that fails raises."""
    text = "\n".join(lines) + "\n"
    result = run(name, ["ip", "-batch", "-"], input=text)
    if result.returncode != 0:
        raise RuntimeError(f"ip: {result.stderr.strip()}\nin:\n{text}")


def set_sysctls(values: dict[str, int], name: str | None = None) -> None:
    """Sets kernel parameters of a network namespace, given as paths below /proc/sys/net."""
    with inside(name):
        for path, value in values.items():
            # thread-self, since the plain path shows the namespace of the process's first thread.
            with open(f"/proc/sys/net/{path}", "w", encoding="ascii") as file:
                file.write(str(value))
