"""A real DNS server behind a line.

One dnsmasq serves one server's IPv4 and IPv6 address and knows the names of the demo; what it
answers says which server it is. It logs every query that it gets.
"""

import re
import signal
import subprocess
from pathlib import Path

from lab import netns, plan, wait
from lab.daemon import owns_udp_port

NAME = "where.test"


class Dnsmasq:
    """Serves from entry or construction until it is stopped."""

    def __init__(self, line: int, slot: int, *, port: int = 53):
        self.line = plan.LINES[line]
        self.server4 = self.line.servers4[slot]
        self.server6 = self.line.servers6[slot]
        self._port = port
        folder = Path(f"/tmp/dnsmasq{line}{slot}")
        folder.mkdir(exist_ok=True)
        config = folder / "conf"
        config.write_text(self._config(), encoding="ascii")
        self._log = folder / "log"
        with netns.inside(self.line.netns), open(self._log, "wb") as log:
            self.process = subprocess.Popen(
                ["/usr/sbin/dnsmasq", "--keep-in-foreground", f"--conf-file={config}"],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=subprocess.STDOUT,
            )
        try:
            wait.until(self._serving, f"dnsmasq of {self.server4.label}")
        except BaseException:
            self.stop()
            raise

    def __enter__(self) -> "Dnsmasq":
        return self

    def __exit__(self, *_exception) -> None:
        self.stop()

    def _config(self) -> str:
        return "\n".join(
            (
                f"listen-address={self.server4.address},{self.server6.address}",
                f"port={self._port}",
                "bind-interfaces",
                "no-resolv",
                "no-hosts",
                "user=root",
                "pid-file=",
                "log-queries",
                "log-facility=-",
                f"address=/{NAME}/{self.server4.mark4}",
                f"address=/{NAME}/{self.server4.mark6}",
                f'txt-record={NAME},"answered by {self.server4.label}"',
                "",
            )
        )

    def _serving(self) -> bool:
        if self.process.poll() is not None:
            raise RuntimeError(f"dnsmasq ended: {self.log()}")
        return all(owns_udp_port(self.process.pid, self._port, family) for family in (4, 6))

    def stop(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()

    def freeze(self) -> None:
        """Falls silent: the address stays reachable and nothing answers."""
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self) -> None:
        """Serves again, beginning with what came in the meantime."""
        self.process.send_signal(signal.SIGCONT)

    def log(self) -> str:
        return self._log.read_text(encoding="utf-8", errors="replace")

    def count(self) -> int:
        """Queries that it has logged so far."""
        return len(re.findall(r" query\[", self.log()))
