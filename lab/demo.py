"""The demo: the daemon at work in the lab, told step by step and checked step by step.

`scripts/demo` runs it inside the sandbox. Servers answer behind every line and say which server they
are; real hosts ask with dig. wan3 is slow: its answers take 0.3 s. A forced query
is answered only while the latest query was a forced one, so no step has queries of both kinds in
flight.
"""

import argparse
import contextlib
import os
import re
import shlex
import signal
import socket
import struct
import subprocess
import sys
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

from lab import files, netns, plan, wait
from lab.daemon import Daemon
from lab.plan import HOSTS, LINES
from lab.router import Lab
from lab.sniffer import Sniffer
from lab.upstream import Upstream, answer, delayed, silent

NAME = "where.test"
SLOW_LINE = 3
SLOW_SECONDS = 0.3
QUERY_LIFE = 10.0  # seconds that the daemon keeps a query

SERVERS = {server.address: server for line in LINES.values() for server in line.servers}
RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
    {"name": "dnsproxy_pppoes", "service_if": "PPPOES"},
    {"name": "pppoe", "service_if": "PPPOES", "out_type": "polling"},
    {"name": "ppp", "service_if": "PPP", "out_type": "polling"},
    {"name": "router", "service_if": "loopback"},
]


class Paint:
    """Colours on a terminal, nothing elsewhere."""

    on = sys.stdout.isatty() and "NO_COLOR" not in os.environ

    @classmethod
    def _wrap(cls, code: str, text: str) -> str:
        return f"\033[{code}m{text}\033[0m" if cls.on else text

    @classmethod
    def bold(cls, text: str) -> str:
        return cls._wrap("1", text)

    @classmethod
    def dim(cls, text: str) -> str:
        return cls._wrap("2", text)

    @classmethod
    def good(cls, text: str) -> str:
        return cls._wrap("32", text)

    @classmethod
    def bad(cls, text: str) -> str:
        return cls._wrap("1;31", text)


class NotShown(Exception):
    """A step did not show what it should."""


def expect(condition: bool, problem: str) -> None:
    if not condition:
        raise NotShown(problem)


def say(text: str = "") -> None:
    print(f"     {text}" if text else "", flush=True)


class Answer(NamedTuple):
    """What dig got."""

    text: str  # the answering server in its own words, empty when none answered
    milliseconds: float  # as dig measures, from the last try on
    seconds: float  # all of dig, its retries included

    @property
    def line(self) -> str:
        return self.text.removeprefix("answered by ").partition(",")[0]

    def __str__(self) -> str:
        if not self.text:
            return Paint.dim(f"no answer in {self.seconds:.0f} s")
        retried = f", {self.seconds:.1f} s with the retry" if self.seconds > 1 else ""
        return f"{self.text:28} {self.milliseconds:6.1f} ms{retried}"


class Asker(NamedTuple):
    """A host that asks the router with dig, always by the same command."""

    host: str | None  # None: the router
    command: str

    def ask(self) -> Answer:
        started = time.monotonic()
        output = netns.run(self.host, self.command.split()).stdout
        seconds = time.monotonic() - started
        served_by = re.search(r'\sTXT\s+"(.*)"$', output, re.MULTILINE)
        text = f"answered by {SERVERS[served_by[1]].label}" if served_by else ""
        took = re.search(r"^;; Query time: (\d+) usec$", output, re.MULTILINE)
        return Answer(text, int(took[1]) / 1000 if took else 0.0, seconds)

    def ask_times(self, count: int) -> list[Answer]:
        """Asks again and again and shows what comes."""
        answers = []
        for number in range(1, count + 1):
            answers.append(self.ask())
            say(f"  {number}  {answers[-1]}")
        return answers


def asker(name: str, family: int, options: str = "+tries=1 +time=2") -> Asker:
    """A host about to ask; shows its command."""
    host = HOSTS[name]
    command = f"dig -u @{host.router(family)} {NAME} TXT {options}"
    address = host.address4 if family == 4 else host.address6
    say(f"{Paint.dim(f'{name} ({address}) $')} {command}")
    return Asker(name, command)


class Stage:
    """Everything that a step works with: the lab, the servers behind the lines, the daemon."""

    def __init__(self, stack: contextlib.ExitStack):
        self.lab = stack.enter_context(Lab(on_link=True))
        files.write_zone_api()
        files.write_rules(RULES)
        files.write_resolv(files.resolv_of_lines(1, 2, 3))
        files.write_online_state({LINES[n].device: "on" for n in (1, 2, 3)})
        self.upstreams = {number: stack.enter_context(Upstream(number)) for number in (1, 2, 3)}
        self.upstreams[SLOW_LINE].answer_with(delayed(SLOW_SECONDS))
        self.daemon = stack.enter_context(Daemon())


def by_query(packets: list) -> list[list]:
    """The packets that left, grouped by the query they belong to, in order."""
    groups: dict[int, list] = {}
    for packet in packets:
        groups.setdefault(packet.ident, []).append(packet)
    return list(groups.values())


def show_root(command: str) -> None:
    """A command that is run on the router."""
    say(f"{Paint.dim('router #')} {command}")


def expect_replies(stage: Stage, got: Sniffer, count: int) -> None:
    """A host got so many replies, and the daemon has nothing left that could be one more."""
    got.wait_for(count)
    stage.daemon.settle()
    expect(got.counts.total() == count, f"the host got {got.counts.total()} replies, not {count}")


# The steps. Each tells what it does and raises NotShown, with the difference, when it is not so.


def start(stage: Stage, _family: int) -> None:
    """The start: rules and servers, as the daemon's own table dump tells them"""
    dump = wait.until(lambda: out if "\nEnd\n" in (out := stage.daemon.output()) else "", "the table dump")
    listening, _, sending = dump.partition("***Show server interface")
    served = {}
    for device, forced, rest in re.findall(
        r"^ifname:(\S+)\.\nSpecify out interface = (\d+) +(.*)$", listening, re.MULTILINE
    ):
        out = rest.removeprefix("out interface name:").removesuffix(".")
        say(f"{device:9} served, " + (f"every query leaves by {out}" if int(forced) else "free choice"))
        served[device] = out
    lines = []
    for device, block in re.findall(r"^ifname:(\S+) ifindex:(.*?)is_down:", sending, re.M | re.S):
        servers = [
            socket.inet_ntoa(struct.pack("=I", int(slot, 16)))
            for slot in re.findall(r"^The \d server address:([0-9a-f]+)\.$", block, re.MULTILINE)
        ] + re.findall(r"^The \d IPv6 server address:(\S+)$", block, re.MULTILINE)
        note = f"   (a slow line: {SLOW_SECONDS:g} s)" if device == LINES[SLOW_LINE].device else ""
        say(f"{device:9} to {' '.join(servers)}{Paint.dim(note)}")
        lines.append((device, tuple(servers)))
    expect(
        served == {plan.LAN: "", plan.GUEST: "wan2", plan.PPPOE: "", "ppp0": "", "lo": ""},
        f"served devices and their forced lines are {served}",
    )
    expect(
        lines == [(LINES[n].device, LINES[n].addresses) for n in (1, 2, 3)],
        f"outgoing devices and servers are {lines}",
    )
    say("These are the five served devices and the three lines, with two servers per family each.")


def fixed(stage: Stage, family: int) -> None:
    """Fixed mode: for the hosts of the LAN the lines take turns"""
    with Sniffer() as out, Sniffer(replies=True) as back, Sniffer(replies=True, name="h1") as got:
        answers = asker("h1", family).ask_times(6)
        turns = [LINES[n].device for n in (1, 2, 3, 1, 2, 3)]
        expect([a.line for a in answers] == turns, f"the turns were not {', '.join(turns)}")
        for device, packets in zip(turns, by_query(out.wait_for(12)), strict=True):
            sent = sorted((p.device, p.destination) for p in packets)
            servers = LINES[int(device[-1])].servers_of(family)
            wanted = sorted((device, server.address) for server in servers)
            expect(sent == wanted, f"a query went to {sent}")
        back.wait_for(12)
        expect_replies(stage, got, 6)
    say("Each line got every third query, at both its servers: 12 went out, 12 answers came back,")
    say("the 6 first ones were passed on to the host.")


def polling(stage: Stage, family: int) -> None:
    """Polling: a query of a PPPoE client goes to every server of every line, the fastest wins"""
    slow = LINES[SLOW_LINE].device
    with Sniffer() as out, Sniffer(replies=True) as back, Sniffer(replies=True, name="p1") as got:
        answers = asker("p1", family).ask_times(4)
        expect(all(a.text for a in answers), "a query was not answered")
        expect(all(a.line != slow for a in answers), f"the slow line {slow} won")
        for packets in by_query(out.wait_for(24)):
            addresses = sorted(p.destination for p in packets)
            wanted = sorted(s.address for n in (1, 2, 3) for s in LINES[n].servers_of(family))
            expect(addresses == wanted, f"a query went to {addresses}")
        back.wait_for(24)
        late = back.counts[slow]
        expect(late == 8, f"the slow line answered {late} times")
        expect_replies(stage, got, 4)
    say(f"Each query went to all six servers, and nobody waited for {slow}: its {late} answers came")
    say("too late and were dropped. The client got one reply per query.")


def forced(_stage: Stage, family: int) -> None:
    """A forced line: whatever the guests ask leaves by wan2"""
    with Sniffer() as out:
        answers = asker("g1", family).ask_times(5)
        expect(all(a.line == "wan2" for a in answers), "another line than wan2 answered, or none")
        out.wait_for(5)
        counts = dict(out.counts)
    devices = [line.device for line in LINES.values()]
    say("Seen leaving: " + ", ".join(f"{device} {counts.get(device, 0)}" for device in devices) + ".")
    expect(counts == {"wan2": 5}, "queries left elsewhere, or more than once")
    say("A listener on every outgoing device saw them leave by wan2 only, each to one server.")


def silence(stage: Stage, family: int) -> None:
    """A silent server: the line moves to its other one when the query's 10 s are over"""
    if family == 6:
        say("First the queries of the steps before run out: they teach the line in both families.")
        time.sleep(QUERY_LIFE)
    guest = asker("g1", family)
    (now,) = guest.ask_times(1)
    expect(now.line == "wan2", f"before: {now.text or 'no answer'}")
    slot = int(now.text[-1]) - 1
    server = LINES[2].servers_of(family)[slot]
    say(f"{server.label} ({server.address}) falls silent; the guest asks until it is served.")
    stage.upstreams[2].answer_with(silent, server)
    try:
        started = time.monotonic()
        asked = 0.0
        got = Answer("", 0.0, 0.0)
        while not got.text and asked < 2 * QUERY_LIFE:
            asked = time.monotonic() - started
            got = guest.ask()
            say(f"  after {asked:4.1f} s  {got}")
    finally:
        stage.upstreams[2].answer_with(answer)
    other = f"answered by wan2, server {2 - slot}"
    expect(got.text == other, f"in the end: {got.text or 'no answer'}")
    expect(
        asked + got.seconds >= QUERY_LIFE,
        "the line moved before the first query's life was over",
    )
    say(f"The first query stayed unanswered. When its 10 s were over, server {2 - slot} got its turn:")
    say("nobody had to tell the daemon.")


def unplugged(stage: Stage, family: int) -> None:
    """A line is pulled out and put back: the guests wait for it, the LAN does not"""
    show_root("ip link delete wan2")
    stage.lab.line_delete(2)
    answers = asker("g1", family, "+tries=1 +time=1").ask_times(2)
    expect(not any(a.text for a in answers), "a forced query was answered without its line")
    answers = asker("h1", family, "+tries=3 +time=1").ask_times(3)
    expect(all(a.line in ("wan1", "wan3") for a in answers), "a query of the LAN was not answered")
    say("The query whose turn was the missing line was lost; dig's own retry took the next line.")
    show_root("ip link add wan2 ...")
    stage.lab.line_create(2)
    answers = asker("g1", family).ask_times(2)
    expect(all(a.line == "wan2" for a in answers), "the guest is not served again")
    expect(stage.daemon.alive(), "the daemon has ended")
    say(f"The guests are served again at once, by the same process (pid {stage.daemon.pid}).")


def router_itself(_stage: Stage, _family: int) -> None:
    """The router asks itself over IPv4: its queries go to servers of both families"""
    command = f"dig -u @127.0.0.1 {NAME} TXT +tries=1 +time=2"
    show_root(command)
    with Sniffer() as out:
        answers = Asker(None, command).ask_times(3)
        expect(all(a.text for a in answers), "a query was not answered")
        sent = Counter(p.family for p in out.wait_for(12 + 3) if p.device != "lo")
        expect(sent == {4: 6, 6: 6}, f"queries left by family: {dict(sent)}")
    say("Each query left twice over IPv4 and twice over IPv6, and was answered over IPv4.")


STEPS: tuple[tuple[Callable[[Stage, int], None], int], ...] = (
    (start, 0),
    *((step, family) for step in (fixed, polling, forced) for family in (4, 6)),
    (router_itself, 0),
    *((step, family) for step in (silence, unplugged) for family in (4, 6)),
)


def title(step: Callable[[Stage, int], None], family: int) -> str:
    return (step.__doc__ or "").strip() + (", over IPv6" if family == 6 else "")


def play() -> int:
    """All steps in turn; 0 if every one showed what it should."""
    started = time.monotonic()
    shown = 0
    with contextlib.ExitStack() as stack:
        stage = Stage(stack)
        for number, (step, family) in enumerate(STEPS, 1):
            print(f"\n {Paint.bold(f'{number:2}.  {title(step, family)}')}", flush=True)
            try:
                step(stage, family)
                shown += 1
                say(Paint.good("ok"))
            except (NotShown, TimeoutError, RuntimeError) as problem:
                say(Paint.bad(f"FAILED: {problem}"))
        if shown < len(STEPS):
            say()
            say("The daemon wrote at the end:")
            say("\n     ".join(stage.daemon.output().splitlines()[-20:]))
    colour = Paint.good if shown == len(STEPS) else Paint.bad
    seconds = time.monotonic() - started
    print("\n" + colour(f"{shown} of {len(STEPS)} steps showed what they should") + f" ({seconds:.0f} s)")
    return 0 if shown == len(STEPS) else 1


HINT = f"""\
You are on h1, a host of the LAN. wan1 and wan2 are quick, wan3 takes {SLOW_SECONDS:g} s.

  dig @192.168.1.1 {NAME} TXT +short                          the lines take turns
  dig @fd00:1::1 {NAME} TXT +short                            the same over IPv6
  ip netns exec g1 dig @192.168.2.1 {NAME} TXT +short         a guest: always wan2
  ip netns exec p1 dig @192.168.3.1 {NAME} TXT +short         a PPPoE client: all lines at once
  nsenter -t 1 -n ip link set wan2 down                       a line fails (and "up" again)
  nsenter -t 1 -n tcpdump -ni any udp port 53                 look on, where tcpdump is installed

Everything goes away when you leave this shell.
"""


def shell() -> int:
    """An interactive shell on h1, with the servers and the daemon running."""
    with contextlib.ExitStack() as stack:
        stage = Stage(stack)
        log = stage.daemon.fds()[1]
        print(HINT + f"The daemon writes to {log}.\n", flush=True)
        start_file = Path("/tmp/h1.bashrc")
        prompt = r"\[\033[32m\]h1 (LAN)\[\033[0m\]:\w\$ "
        start_file.write_text(f"PS1={shlex.quote(prompt)}\n", encoding="utf-8")
        # Ctrl-C is for what runs in the shell. A handler, unlike "ignore", is not inherited.
        signal.signal(signal.SIGINT, lambda *_: None)
        with netns.inside("h1"):
            child = subprocess.Popen(["/bin/bash", "--rcfile", str(start_file), "-i"])
        child.wait()
    return 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/demo", description=__doc__.splitlines()[0])
    parser.add_argument("--shell", action="store_true", help="a shell on a LAN host instead")
    options = parser.parse_args()
    try:
        return shell() if options.shell else play()
    except RuntimeError as problem:
        print(f"scripts/demo: {problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\ninterrupted")
        return 130


if __name__ == "__main__":
    sys.exit(main())
