"""The soak: the daemon on a real kernel under load and changes for as long as wanted, and what it takes for that.

A cycle of 15 seconds repeats to the end, so that any two can be compared. For 11 seconds two hosts are forced out by
a line that stays, and lose nothing; two others are forced out by a line that goes down, is deleted and comes back,
while servers are added, set and deleted and link states told. For two seconds free hosts ask, and lose nothing. Then
nobody asks, and the figures are read that are compared in the end: with those after two minutes, and the last quarter
of what follows with the first. What happens in years of virtual time is told by scripts/simulate.
"""

import argparse
import contextlib
import csv
import json
import math
import statistics
import subprocess
import sys
import threading
import time
from dataclasses import astuple, dataclass, fields
from pathlib import Path

from lab import chart, daemon, files, netns, plan, wait
from lab.broker import Broker
from lab.bus import Status
from lab.daemon import Daemon
from lab.router import Lab
from lab.upstream import Upstream

CYCLE = 15.0  # seconds
CHANGING, QUIET = 11, 2  # of them
WARM_UP = 8  # cycles, in which tables, heap and sockets get the size that they keep
RATE = 150  # queries per second of each host
MOVES_KIB = 192  # by which resident memory moves: three times what the kernel maps around one fault in a file
CPU_GROWTH = 1.25  # processor time per query, last quarter to first: more than a machine's other work makes of it
BUS = "/var/run/ubus.sock"
RULES = [
    {"name": "lan", "service_if": "LAN", "force_if": "on", "out_if": "WAN1"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
    {"name": "dnsproxy_pppoes", "service_if": "PPPOES"},
    {"name": "pppoe", "service_if": "PPPOES"},
    {"name": "ppp", "service_if": "PPP"},
]


@dataclass
class Sample:
    """The daemon at rest behind a cycle; the counts are of the cycle."""

    minutes: float
    resident_kib: int
    descriptors: int
    asked: int
    answered: int
    lost: int  # where nothing may be
    unexpected: int  # replies to nothing
    us_per_query: float


def ask(hosts: list[str], seconds: int) -> list[dict]:
    """Each host asks in both families; what became of it."""
    tool = str(Path(daemon.binary()).resolve().parent.parent / "bench/ask")
    running = []
    for name in hosts:
        for family in (4, 6):
            with netns.inside(name):
                argv = [tool, plan.HOSTS[name].router(family), str(RATE), str(seconds), "1"]
                running.append(subprocess.Popen(argv, stdout=subprocess.PIPE, text=True))
    return [json.loads(process.communicate()[0]) for process in running]


def change(lab: Lab, bus: Broker) -> None:
    """What happens to the router in a cycle: to the second line, the third and the VPN."""
    ctl = str(Path(daemon.binary()).resolve().parent.parent / "tools/dnsproxyctl")

    def pipe(command: str, refused: bool = False) -> None:
        result = subprocess.run([ctl, *command.split()], capture_output=True, text=True, check=False, timeout=30)
        if result.returncode != (1 if refused else 0):
            raise RuntimeError(f"dnsproxyctl {command}: status {result.returncode}: {result.stderr}")

    def told(device: str, status: str) -> None:
        if bus.call("dnsproxy", "update_if", {"name": "soak", "dev": device, "status": status})[0] != Status.OK:
            raise RuntimeError(f"update_if of {device} failed")

    servers = {number: " ".join(plan.LINES[number].addresses) for number in plan.LINES}
    for down, up in (
        (lambda: lab.line_set(2, up=False), lambda: lab.line_set(2, up=True)),
        (lambda: lab.line_delete(2), lambda: lab.line_create(2)),
    ):
        told("wan2", "off")
        down()
        pipe("list")
        pipe(f"add VPN {servers[9]}")
        pipe(f"add VPN {servers[9]}", refused=True)
        pipe("del WAN3")
        lab.line_delete(3)
        pipe("get VPN")
        lab.line_create(3)
        pipe(f"put WAN3 {servers[3]}")
        pipe("del VPN")
        pipe("get VPN", refused=True)
        up()
        told("wan2", "on")
        pipe(f"set WAN2 {servers[2]}")
        netns.ip_batch([f"link delete {plan.PPP}"])
        lab.host_create("p1", plan.PPP)
        time.sleep(CHANGING / 4)  # served again


def cycle(proxy: Daemon, lab: Lab, bus: Broker, started: float) -> Sample:
    before, failed = proxy.cpu_ns(), []

    def changes() -> None:
        try:
            change(lab, bus)
        except BaseException as failure:  # raised below
            failed.append(failure)

    thread = threading.Thread(target=changes)
    thread.start()
    runs = ask(["h1", "g1"], CHANGING)
    thread.join()
    if failed:
        raise failed[0]
    quiet = ask(["p1"], QUIET)
    asked, answered = (sum(run[what] for run in runs + quiet) for what in ("sent", "answered"))
    lost = sum(run["sent"] - run["answered"] for run in runs[:2] + quiet)
    unexpected = sum(run["unexpected"] for run in runs + quiet)
    proxy.settle()
    us = (proxy.cpu_ns() - before) / 1000 / max(1, answered)
    minutes = (time.monotonic() - started) / 60
    return Sample(minutes, proxy.rss_kib(), len(proxy.fds()), asked, answered, lost, unexpected, us)


def verdict(samples: list[Sample]) -> list[tuple[bool, str]]:
    """What must hold of the cycles behind the warm-up."""
    kept = samples[WARM_UP:]
    quarter = max(1, len(kept) // 4)
    first, last = kept[:quarter], kept[-quarter:]
    kib = [min(sample.resident_kib for sample in part) for part in (first, last)]
    us = [statistics.median(sample.us_per_query for sample in part) for part in (first, last)]
    lost, unexpected = (sum(getattr(sample, what) for sample in samples) for what in ("lost", "unexpected"))
    return [
        (kib[1] <= kib[0] + MOVES_KIB, f"resident memory: {kib[0]} KiB, {kib[1]} KiB in the end"),
        (kept[0].descriptors == kept[-1].descriptors, f"descriptors: {kept[0].descriptors}, {kept[-1].descriptors}"),
        (us[1] <= us[0] * CPU_GROWTH, f"processor time per query: {us[0]:.1f} us, {us[1]:.1f} us in the end"),
        (lost == 0, f"queries lost where none may be: {lost}"),
        (unexpected == 0, f"replies to nothing: {unexpected}"),
    ]


def picture(samples: list[Sample]) -> str:
    def panel(title: str, unit: str, figure) -> chart.Panel:
        points = [(round(s.minutes, 1), figure(s)) for s in samples[:: len(samples) // 12 or 1]]
        return chart.lines(title, "minutes", unit, {"": points})

    return chart.picture(
        [
            panel("Resident memory", "KiB", lambda s: s.resident_kib),
            panel("Open descriptors", "", lambda s: s.descriptors),
            panel("Processor time per query", "µs", lambda s: s.us_per_query),
            panel("Queries answered in a cycle", "", lambda s: s.answered),
        ]
    )


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__.partition("\n")[0])
    parser.add_argument("minutes", type=float, help="3 at least; 60 for a verdict that means something")
    parser.add_argument("--out", type=Path, default=daemon.TOP / "build/soak", help="folder for soak.csv and soak.svg")
    given = parser.parse_args()
    if not 3 <= given.minutes <= 24 * 60:
        parser.error("MINUTES must be 3 to 1440")
    given.out.mkdir(parents=True, exist_ok=True)
    files.write_zone_api()
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1, 2, 3))
    samples: list[Sample] = []
    with contextlib.ExitStack() as stack, (given.out / "soak.csv").open("w", newline="", encoding="ascii") as file:
        bus, lab = stack.enter_context(Broker(BUS)), stack.enter_context(Lab())
        for number in plan.LINES:
            stack.enter_context(Upstream(number, keep=False))
        # Its output is a dump for every forced query over IPv6: hundreds of megabytes in an hour.
        proxy = stack.enter_context(Daemon(stdout=subprocess.DEVNULL))
        bus.wait_for("dnsproxy")
        writer = csv.writer(file)
        writer.writerow(field.name for field in fields(Sample))
        started = time.monotonic()
        for number in range(max(WARM_UP + 4, math.ceil(given.minutes * 60 / CYCLE))):
            wait.until(lambda at=started + number * CYCLE: time.monotonic() >= at, "the next cycle", timeout=2 * CYCLE)
            samples.append(cycle(proxy, lab, bus, started))
            writer.writerow(astuple(samples[-1]))
            print(f"{samples[-1]}", flush=True)
    (given.out / "soak.svg").write_text(picture(samples), encoding="utf-8")
    judged = verdict(samples)
    for good, text in judged:
        print(f"{'ok    ' if good else 'FAILED'}  {text}")
    return 0 if all(good for good, _ in judged) else 1


if __name__ == "__main__":
    sys.exit(main())
