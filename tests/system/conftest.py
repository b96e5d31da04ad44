"""The router that every system test runs in, and the daemon under test.

Run from the top folder, in the sandbox:

    lab/enter -- /usr/bin/python3 -m pytest -p no:cacheprovider tests/system

The environment variable DNSPROXYD names another binary than the release build, such as one with sanitizers.
"""

import contextlib
import re
from signal import SIGINT, SIGTERM, default_int_handler, signal

import programs
import pytest
from clock import Clock

from lab import files, plan
from lab.client import Client
from lab.daemon import Daemon
from lab.router import Lab
from lab.sniffer import Sniffer
from lab.upstream import Upstream


# A shell lets its jobs in the background ignore this signal, and the daemons would do so as well.
signal(SIGINT, default_int_handler)


@pytest.fixture(scope="module")
def lab():
    """The devices and hosts. A test that changes a device puts it back, or asks for a lab of its own."""
    with Lab() as lab:
        yield lab


@pytest.fixture(autouse=True)
def clean_files():
    """Every test begins with the zone functions and no other file."""
    files.remove()
    files.write_zone_api()


@pytest.fixture(params=(4, 6), ids=("IPv4", "IPv6"))
def family(request):
    """What is the same in both families is tested in both."""
    return request.param


@pytest.fixture
def upstreams(lab):
    """Servers at every address of every line, by the line's number."""
    with contextlib.ExitStack() as stack:
        yield {number: stack.enter_context(Upstream(number)) for number in plan.LINES}


@pytest.fixture
def departures(lab):
    """The queries that leave the router."""
    with Sniffer() as sniffer:
        yield sniffer


@pytest.fixture
def arrivals(lab):
    """The servers' replies that reach the router."""
    with Sniffer(replies=True) as sniffer:
        yield sniffer


@pytest.fixture
def client(lab):
    """Makes hosts that ask, as `Client` does."""
    with contextlib.ExitStack() as stack:
        yield lambda *args, **options: stack.enter_context(Client(*args, **options))


@pytest.fixture
def fast_bus():
    """The environment of a daemon whose waits for the bus are thirty times as short."""
    return programs.with_clock()


@pytest.fixture
def clock():
    """The clock of daemons that get its environment: it stands."""
    with Clock() as clock:
        yield clock


@pytest.fixture
def start(lab):
    """Starts the daemon with these rules and lines. It must live until the test ends, and end by SIGTERM,
    and a sanitizer in it must have nothing to say.
    """
    with contextlib.ExitStack() as stack:
        daemons = []

        def start(rules, lines, **options):
            files.write_rules(rules)
            files.write_resolv(lines)
            daemons.append(stack.enter_context(Daemon(**options)))
            return daemons[-1]

        yield start
        for daemon in daemons:
            ended_by_itself = not daemon.alive()
            status = daemon.stop()
            assert not ended_by_itself, f"the daemon ended with status {status}:\n{daemon.output()}"
            assert status == -SIGTERM, f"the daemon's end:\n{daemon.output()}"
            assert not re.search("Sanitizer|runtime error:", daemon.output()), daemon.output()
