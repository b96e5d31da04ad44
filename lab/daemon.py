"""The daemon's process, as shipped, in the router's network namespace.

The binary is that of the release preset unless the environment variable DNSPROXYD names another.
Its standard output and error go to one file, which `output` reads.
"""

import os
import re
import subprocess
import tempfile
from pathlib import Path
from signal import SIGCONT, SIGTERM
from typing import NamedTuple

from lab import wait

TOP = Path(__file__).resolve().parent.parent


def binary() -> str:
    """Path of the daemon that the lab starts."""
    return os.environ.get("DNSPROXYD") or str(TOP / "build/release/src/dnsproxyd")


class UdpSocket(NamedTuple):
    """A UDP socket that is bound or has sent something."""

    port: int
    unread: int  # bytes that wait in it, with the kernel's overhead
    dropped: int  # datagrams that it had no room for


def udp_sockets(pid: int, family: int) -> list[UdpSocket]:
    """The UDP sockets that a process holds, in its own network namespace."""
    held = set(_descriptors(pid).values())
    found = []
    table = "udp" if family == 4 else "udp6"
    with open(f"/proc/{pid}/net/{table}", encoding="ascii") as file:
        for line in file.readlines()[1:]:
            fields = line.split()
            if f"socket:[{fields[9]}]" in held:
                port = int(fields[1].rpartition(":")[2], 16)
                unread = int(fields[4].rpartition(":")[2], 16)
                found.append(UdpSocket(port, unread, int(fields[12])))
    return found


def owns_udp_port(pid: int, port: int, family: int) -> bool:
    """Whether a process holds a UDP socket bound to this port, in its own network namespace."""
    try:
        return any(sock.port == port for sock in udp_sockets(pid, family))
    except (FileNotFoundError, ProcessLookupError):
        return False  # it has ended


def _descriptors(pid: int) -> dict[int, str]:
    found = {}
    for entry in os.scandir(f"/proc/{pid}/fd"):
        try:
            found[int(entry.name)] = os.readlink(entry.path)
        except FileNotFoundError:
            pass  # closed while we looked
    return found


class Daemon:
    """Starts the daemon; a context manager that ends it.

    `serving` waits until it owns port 53 in both families, the only proof that it serves: start it
    without for a daemon that is not meant to come up.
    """

    def __init__(
        self,
        path: str | None = None,
        *,
        serving: bool = True,
        environment: dict[str, str] | None = None,
        stdout=None,
    ):
        self._file = None
        if stdout is None:
            self._file = tempfile.NamedTemporaryFile(prefix="dnsproxyd.", suffix=".out")
            stdout = self._file
        self.process = subprocess.Popen(
            [path or binary()],
            stdin=subprocess.DEVNULL,
            stdout=stdout,
            stderr=subprocess.STDOUT,
            env=os.environ | (environment or {}),
        )
        if serving:
            try:
                self.wait_serving()
            except BaseException:
                self.stop()
                raise

    def __enter__(self) -> "Daemon":
        return self

    def __exit__(self, *_exception) -> None:
        self.stop()
        if self._file is not None:
            self._file.close()

    @property
    def pid(self) -> int:
        return self.process.pid

    def wait_serving(self, timeout: float = wait.PATIENCE) -> None:
        """Returns once it owns port 53 in both families; raises with its output if it ends."""

        def up() -> bool:
            if not self.alive():
                status = self.process.returncode
                raise RuntimeError(f"the daemon ended with status {status}; it said:\n{self.output()}")
            return all(owns_udp_port(self.pid, 53, family) for family in (4, 6))

        wait.until(up, "the daemon to own port 53", timeout)

    def alive(self) -> bool:
        return self.process.poll() is None

    def signal(self, number: int) -> None:
        self.process.send_signal(number)

    def stop(self, number: int = SIGTERM, timeout: float = wait.PATIENCE) -> int:
        """Sends a signal and returns how the process ended: its exit status, or minus the signal.

        A process that does not end in time is killed, and that raises.
        """
        if self.alive():
            self.process.send_signal(number)
            self.process.send_signal(SIGCONT)
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise

    def settle(self, timeout: float = wait.PATIENCE) -> None:
        """Returns once all that arrived is served: nothing to read, every thread waits."""

        def settled() -> bool:
            unread = sum(sock.unread for family in (4, 6) for sock in self.udp_sockets(family))
            return unread == 0 and self._sleeps()

        wait.until(settled, "the daemon to serve what has arrived", timeout)

    def _sleeps(self) -> bool:
        try:
            stats = [
                Path(task.path, "stat").read_text(encoding="utf-8") for task in os.scandir(f"/proc/{self.pid}/task")
            ]
        except (FileNotFoundError, ProcessLookupError):  # a thread that has just ended
            return False
        return all(stat.rpartition(")")[2].split()[0] == "S" for stat in stats)

    def output(self) -> str:
        """Everything that it has written so far."""
        if self._file is None:
            return ""
        return Path(self._file.name).read_text(encoding="utf-8", errors="replace")

    def cpu_ns(self) -> int:
        """Processor time of all its threads so far, in nanoseconds."""
        total = 0
        for task in os.scandir(f"/proc/{self.pid}/task"):
            total += int(Path(task.path, "schedstat").read_text(encoding="ascii").split()[0])
        return total

    def rss_kib(self) -> int:
        """Resident memory in KiB."""
        status = Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"^VmRSS:\s+(\d+) kB$", status, re.MULTILINE)[1])

    def fds(self) -> dict[int, str]:
        """Its open descriptors, each with what it leads to."""
        return _descriptors(self.pid)

    def dropped(self) -> int:
        """Datagrams that its sockets had no room for: the load, not the daemon, lost them."""
        return sum(sock.dropped for family in (4, 6) for sock in self.udp_sockets(family))

    def udp_sockets(self, family: int) -> list[UdpSocket]:
        """Its UDP sockets: the listen socket and the upstream sockets that are open."""
        return udp_sockets(self.pid, family)

    def threads(self) -> int:
        """The number of its threads."""
        return len(os.listdir(f"/proc/{self.pid}/task"))
