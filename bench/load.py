"""What the benchmarks share: programs on their own cores in the lab, and what they cost.

The program under test has one core for itself; what asks and what answers shares the other one.
"""

import argparse
import contextlib
import dataclasses
import functools
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TOP))

from lab import daemon, files, netns, plan, wait  # noqa: E402 (needs the path)

TESTED_CORE, LOAD_CORE = 0, 1
RECORD_LIFE = 10  # seconds that the daemon remembers a query
LINE = 1
HOST = "h1"
# What is measured goes first, then what asks and answers, then all other work on the machine. No real-time
# priority: the kernel takes the core away for a part of each second from a program that always uses it.
TESTED_FIRST, LOAD_FIRST = ["nice", "-n", "-20"], ["nice", "-n", "-10"]

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


def options_of_report(description: str | None) -> argparse.ArgumentParser:
    """A parser with the option of the benchmarks that have a place in docs/performance.md."""
    parser = options(description)
    parser.add_argument(
        "--write",
        type=lambda path: str(Path(path).resolve()),
        metavar="DIR",
        help="put the tables into DIR/performance.md and the picture beside it",
    )
    return parser


def options_of_load(description: str | None) -> argparse.ArgumentParser:
    """A parser with the options of those among them that take long."""
    parser = options_of_report(description)
    parser.add_argument("--family", type=int, choices=(4, 6), default=4, help="IPv4 or IPv6 (4)")
    parser.add_argument("--quick", action="store_true", help="short and few runs: does it work?")
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


def placed(argv: list[str], core: int | None) -> list[str]:
    """A command tied to one core, with all its threads, and to its place in the queue for it; None: as it is."""
    if core is None:
        return argv
    first = TESTED_FIRST if core == TESTED_CORE else LOAD_FIRST
    return [*first, "taskset", "--cpu-list", str(core), *argv]


@contextlib.contextmanager
def serving(argv: list[str], core: int | None, family: int, namespace: str | None = None) -> Iterator[int]:
    """A program on one core, or on all for None, in the router or in another network namespace, until the block ends.

    Gives its process number, once it owns port 53 of the family.
    """
    with tempfile.TemporaryFile("w+", encoding="utf-8", errors="replace") as output:
        with netns.inside(namespace):
            process = subprocess.Popen(placed(argv, core), stdin=subprocess.DEVNULL, stdout=output, stderr=output)

        def up() -> bool:
            if process.poll() is not None:
                output.seek(0)
                raise RuntimeError(f"{argv[0]} ended with status {process.returncode}:\n{output.read()}")
            return daemon.owns_udp_port(process.pid, 53, family)

        try:
            wait.until(up, f"{argv[0]} to own port 53")
            yield process.pid
        finally:
            process.terminate()
            process.wait(wait.PATIENCE)


def answering(
    build: str, namespace: str = plan.LINES[LINE].netns, delay: int = 0, core: int | None = LOAD_CORE
) -> Iterator[int]:
    """What answers in place of the servers behind a line, after so many milliseconds; a context manager."""
    return serving([tool_of(build, "echo"), str(delay)], core, 6, namespace)


class Asker:
    """A program that asks the router from a LAN host, or another server; `output` waits until it is through."""

    def __init__(self, argv: list[str], host: str = HOST, core: int | None = LOAD_CORE):
        with netns.inside(host):
            self._process = subprocess.Popen(
                placed(argv, core), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
            )

    def __enter__(self):
        return self

    def __exit__(self, *_exception) -> None:
        self._process.kill()
        self._process.wait()

    @property
    def pid(self) -> int:
        return self._process.pid

    def output(self) -> str:
        output, _ = self._process.communicate()
        if self._process.returncode != 0:
            raise RuntimeError(f"{self._process.args} ended with status {self._process.returncode}:\n{output}")
        return output


class Dnsperf(Asker):
    """Asks with up to `outstanding` queries in flight, at a steady rate or as fast as it goes.

    `life` is how long the daemon remembers a query, in seconds.
    """

    FASTEST = 110_000  # queries per second that it may reach without a rate

    def __init__(
        self,
        family: int,
        rate: int | None,
        seconds: int,
        life: float = RECORD_LIFE,
        host: str = HOST,
        outstanding: int = OUTSTANDING,
        core: int | None = LOAD_CORE,
    ):
        server = plan.HOSTS[host].router(family)
        threads = str(int((rate or self.FASTEST) * life / QUERIES_OF_THREAD) + 1)
        argv = ["dnsperf", "-s", server, "-d", _names(), "-T", threads, "-c", threads, "-b", "1024"]
        argv += ["-q", str(outstanding), "-l", str(seconds), "-t", "2"]
        super().__init__(argv + (["-Q", str(rate)] if rate else []), host, core)

    def lost(self) -> int:
        return int(re.search(r"Queries lost:\s+(\d+)", self.output())[1])


@functools.cache
def _names() -> str:
    """A file of names for dnsperf, which starts over at its end: none is in flight twice."""
    with tempfile.NamedTemporaryFile("w", prefix="names.", delete=False) as names:
        names.writelines(f"q{i:07}.bench.example A\n" for i in range(500_000))
    return names.name


class Ask(Asker):
    """Asks at a steady rate, however many are in flight, and times every reply."""

    def __init__(self, build: str, server: str, rate: int, seconds: int, host: str = HOST, life: float = RECORD_LIFE):
        sockets = str(int(rate * life / QUERIES_OF_THREAD) + 1)
        super().__init__([tool_of(build, "ask"), server, str(rate), str(seconds), sockets], host)

    def result(self) -> dict[str, float]:
        """Counts, and latencies in microseconds."""
        return json.loads(self.output())


@dataclass
class Cost:
    """What a program and its datagrams came to, up to a moment or between two."""

    cpu_ns: int
    user: int  # clock ticks
    system: int  # clock ticks
    answered: int  # replies that the host has read
    forwarded: int  # queries that the servers have read
    seconds: float

    @property
    def us(self) -> float:
        """Processor time per answered query, in microseconds."""
        return self.cpu_ns / 1000 / max(1, self.answered)

    @property
    def user_share(self) -> float:
        """The part of the processor time that was spent in user mode, 0 to 1."""
        return self.user / max(1, self.user + self.system)

    @property
    def busy(self) -> float:
        """The part of its core that it used, 0 to 1."""
        return self.cpu_ns / 1e9 / self.seconds

    @property
    def rate(self) -> float:
        """Answered queries per second."""
        return self.answered / self.seconds

    def __sub__(self, earlier: "Cost") -> "Cost":
        return Cost(*(getattr(self, f.name) - getattr(earlier, f.name) for f in dataclasses.fields(self)))


def _datagrams_read(pid: int, family: int) -> int:
    """Datagrams that were read so far in the network namespace of a process."""
    if family == 6:
        text = Path(f"/proc/{pid}/net/snmp6").read_text(encoding="ascii")
        return int(re.search(r"^Udp6InDatagrams\s+(\d+)$", text, re.MULTILINE)[1])
    names, values = re.findall(r"^Udp: (.*)$", Path(f"/proc/{pid}/net/snmp").read_text(encoding="ascii"), re.MULTILINE)
    return int(dict(zip(names.split(), values.split()))["InDatagrams"])


def cost_of(pid: int, asker: int, servers: int, family: int) -> Cost:
    """The cost so far of a program between what asks and what answers, all by their process numbers.

    These two are the only users of UDP in their network namespaces.
    """
    cpu_ns = 0
    for task in os.scandir(f"/proc/{pid}/task"):
        cpu_ns += int(Path(task.path, "schedstat").read_text(encoding="ascii").split()[0])
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    counts = (_datagrams_read(process, family) for process in (asker, servers))
    return Cost(cpu_ns, int(fields[11]), int(fields[12]), *counts, time.monotonic())


@dataclass
class Watched:
    """The cost in a window of time, and that of each query in its median second.

    A second in which the machine did other work does not count so.
    """

    whole: Cost
    us: float

    @property
    def user_us(self) -> float:
        return self.us * self.whole.user_share

    @property
    def system_us(self) -> float:
        return self.us - self.user_us


def watch(pid: int, asker: int, servers: int, family: int, lead: float, window: int) -> Watched:
    """The cost of a program in `window` seconds, after `lead` seconds."""
    time.sleep(lead)
    costs = [cost_of(pid, asker, servers, family)]
    for _ in range(window):
        time.sleep(1)
        costs.append(cost_of(pid, asker, servers, family))
    seconds = [late - early for early, late in zip(costs, costs[1:])]
    return Watched(costs[-1] - costs[0], statistics.median(second.us for second in seconds))


def resident(pid: int) -> tuple[int, int]:
    """Resident memory of a process now and at its peak, in KiB."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    now, peak = (int(re.search(rf"^{key}:\s+(\d+) kB$", status, re.MULTILINE)[1]) for key in ("VmRSS", "VmHWM"))
    return now, peak


def machine() -> str:
    """The machine in a few words."""
    cpus = Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = re.search(r"^model name\s*:\s*(.+)$", cpus, re.MULTILINE)
    return f"{os.cpu_count()} cores, {model[1] if model else os.uname().machine}, Linux {os.uname().release}"


Table = Sequence[Sequence[str]]  # rows of as many cells; the first row is the head


def report(
    name: str,
    tables: dict[str, Table],
    picture: str | None,
    notes: Sequence[str],
    folder: str | None,
) -> None:
    """Prints tables with their titles; with a folder puts them and the picture in there, too.

    They replace what stands between the two marks of the name in its performance.md.
    """
    lines = []
    for title, table in tables.items():
        widths = [max(map(len, column)) for column in zip(*table)]
        print(f"\n{title}")
        for first, *rest in table:
            cells = [cell.rjust(width) for cell, width in zip(rest, widths[1:])]
            print("  ".join([first.ljust(widths[0]), *cells]))
        rows = ["| " + " | ".join(row) + " |" for row in table]
        lines += [f"{title}:", "", rows[0], "|---" + "|--:" * (len(table[0]) - 1) + "|", *rows[1:], ""]
    print("\n".join(notes))
    if folder is None:
        return
    if picture is not None:
        Path(folder, f"performance-{name}.svg").write_text(picture, encoding="utf-8")
        lines += [f"![{name}](performance-{name}.svg)", ""]
    lines += notes
    page = Path(folder, "performance.md")
    head, tail = f"<!-- {name}: begin -->\n", f"<!-- {name}: end -->\n"
    before, mark, rest = page.read_text(encoding="utf-8").partition(head)
    _, end, after = rest.partition(tail)
    if not mark or not end:
        sys.exit(f"{page} has no place for {name}")
    page.write_text(before + head + "\n".join(lines).rstrip() + "\n" + tail + after, encoding="utf-8")
