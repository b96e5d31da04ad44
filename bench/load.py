"""What the benchmarks share: programs on their own cores in the lab, and what they cost.

The program under test has one core for itself; what asks and what answers shares the other one.
"""

import argparse
import contextlib
import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TOP))

from lab import daemon, files, netns, plan, wait  # noqa: E402 (needs the path)

TESTED_CORE, LOAD_CORE = 0, 1
RECORD_LIFE = 10  # seconds that the daemon remembers a query
LINE = 1
HOST = "h1"
# What is measured and what answers it run as soon as they can, before other work on the machine and before
# what asks; otherwise the cost would be that of queues and of caches that others have filled.
REAL_TIME = ["chrt", "--fifo", "1"]

# Queries without a reply at any time: as many as surely fit a socket's receive buffer of the usual size, so
# that none is lost while a program waits for its core. From 287 on some would be lost by design.
OUTSTANDING = 128
# A thread of dnsperf goes round its 65536 identifiers, less those in use. With a socket for each thread, and
# threads enough, the same pair does not come back while a record of it lives: no query passes for a repeated one.
QUERIES_OF_THREAD = 60_000


def enter_lab() -> None:
    """Goes on inside the lab's sandbox: starts this program anew there, unless it runs there already."""
    with open("/proc/self/mounts", encoding="utf-8") as mounts:
        if any(line.startswith("lab / overlay ") for line in mounts):
            return
    enter = str(TOP / "lab/enter")
    program = str(Path(sys.argv[0]).resolve())
    os.execv(enter, [enter, "--", sys.executable, program, *sys.argv[1:]])


def options(description: str | None) -> argparse.ArgumentParser:
    """A parser with the option that all benchmarks have."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument(
        "--build",
        type=lambda path: str(Path(path).resolve()),
        default=str(TOP / "build/release"),
        help="build folder with the programs (build/release)",
    )
    return parser


def daemon_of(build: str) -> str:
    """The daemon that is measured: the one that the environment variable DNSPROXYD names, or the build's."""
    return os.environ.get("DNSPROXYD") or f"{build}/src/dnsproxyd"


def tool_of(build: str, name: str) -> str:
    """A program of this folder."""
    path = f"{build}/bench/{name}"
    if not os.access(path, os.X_OK):
        sys.exit(f"{path} is missing: build with -DDNSPROXYD_BENCH=ON, or name the folder with --build")
    return path


def free_choice(servers: int, family: int) -> list[str]:
    """Writes the files for one LAN with the free choice and one line; returns the line's servers."""
    line = plan.LINES[LINE]
    chosen = (line.servers4 if family == 4 else line.servers6)[:servers]
    addresses = [server.address for server in chosen]
    files.write_zone_api()
    files.write_rules([{"name": "lan", "service_if": "LAN"}])
    files.write_resolv({"WAN1": addresses})
    return addresses


def placed(argv: list[str], core: int) -> list[str]:
    """A command tied to one core, with all its threads."""
    return ["taskset", "--cpu-list", str(core), *argv]


@contextlib.contextmanager
def serving(argv: list[str], core: int, family: int, namespace: str | None = None) -> Iterator[int]:
    """A program on one core, in the router or in another network namespace, until the block ends.

    Gives its process number, once it owns port 53 of the family.
    """
    command = [*REAL_TIME, *placed(argv, core)]
    with netns.inside(namespace):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def up() -> bool:
        if process.poll() is not None:
            raise RuntimeError(f"{argv[0]} ended with status {process.returncode}")
        return daemon.owns_udp_port(process.pid, 53, family)

    try:
        wait.until(up, f"{argv[0]} to own port 53")
        yield process.pid
    finally:
        process.terminate()
        process.wait(wait.PATIENCE)


@dataclass
class Cost:
    """What a program and its datagrams came to, up to a moment or between two."""

    cpu_ns: int
    user: int  # clock ticks
    system: int  # clock ticks
    sent: int  # datagrams

    @property
    def queries(self) -> float:
        """Answered queries: each was sent on to one server, and its reply was sent back."""
        return self.sent / 2

    @property
    def cpu_us_per_query(self) -> float:
        return self.cpu_ns / 1000 / self.queries

    @property
    def user_share(self) -> float:
        """The part of the processor time that was spent in user mode, 0 to 1."""
        return self.user / max(1, self.user + self.system)

    def __sub__(self, earlier: "Cost") -> "Cost":
        return Cost(
            self.cpu_ns - earlier.cpu_ns,
            self.user - earlier.user,
            self.system - earlier.system,
            self.sent - earlier.sent,
        )


def _datagrams_sent(family: int) -> int:
    if family == 6:
        text = Path("/proc/net/snmp6").read_text(encoding="ascii")
        return int(re.search(r"^Udp6OutDatagrams\s+(\d+)$", text, re.MULTILINE)[1])
    names, values = re.findall(r"^Udp: (.*)$", Path("/proc/net/snmp").read_text(encoding="ascii"), re.MULTILINE)
    return int(dict(zip(names.split(), values.split()))["OutDatagrams"])


def cost_of(pid: int, family: int) -> Cost:
    """The cost so far of a program that is the only user of UDP in the router."""
    cpu_ns = 0
    for task in os.scandir(f"/proc/{pid}/task"):
        cpu_ns += int(Path(task.path, "schedstat").read_text(encoding="ascii").split()[0])
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    return Cost(cpu_ns, int(fields[11]), int(fields[12]), _datagrams_sent(family))


@dataclass
class Asked:
    """What dnsperf saw."""

    sent: int
    lost: int


class Dnsperf:
    """Asks the router from a LAN host at a steady rate; `result` waits until it is through."""

    def __init__(self, family: int, rate: int, seconds: int):
        with tempfile.NamedTemporaryFile("w", prefix="names.", delete=False) as names:
            names.writelines(f"q{i:05}.bench.test A\n" for i in range(10_000))
        server = plan.HOSTS[HOST].router(family)
        threads = str(rate * RECORD_LIFE // QUERIES_OF_THREAD + 1)
        argv = ["dnsperf", "-s", server, "-d", names.name, "-T", threads, "-c", threads, "-b", "1024"]
        argv += ["-q", str(OUTSTANDING), "-Q", str(rate), "-l", str(seconds), "-t", "2"]
        argv = ["nice", "-n", "-10", *placed(argv, LOAD_CORE)]
        with netns.inside(HOST):
            self._process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def __enter__(self) -> "Dnsperf":
        return self

    def __exit__(self, *_exception) -> None:
        self._process.kill()
        self._process.wait()

    def result(self) -> Asked:
        output, _ = self._process.communicate()
        counts = dict(re.findall(r"Queries (sent|lost):\s+(\d+)", output))
        if self._process.returncode != 0 or counts.keys() != {"sent", "lost"}:
            raise RuntimeError(f"dnsperf ended with status {self._process.returncode}:\n{output}")
        return Asked(int(counts["sent"]), int(counts["lost"]))
