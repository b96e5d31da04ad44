"""The process: its end, its descriptors, its output, and what it finds at start."""

import contextlib
import os
import socket
from collections.abc import Iterator
from pathlib import Path
from signal import SIGINT, SIGKILL, SIGTERM

import pipe_client as pipe
import pytest

from lab import files, plan, wait
from lab.daemon import Daemon, binary

REQUEST_PIPE = Path("/var/run/nmpipe/dnsproxypublicrecvpipe")

RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
]


@pytest.fixture(autouse=True)
def configuration(clean_files):
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1, 2))


@pytest.mark.parametrize("number", (SIGTERM, SIGINT), ids=lambda number: number.name)
@pytest.mark.parametrize("busy", (False, True), ids=("idle", "with queries in flight"))
def test_one_signal_ends_it(lab, upstreams, client, number, busy):
    with Daemon() as daemon:
        if busy:
            assert client("h1").bulk(100, outstanding=16).lost == 0
        assert daemon.stop(number) == -number, daemon.output()


def test_it_takes_over_what_a_killed_one_left(lab, upstreams, client, family):
    with Daemon() as killed:
        assert client("h1", family).ask() is not None
        assert killed.stop(SIGKILL) == -SIGKILL
    assert REQUEST_PIPE.is_fifo()
    with Daemon():
        assert client("h2", family).ask() is not None


def test_a_second_one_ends_and_the_first_notices_nothing(lab, upstreams, client, family):
    with Daemon() as first:
        with Daemon(serving=False) as second:
            assert second.process.wait(wait.PATIENCE) == 0, second.output()
        assert pipe.exchange(pipe.Message(pipe.GET, ifname=b"WAN1")).message.result == 0
        assert client("h1", family).ask() is not None
        assert first.stop() == -SIGTERM


def test_a_file_in_place_of_its_pipe_is_left_alone(lab):
    REQUEST_PIPE.parent.mkdir(mode=0o700, exist_ok=True)
    REQUEST_PIPE.unlink(missing_ok=True)
    REQUEST_PIPE.write_text("precious", encoding="ascii")
    try:
        with Daemon(serving=False) as daemon:
            assert daemon.process.wait(wait.PATIENCE) == 0, daemon.output()
        assert REQUEST_PIPE.read_text(encoding="ascii") == "precious"
    finally:
        REQUEST_PIPE.unlink()


def test_a_taken_port_leaves_it_alive_without_sockets(lab, family):
    taken = socket.socket(socket.AF_INET if family == 4 else socket.AF_INET6, socket.SOCK_DGRAM)
    with taken:
        if family == 6:
            taken.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        taken.bind(("0.0.0.0" if family == 4 else "::", 53))
        with Daemon(serving=False) as daemon:
            # The sockets are next after the dump and the link states.
            wait.until(lambda: daemon.output().endswith("\nEnd\n\n"), "the start-up dump")
            daemon.settle()
            assert daemon.alive(), daemon.output()
            wait.until(lambda: daemon.udp_sockets(4) + daemon.udp_sockets(6) == [], "the other socket to be closed")
            assert daemon.stop() == -SIGTERM


def test_closed_standard_descriptors(lab, upstreams, client, family):
    script = Path("/tmp/without-descriptors")
    script.write_text(f"#!/bin/sh\nexec {binary()} <&- >&- 2>&-\n", encoding="utf-8")
    script.chmod(0o755)
    zone = Path(files.ZONE_API)
    look = "(readlink /proc/self/fd/0; readlink /proc/self/fd/2) >/tmp/standard\n"
    zone.write_text(look + zone.read_text(encoding="utf-8"), encoding="utf-8")
    with Daemon(str(script)) as daemon:
        for _ in range(3):
            assert client("h1", family).ask() is not None
            assert client("g1", family).ask() is not None
        fds = daemon.fds()
        assert [fds[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
        assert Path("/tmp/standard").read_text(encoding="ascii").split() == ["/dev/null"] * 2, "in a command"
        assert daemon.stop() == -SIGTERM


def test_children_inherit_no_descriptor(lab, upstreams, client):
    seen = Path("/tmp/descriptors")
    files.write(
        files.ZONE_API,
        "zone_iface_to_userif() { echo $1; }\n"
        f"zone_get_effect_devices() {{ ls /proc/self/fd >>{seen}; echo br-lan; }}\n",
    )
    with Daemon() as daemon:
        # Three names of the rules and two sections of the resolver file have been mapped.
        listings = seen.read_text(encoding="ascii").split("0\n1\n2\n")
        assert len(listings) == 6 and set(listings[1:]) == {"3\n"}, "3 is what ls lists"

        client("h1").ask(timeout=0.1)
        for fd in daemon.fds():
            if fd > 2:
                flags = Path(f"/proc/{daemon.pid}/fdinfo/{fd}").read_text(encoding="ascii").split()[3]
                assert int(flags, 8) & os.O_CLOEXEC, f"descriptor {fd}: {daemon.fds()[fd]}"


@contextlib.contextmanager
def stalled_pipe() -> Iterator[int]:
    reader, writer = os.pipe()
    yield writer
    assert os.read(reader, 7) == b"***Show", "what fitted is there"
    os.close(reader)
    os.close(writer)


@contextlib.contextmanager
def closed_pipe() -> Iterator[int]:
    reader, writer = os.pipe()
    os.close(reader)
    yield writer
    os.close(writer)


@contextlib.contextmanager
def full_device() -> Iterator[int]:
    with open("/dev/full", "wb", buffering=0) as device:
        yield device.fileno()


@pytest.mark.parametrize(
    "output",
    (stalled_pipe, closed_pipe, full_device),
    ids=lambda output: output.__name__,
)
def test_output_that_nobody_takes_stops_nothing(lab, upstreams, client, output):
    with output() as descriptor, Daemon(stdout=descriptor) as daemon:
        guest = client("g1", family=6)
        # Each forced IPv6 query dumps the tables, half a kilobyte and more; a pipe holds 64.
        for _ in range(400):
            assert guest.ask() is not None
        assert daemon.stop() == -SIGTERM


def test_a_file_gets_every_dump(lab, upstreams, client):
    with Daemon() as daemon:
        guest = client("g1", family=6)
        for _ in range(20):
            assert guest.ask() is not None
        dumps = daemon.output().split("***Show listen interface")[1:]
        assert len(dumps) == 21
        assert "The useCount:19\n" in dumps[20] and plan.GUEST in dumps[20]
