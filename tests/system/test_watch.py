"""dnsproxyctl watch: lines that die and come back under a running daemon."""

import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import programs
import pytest

from lab import files, plan, wait
from lab.broker import Broker
from lab.daemon import Daemon
from lab.upstream import answer, silent

RULES = [{"name": "lan", "service_if": "LAN"}]
BUS = "/var/run/ubus.sock"
LOG = Path("/tmp/watch.log")
HOOKED = Path("/tmp/hooked")


class Watch:
    """The program, with a round per second."""

    def __init__(self):
        programs.install("/usr/bin/line-hook", f'echo "$@" >>{HOOKED}\n')
        HOOKED.write_text("", encoding="ascii")
        argv = [programs.path("tools/dnsproxyctl"), "watch", "--every=1", "--exec", "line-hook now"]
        with open(LOG, "w", encoding="ascii") as log:
            self.process = subprocess.Popen(argv, stdout=log, stderr=log)

    def said(self) -> list[str]:
        """What it has said, but for the first line, which says what it does."""
        return LOG.read_text(encoding="ascii").splitlines()[1:]

    def wait_for(self, line: str, count: int = 1) -> None:
        wait.until(lambda: self.said().count(line) >= count, f"{line!r} in {self.said()}")

    def stop(self) -> int:
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(wait.PATIENCE)


@pytest.fixture
def bus(lab) -> Iterator[Broker]:
    programs.install_ubus()
    with Broker(BUS) as bus:
        yield bus


@pytest.fixture
def watch(bus, upstreams):
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1, 2))
    with Daemon() as daemon:
        bus.wait_for("dnsproxy.statistics")
        watch = Watch()
        watch.daemon = daemon
        yield watch
        if watch.process.poll() is None:
            watch.process.kill()
            watch.process.wait()


def states(bus) -> dict[str, str]:
    return {device: line["status"] for device, line in bus.call("dnsproxy", "get_state")[1].items()}


def rounds(upstream, count: int) -> None:
    """Waits until a server has been asked that many times more."""
    server = upstream.servers[0]
    before = len(upstream.at(server))
    wait.until(lambda: len(upstream.at(server)) >= before + count, "the rounds")


OFF = "line WAN1 (wan1) is off: no server answered in 3 rounds"
ON = "line WAN1 (wan1) is on: a server answered in 2 rounds"


def test_a_line_dies_and_comes_back(watch, bus, upstreams, client):
    host = client("h1")

    def asks_with_retries() -> bool:
        ident, port = host.fresh_ident(0), host.open()
        patience = (*[0.5] * 4, wait.PATIENCE)
        return any(host.ask(ident=ident, port=port, timeout=seconds) is not None for seconds in patience)

    rounds(upstreams[1], 3)
    upstreams[1].answer_with(silent)
    answered = []
    wait.until(lambda: answered.append(asks_with_retries()) or OFF in watch.said(), OFF)
    assert states(bus) == {"wan1": "off", "wan2": "on"}
    assert watch.said() == [OFF]
    # Off, it is passed over: no query is lost.
    assert host.bulk(50).answered == 50
    upstreams[1].answer_with(answer)
    wait.until(lambda: answered.append(asks_with_retries()) or ON in watch.said(), ON)
    assert states(bus) == {"wan1": "on", "wan2": "on"}
    assert all(answered)
    hooked = "now WAN1 wan1 off\nnow WAN1 wan1 on\n"
    wait.until(lambda: HOOKED.read_text(encoding="ascii") == hooked, "a command for each change")
    upstreams[1].answer_with(silent)
    watch.wait_for(OFF, 2)
    assert watch.stop() == 0
    assert watch.said() == [OFF, ON, OFF, "stopped; the lines stay as they are"]
    assert states(bus) == {"wan1": "off", "wan2": "on"}


def test_an_administrator_has_his_way(watch, bus, upstreams):
    rounds(upstreams[1], 3)
    for line, state in ((1, "off"), (2, "off")):
        assert bus.call("dnsproxy", "update_if", {"name": "", "dev": f"wan{line}", "status": state})[0] == 0
    rounds(upstreams[1], 4)
    assert (states(bus), watch.said()) == ({"wan1": "off", "wan2": "off"}, [])
    # It says "off" as well, and then has a change to make.
    upstreams[1].answer_with(silent)
    rounds(upstreams[1], 8)
    upstreams[1].answer_with(answer)
    watch.wait_for(ON)
    assert states(bus) == {"wan1": "on", "wan2": "off"}


def test_daemon_and_bus_start_again(watch, bus, upstreams):
    rounds(upstreams[1], 3)
    upstreams[1].answer_with(silent)
    watch.wait_for(OFF)
    bus.restart()
    bus.wait_for("dnsproxy.statistics")
    rounds(upstreams[2], 3)
    assert states(bus) == {"wan1": "off", "wan2": "on"}
    watch.daemon.stop()
    watch.wait_for("dnsproxyd cannot be asked, waiting for it: dnsproxyd offers nothing of the kind on the bus")
    with Daemon():
        wait.until(lambda: states(bus).get("wan1") == "off", "the state that the daemon has forgotten")
        assert watch.process.poll() is None


def test_a_silent_server_is_told_once(watch, bus, upstreams):
    server = plan.LINES[1].addresses[1]
    upstreams[1].answer_with(silent, server)
    watch.wait_for(f"line WAN1 (wan1): the server {server} is silent, others answer")
    rounds(upstreams[1], 4)
    upstreams[1].answer_with(answer)
    watch.wait_for(f"line WAN1 (wan1): the server {server} answers again")
    assert len(watch.said()) == 2
