"""dnsproxyctl against the running daemon."""

import contextlib
import json
import os
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pipe_client as pipe
import programs
import pytest

from lab import files, netns, plan, wait
from lab.broker import Broker
from lab.daemon import TOP, Daemon
from lab.router import Lab
from lab.upstream import silent

RULES = [{"name": "lan", "service_if": "LAN"}]
OLD = plan.LINES[1].addresses
DONE, REFUSED, USAGE, UNREACHABLE = range(4)


def ctl(command: str, **options) -> subprocess.CompletedProcess:
    """Runs the program with the words of a command line."""
    program = programs.path("tools/dnsproxyctl")
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
    return subprocess.run([program, *command.split()], text=True, check=False, timeout=wait.PATIENCE, **options)


def answer(command: str):
    """The JSON document of a command that must be done."""
    result = ctl(f"--json {command}")
    assert (result.returncode, result.stderr) == (DONE, ""), command
    return json.loads(result.stdout)


def refused(command: str, status: int, error: str, **options) -> None:
    result = ctl(command, **options)
    assert (result.returncode, result.stdout) == (status, ""), command
    assert result.stderr.splitlines()[0] == f"dnsproxyctl: {error}", command


def servers_of(ifname: str) -> tuple[str | None, ...]:
    found = answer(f"get {ifname}")
    assert found.keys() == {"interface", "ipv4", "ipv6"} and found["interface"] == ifname
    return (*found["ipv4"], *found["ipv6"])


@pytest.fixture(scope="module")
def lab():
    """The servers are on the link: the tests of routes make each route that there is."""
    with Lab(on_link=True) as lab:
        yield lab


@pytest.fixture
def daemon(start):
    return start(RULES, files.resolv_of_lines(1, 2))


def test_lists(daemon):
    assert answer("list") == {
        "interfaces": [{"device": plan.LINES[n].device, "ipv4": list(plan.LINES[n].addresses[:2])} for n in (1, 2)]
    }
    assert answer("addrs") == {"addresses": [*OLD[:2], *plan.LINES[2].addresses[:2]]}
    assert ctl("list").stdout == (
        "DEVICE          FIRST           SECOND\n"
        "wan1            10.0.1.53       10.0.1.54\n"
        "wan2            10.0.2.53       10.0.2.54\n"
    )
    assert ctl("addrs").stdout.split() == [*OLD[:2], *plan.LINES[2].addresses[:2]]
    assert answer("delall") == {"result": 0}
    assert answer("list") == {"interfaces": []}
    assert answer("addrs") == {"addresses": []}
    assert ctl("list").stdout == "DEVICE          FIRST           SECOND\n"
    assert ctl("addrs").stdout == ""


def test_get_in_columns(daemon):
    answer("set WAN1 ::")
    assert ctl("get WAN1").stdout == (
        "FAMILY  FIRST                                   SECOND\n"
        "IPv4    10.0.1.53                               10.0.1.54\n"
        "IPv6    -                                       fd00:a:1::54\n"
    )


A, B, X, Y = "192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2"


@pytest.mark.parametrize(
    "servers, expected",
    [
        ("", OLD),
        (A, (A, *OLD[1:])),
        (f"{A} {B}", (A, B, *OLD[2:])),
        (X, (*OLD[:2], X, OLD[3])),
        (f"{X} {A} {Y} {B}", (A, B, X, Y)),
        (f"0.0.0.0 {B}", (OLD[0], B, *OLD[2:])),
        (f":: {Y} {A}", (A, OLD[1], None, Y)),
    ],
)
def test_set_keeps_what_is_not_given(daemon, servers, expected):
    assert answer(f"set WAN1 {servers}") == {"result": 0}
    assert servers_of("WAN1") == expected


@pytest.mark.parametrize(
    "servers, made, changed",
    [
        (A, (A, None, None, None), (A, *OLD[1:])),
        (f"{A} {X} {Y}", (A, None, X, Y), (A, OLD[1], X, Y)),
    ],
)
def test_add_and_put(daemon, servers, made, changed):
    for command in ("add", "put"):
        assert answer(f"{command} WAN3 {servers}") == {"result": 0}
        assert servers_of("WAN3") == made
        assert answer("del WAN3") == {"result": 0}
    assert answer(f"put WAN1 {servers}") == {"result": 0}
    assert servers_of("WAN1") == changed


def test_refusals(daemon):
    for command in ("get WAN3", f"set WAN3 {A} {B} {X}", "del WAN3"):
        refused(command, REFUSED, "WAN3: no such interface (-9005)")
    refused(f"put NOPE {A}", REFUSED, "NOPE: cannot be mapped to a device (-9002)")
    refused(f"add WAN1 {A}", REFUSED, "WAN1: interface exists (-9004)")
    assert servers_of("WAN1") == OLD
    refused(f"add WAN1 {A} {X}", REFUSED, "WAN1: interface exists; its IPv6 servers were replaced (-9004)")
    assert servers_of("WAN1") == (*OLD[:2], X, None)


def test_options_anywhere(daemon):
    expected = ctl("--json get WAN1").stdout
    for command in ("get --json WAN1", "get WAN1 -j", "-j -- get WAN1", "get -j -- WAN1"):
        assert ctl(command).stdout == expected, command
    assert ctl("get WAN1 -j", env={"POSIXLY_CORRECT": "1"}).stdout == expected


def test_odd_device_names_are_escaped(daemon):
    # A zone function that prints a name with a quote, a backslash, an escape and a byte beyond ASCII.
    files.write(
        files.ZONE_API,
        "zone_iface_to_userif() { :; }\nzone_get_effect_devices() { printf 'a\"\\\\\\033[1m\\351\\n'; }\n",
    )
    answer(f"add ODD {A}")
    assert answer("list")["interfaces"][-1] == {"device": 'a"\\\x1b[1m\xe9', "ipv4": [A, None]}
    assert ctl("list").stdout.splitlines()[-1] == 'a"\\?[1m?        192.0.2.1       -'


def test_usage_errors_send_nothing(daemon):
    before = daemon.output()
    for command, error in (
        ("", "a command is missing, see 'dnsproxyctl --help'"),
        ("lists", "no such command: lists"),
        ("--nonsense", "no such option: --nonsense"),
        ("list -jx", "no such option: -x"),
        ("list -i WAN1", "no such option: -i"),
        ("list WAN1", "list: one word too many: WAN1"),
        ("status WAN1", "status: one word too many: WAN1"),
        ("delall WAN1", "delall: one word too many: WAN1"),
        ("get", "get: the interface is missing"),
        ("get WAN1 WAN2", "get: one word too many: WAN2"),
        ("del 1234567890123456", "1234567890123456: longer than 15 characters"),
        ("add WAN1", "add: a server is missing"),
        ("put WAN1", "put: a server is missing"),
        ("add loopback 1.1.1.1", "add: loopback is the router itself and no line"),
        (f"set WAN1 {A} 10.0.1", "10.0.1: not an IPv4 or IPv6 address"),
        ("set WAN1 fe80::1%wan1", "fe80::1%wan1: not an IPv4 or IPv6 address"),
        (f"set WAN1 {A} {A} {A}", f"{A}: more than two IPv4 servers"),
        (f"set WAN1 {X} {X} {X}", f"{X}: more than two IPv6 servers"),
        (f"set WAN1 {A} {A} {X} {X} {B}", f"set: one word too many: {B}"),
        ("up", "up: the interface is missing"),
        ("list --prometheus", "list takes no option --prometheus"),
        ("stats 5", "stats: one word too many: 5"),
        ("stats --watch never", "--watch: never is no number of seconds"),
        ("stats --watch --prometheus", "stats takes no option --watch beside --prometheus"),
        ("watch --every 0", "--every: 0 is no number of seconds"),
        ("watch --down 1.5", "--down: 1.5 is no number of rounds"),
        ("watch --query a..b", "--query: a..b is no name"),
        ("watch --exec", "--exec: its value is missing"),
    ):
        refused(command, USAGE, error)
    assert daemon.output() == before


def test_help_and_version_need_no_daemon(lab):
    result = ctl("list --help")
    assert (result.returncode, result.stderr, result.stdout) == (DONE, "", ctl("help").stdout)
    for command in ("list", "addrs", "get", "set", "add", "put", "del", "delall", "status", "check", "stats", "watch"):
        assert f"\n  {command}" in result.stdout
    result = ctl("-V")
    assert result.returncode == DONE and result.stdout.startswith("dnsproxyctl ")


def test_completion(lab):
    files.write_resolv({"WAN1": [], "WAN2": []})
    files.write_rules(FORCED)
    script = TOP / "tools/dnsproxyctl.bash-completion"
    for line, words in (
        ("dnsproxyctl li", ["list"]),
        ("dnsproxyctl get ", ["WAN1", "WAN2"]),
        ("dnsproxyctl -j up W", ["WAN1", "WAN2"]),
        ("dnsproxyctl stats --w", ["--watch"]),
        ("dnsproxyctl get WAN1 ", []),
    ):
        typed = line.split(" ")
        result = subprocess.run(
            ["bash", "-c", 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _dnsproxyctl; '
             'printf "%s\\n" "${COMPREPLY[@]}"', script, *typed],
            capture_output=True, text=True, check=True,
        )  # fmt: skip
        assert result.stdout.split() == words, line


def unreachable(command: str, reason: str, **options) -> None:
    refused(command, UNREACHABLE, f"{reason} (-9001)", **options)


def test_no_daemon(lab):
    for command in ("list", "addrs -j", "get WAN1", f"set WAN1 {A} {B} {X}", "delall"):
        unreachable(command, "dnsproxyd is not running")
    files.write_rules(RULES)
    with Daemon():
        assert ctl("list").returncode == DONE
    unreachable("list", "dnsproxyd is not running")


NOBODY = {"user": 65534, "group": 65534, "extra_groups": []}


def test_another_user_is_told_so(router):
    result = ctl("list", **NOBODY)
    assert result.stderr == "dnsproxyctl: only root may ask dnsproxyd, run it as root (-9001)\n"
    status = ctl("status", **NOBODY)
    assert status.returncode == UNREACHABLE
    assert status.stdout.splitlines()[:2] == [
        "serving: ? (run it as root)",
        "UDP port 53 over IPv4: ? (run it as root)",
    ]
    assert json.loads(ctl("status -j", **NOBODY).stdout)["serving"] is None
    assert findings(**NOBODY) == ["this user may not see who holds UDP port 53, nor ask dnsproxyd"]


def test_a_daemon_that_is_stuck(daemon):
    """Nothing waits longer than ten seconds, which end early here."""
    impatient = {"env": os.environ | programs.with_clock("fast")}
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        unreachable("list", "dnsproxyd did not answer in time", **impatient)
        status = ctl("status", **impatient)
        assert (status.returncode, json.loads(ctl("status -j", **impatient).stdout)["lines"]) == (UNREACHABLE, None)
        assert "dnsproxyd did not answer in time" in status.stderr
        with contextlib.suppress(BlockingIOError):
            while True:
                pipe.send(pipe.Message(pipe.GETIFS).pack())
        unreachable("list", "too many requests wait for dnsproxyd, it serves none of them")
    finally:
        os.kill(daemon.pid, signal.SIGCONT)


def test_answer_that_cannot_be_printed(daemon):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = ctl("list", stdout=full)
    assert result.returncode == REFUSED
    assert result.stderr == "dnsproxyctl: standard output: No space left on device\n"


FORCED = RULES + [{"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"}]
BUS = "/var/run/ubus.sock"


@pytest.fixture
def router(lab, upstreams, start):
    """Two lines that work, with their bus, and its caller."""
    programs.install_ubus()
    with Broker(BUS) as bus:
        daemon = start(FORCED, files.resolv_of_lines(1, 2))
        bus.wait_for("dnsproxy")
        bus.wait_for("dnsproxy.statistics")
        bus.daemon = daemon
        yield bus
        assert daemon.alive()


def findings(**options) -> list[str]:
    """What the doctor says, without the remedies."""
    result = ctl("check", **options)
    assert result.stderr == ""
    if result.stdout == "nothing found\n":
        assert result.returncode == DONE
        return []
    assert result.returncode == REFUSED
    return result.stdout.splitlines()[::2]


def test_status(router, client):
    for _ in range(3):
        assert client("g1").ask() is not None
    assert ctl("down WAN2").returncode == DONE
    assert answer(f"add WAN3 {A}") == {"result": 0}
    dumps = 2  # at the start, after add
    wait.until(lambda: router.daemon.output().count("Show server interface") == dumps, "the dump")
    status = answer("status")
    assert status["serving"] and {each["name"] for each in status["port53"].values()} == {"dnsproxyd"}
    second = plan.LINES[2].addresses
    none, some = {"ipv4": [None, None], "ipv6": [None, None]}, {"ipv4": [1, None], "ipv6": [None, None]}
    rows = [
        ("wan1", "WAN1", "on", 0, list(OLD[:2]), list(OLD[2:]), none),
        ("wan2", "WAN2", "off", 3, list(second[:2]), list(second[2:]), some),
        ("wan3", None, "on", 0, [A, None], [None, None], none),
    ]
    assert [tuple(line.values()) for line in status["lines"]] == rows
    assert ctl("status").stdout.splitlines()[-3:] == [
        "wan2            WAN2            off   3        10.0.2.53 (100%) 10.0.2.54",
        "                                               fd00:a:2::53 fd00:a:2::54",
        f"wan3            -               on    0        {A}",
    ]
    assert router.daemon.output().count("Show server interface") == dumps, "status makes no dump"
    assert client("h1").ask() is not None
    assert [line["device"] for line in answer("status")["lines"]] == ["wan2", "wan3", "wan1"], "in their order"


def test_up_and_down(router):
    def states() -> list[str]:
        return [line["state"] for line in answer("status")["lines"]]

    assert answer("down wan1") == {"result": 0}
    assert states() == ["off", "on"]
    assert answer("up WAN1") == {"result": 0}
    assert states() == ["on", "on"]
    refused("down WAN3", REFUSED, "WAN3: dnsproxyd has no such line")


def test_without_a_bus(daemon):
    """One request, and question marks."""
    programs.install_ubus()
    first, second = answer("status")["lines"]
    wait.until(lambda: daemon.output().count("Show server interface") == 2, "the dump at the start, and one more")
    assert second["device"] == "wan2"
    assert tuple(first.values())[:6] == ("wan1", "WAN1", None, None, list(OLD[:2]), None)
    rows = ctl("status").stdout.splitlines()
    assert rows[-3].split() == ["wan1", "WAN1", "?", "?", *OLD[:2], "(IPv6", "?)"]
    assert rows[-1] == "? is not known: the bus cannot be reached"
    for command in ("down WAN1", "stats"):
        refused(command, UNREACHABLE, "the bus cannot be reached")


def test_status_of_a_daemon_without_lines(start):
    start(RULES, {})
    status = ctl("status")
    assert (status.returncode, status.stdout.splitlines()[0]) == (REFUSED, "serving: no (no line has a DNS server)")
    assert json.loads(ctl("status -j").stdout)["serving"] is False


def test_as_many_lines_as_there_are(start):
    files.write(files.ZONE_API, 'zone_iface_to_userif() { echo "$1"; }\nzone_get_effect_devices() { echo "$1"; }\n')
    names = [f"line{number}" for number in range(100)]
    start(RULES, {name: [A] for name in names})
    assert [line["device"] for line in answer("status")["lines"]] == names
    away = [f"line {name}: its device {name} is not there but counts as up" for name in names]
    assert [finding for finding in findings() if finding.startswith("line line")] == away


REPLIES = {
    "cut": '{"uptime":1,"lines":[{"dev":"wan1"',
    "of another kind": '{"lines":7}',
    "empty": "",
    "deep": '{"lines":' + "[" * 5000,
}


@pytest.mark.parametrize("reply", REPLIES.values(), ids=REPLIES.keys())
def test_a_reply_that_makes_no_sense(daemon, reply):
    files.write("/tmp/reply", reply)
    programs.install("/usr/bin/ubus", "cat /tmp/reply\n")
    refused("stats", UNREACHABLE, "the call on the bus failed")
    assert [line["ipv4"] for line in answer("status")["lines"]] == [list(OLD[:2]), list(plan.LINES[2].addresses[:2])]


def test_a_daemon_of_another_version(daemon):
    files.write("/tmp/reply", '{"lines":[{"dev":"wan1","ipv4":{"servers":[{"address":"10.0.1.53"}]}}]}')
    programs.install("/usr/bin/ubus", "cat /tmp/reply\n")
    (line,) = answer("status")["lines"]
    assert (line["state"], line["uses"], line["answered"]["ipv4"]) == (None, None, [None, None])
    assert ctl("stats").stdout.splitlines()[-2].split() == ["10.0.1.53", "?", "-", "?", "-", "-"]


def test_status_without_daemon(lab):
    files.remove(files.ZONE_API)
    files.write_resolv(files.resolv_of_lines(1))
    result = ctl("status")
    assert (result.returncode, result.stderr) == (REFUSED, "")
    assert result.stdout == "serving: no\nUDP port 53 over IPv4: nobody\nUDP port 53 over IPv6: nobody\n"
    assert json.loads(ctl("status -j").stdout)["lines"] is None


def test_check_as_json(router):
    assert answer("check") == {"findings": []}
    files.remove(files.RULES)
    assert json.loads(ctl("check -j").stdout) == {
        "findings": [
            {
                "finding": "/etc/config/dns cannot be read, dnsproxyd ends at its start",
                "remedy": "write the rules: dnsproxyd-rules(5)",
            }
        ]
    }


def rules(*changes: dict[str, str]) -> None:
    files.write_rules([rule | change for rule, change in zip(FORCED, changes)])


def resolv(text: str) -> None:
    files.write(files.RESOLV, text)


RESOLV_OF_BOTH = f"#Interface WAN1\nnameserver {OLD[0]}\n#Interface WAN2\nnameserver 10.0.2.53\n"
FILE = "/tmp/resolv.conf.auto: "

FAULTS = {
    "no zone functions": (lambda: files.remove(files.ZONE_API), "/lib/zone/zone_api.sh is missing or broken"),
    "one zone function": (
        lambda: files.write(files.ZONE_API, "zone_iface_to_userif() { :; }\n"),
        "zone_get_effect_devices in /lib/zone/zone_api.sh is missing or broken",
    ),
    "no rules file": (
        lambda: files.remove(files.RULES),
        "/etc/config/dns cannot be read, dnsproxyd ends at its start",
    ),
    "no rule": (lambda: files.write_rules([]), "no rule, no network is served"),
    "unknown service_if": (lambda: rules({"service_if": "NO"}), "rule lan: the zone functions give no device for NO"),
    "no service_if": (
        lambda: files.write_rules([{"name": "lan"}]),
        "rule lan: service_if is missing, it serves nobody",
    ),
    "device away": (
        lambda: rules({"service_if": "IPTV"}),
        "rule lan: IPTV is br-iptv, a device that is not there",
    ),
    "served twice": (
        lambda: rules({}, {"service_if": "LAN"}),
        "rule guest: an earlier rule serves br-lan, this one has no effect",
    ),
    "a mistake in the rules": (
        lambda: files.write(files.RULES, "config rule\n\toption name 'lan\n"),
        "/etc/config/dns: Parse error (EOF with unterminated ') at line 2, byte 18, dnsproxyd ends at its start",
    ),
    "another word for on": (
        lambda: rules({}, {"force_if": "1"}),
        "rule guest: force_if '1' counts as off, its queries leave by any line",
    ),
    "out_if alone": (
        lambda: rules({"out_if": "WAN2"}),
        "rule lan: out_if without force_if has no effect, its queries leave by any line",
    ),
    "unknown option": (
        lambda: rules({"forceif": "on"}),
        "rule lan: the option forceif is not known and has no effect",
    ),
    "spelling": (
        lambda: rules({"out_type": "Polling"}),
        "rule lan: out_type 'Polling' has no effect, its queries take the lines in turn",
    ),
    "no out_if": (
        lambda: files.write_rules([FORCED[0] | {"force_if": "on"}]),
        "rule lan: force_if is on but out_if is missing, its hosts get no answer",
    ),
    "out device away": (
        lambda: rules({}, {"out_if": "IPTV"}),
        "rule guest: IPTV is br-iptv, a device that is not there",
    ),
    "forced line without server": (
        lambda: rules({}, {"out_if": "WAN3"}),
        "rule guest: the line WAN3 has no DNS server, its hosts get no answer",
    ),
    "PPPoE not served": (
        lambda: files.write_rules([RULES[0], {"name": "dnsproxy_pppoes", "service_if": "PPPOES"}]),
        "rule dnsproxy_pppoes: no rule serves br-pppoe, PPPoE clients get no answer",
    ),
    "no resolver file": (
        lambda: files.remove(files.RESOLV),
        FILE[:-2] + " cannot be read, no line has servers at the next start",
    ),
    "blank in headings": (
        lambda: resolv(RESOLV_OF_BOTH.replace("#", "# ")),
        FILE + "its headings are # Interface NAME, which are not read",
    ),
    "no heading": (lambda: resolv("nameserver 10.0.1.53\n"), FILE + "no heading, its servers belong to no line"),
    "early server": (
        lambda: resolv("nameserver 10.0.1.53\n" + RESOLV_OF_BOTH),
        FILE + "servers before the first heading, which are not read",
    ),
    "no address": (
        lambda: resolv(RESOLV_OF_BOTH + "nameserver dns.example\n"),
        FILE + "dns.example is no address",
    ),
    "unknown line": (
        lambda: resolv(RESOLV_OF_BOTH + "#Interface NO\n"),
        FILE + "the zone functions give no device for NO, nothing from there on is read",
    ),
    "line twice": (
        lambda: resolv(RESOLV_OF_BOTH + "#Interface WAN1\n"),
        FILE + "a second section for wan1, nothing from there on is read",
    ),
}


def test_check_finds_each_fault(router):
    for fault, (make, finding) in FAULTS.items():
        files.write_zone_api()
        files.write_rules(FORCED)
        resolv(RESOLV_OF_BOTH)
        make()
        assert findings() == [finding], fault


def test_check_of_lines(router, upstreams, lab):
    upstreams[1].answer_with(silent, OLD[3])
    assert findings() == [f"line WAN1: the server {OLD[3]} does not answer through wan1"]
    upstreams[1].answer_with(silent)
    silent_line = "line WAN1: none of its 4 servers answers through wan1"
    assert findings() == [silent_line]
    answer(f"add WAN3 {plan.LINES[3].addresses[0]}")
    lab.line_delete(3)
    lab.line_delete(2)
    away = "line {}: its device {} is not there but counts as up"
    assert findings() == [away.format("WAN2", "wan2"), away.format("wan3", "wan3"), silent_line]
    for device in ("wan1", "wan2", "wan3"):
        router.call("dnsproxy", "update_if", {"name": "", "dev": device, "status": "off"})
    assert findings() == ["rule guest: WAN2 is wan2, a device that is not there"]
    lab.line_create(2)
    lab.line_create(3)
    assert findings() == []


@pytest.mark.parametrize("families, told", [((4, 6), "IPv4 and IPv6"), ((6,), "IPv6"), ((4,), "IPv4")])
def test_check_tells_who_has_the_port(lab, upstreams, families, told):
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1))
    with contextlib.ExitStack() as stack:
        for family in families:
            kind, address = (socket.AF_INET6, "::1") if family == 6 else (socket.AF_INET, "127.0.0.53")
            stack.enter_context(socket.socket(kind, socket.SOCK_DGRAM)).bind((address, 53))
        name = Path("/proc/self/comm").read_text(encoding="ascii").strip()
        holder = f"UDP port 53 over {told} belongs to {name} (process {os.getpid()})"
        assert findings() == [holder]
        with Daemon(serving=False) as proxy:
            wait.until(lambda: proxy.output().endswith("\nEnd\n\n"), "the start-up dump")
            status = ctl("status")
            assert (status.returncode, status.stdout.splitlines()[0]) == (REFUSED, "serving: no")
            assert findings() == [holder]
            family = "IPv4" if 4 in families else "IPv6"
            owner = holder.replace(told, family)
            refused("list", UNREACHABLE, f"dnsproxyd does not serve: {owner}")
    assert findings() == ["dnsproxyd is not running"]
    files.write_resolv({"WAN1": []})
    assert findings()[1:] == ["no line has a DNS server"]


def netifd_gives(*servers: str) -> None:
    """Makes the bus's program answer for netifd, with these servers of the network on wan1."""
    networks = [{"interface": "wan", "up": True, "l3_device": "wan1", "dns-server": list(servers)}]
    files.write("/tmp/dump", json.dumps({"interface": networks}))
    real = Path("/usr/bin/ubus").read_text(encoding="ascii").removeprefix("#!/bin/sh\n")
    programs.install("/usr/bin/ubus", f'case "$*" in *network.interface*) exec cat /tmp/dump ;; esac\n{real}')


def test_check_compares_servers_with_netifd(router):
    netifd_gives(*OLD)
    assert findings() == []
    netifd_gives("10.0.1.99", *OLD[1:])
    assert findings() == [
        "line WAN1: dnsproxyd asks 10.0.1.53, which netifd does not give for wan1 (it gives fd00:a:1::54)"
    ]
    answer("set WAN1 ::ffff:10.0.1.54 ::")
    netifd_gives(*OLD[:2])
    assert findings() == [], "it is the same server"


def test_check_of_hosts_that_ask_over_ipv6(router, upstreams):
    for name in ("WAN1", "WAN2"):
        answer(f"set {name} :: ::")
    result = ctl("check")
    assert result.stdout == (
        "no line has an IPv6 server, hosts on br-lan that ask over IPv6 get no answer\n"
        "    give each line its IPv4 servers for them: dnsproxyctl set WAN1 ::ffff:10.0.1.53\n"
    )


def test_check_of_pppoe_lines(lab, upstreams, start):
    """A line whose device is named like those of PPPoE clients."""
    files.write_zone_api(plan.LOGICAL | {"WAN1": "pppoe-wan"})
    rules = RULES + [{"name": "dnsproxy_pppoes", "service_if": "PPPOES"}, {"name": "p", "service_if": "PPPOES"}]
    netns.ip_batch(["link add pppoe-wan type bridge"])
    start(rules, {"WAN1": [A, X]})
    said = "line WAN1: pppoe-wan counts as a PPPoE client, strangers there are served as if on br-pppoe"
    assert said in findings()
    netns.ip_batch(["link delete pppoe-wan"])


ROUTES = {
    "no default route": ("192.0.2.1", [], "line WAN1: wan1 has no gateway of its own to the server 192.0.2.1"),
    "no answer beyond the gateway": (
        "192.0.2.1",
        ["route add default via 10.0.1.53 dev wan1 metric 5"],
        "line WAN1: the server 192.0.2.1 does not answer through wan1",
    ),
    "no IPv6 default route": ("2001:db8::1", [], "line WAN1: wan1 has no gateway of its own to the server 2001:db8::1"),
    "a source-specific route": (
        "2001:db8::1",
        ["route add default from fd00:a:1::/64 via fd00:a:1::53 dev wan1"],
        "line WAN1: only a source-specific route leads to the server 2001:db8::1 through wan1",
    ),
}


@pytest.mark.parametrize("server, routes, said", ROUTES.values(), ids=ROUTES.keys())
def test_check_asks_for_the_route(router, server, routes, said):
    answer("del WAN1")
    answer(f"add WAN1 {server}")
    netns.ip_batch(routes)
    try:
        assert findings() == [said]
    finally:
        netns.ip_batch([route.replace(" add ", " del ") for route in routes])


@contextlib.contextmanager
def server_beyond_gateway(address: str):
    """Answers at an address that only the line's gateway reaches."""
    netns.set_sysctls({"ipv4/conf/all/arp_ignore": 1}, "up1")
    netns.ip_batch([f"address add {address}/32 dev lo"], "up1")
    netns.ip_batch(["route add default via 10.0.1.53 dev wan1"])
    with netns.inside("up1"):
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind((address, 53))

    def serve() -> None:
        while (datagram := sock.recvfrom(512))[0]:
            sock.sendto(datagram[0][:2] + b"\x80" + datagram[0][3:], datagram[1])

    thread = threading.Thread(target=serve)
    thread.start()
    try:
        yield
    finally:
        with netns.inside("up1"), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as last:
            last.sendto(b"", (address, 53))
        thread.join()
        sock.close()
        netns.ip_batch(["route del default via 10.0.1.53 dev wan1"])


def test_check_of_marked_queries(router):
    """A policy marks what leaves, as mwan3 does, and leads it past the line."""
    answer("del WAN1")
    answer("add WAN1 203.0.113.1")
    rules = ["rule add pref 2001 fwmark 0x200/0x3f00 lookup 102", "rule add pref 3001 fwmark 0x200/0x3f00 unreachable"]
    mark = "meta mark and 0x3f00 == 0 udp dport 53 meta mark set 0x200"
    table = f"table ip marks {{\n chain output {{\n  type route hook output priority mangle\n  {mark}\n }}\n}}"
    with server_beyond_gateway("203.0.113.1"):
        assert findings() == []
        if subprocess.run(["nft", "-f", "-"], input=table, text=True, check=False).returncode != 0:
            pytest.skip("this kernel has no nftables")
        netns.ip_batch(["route add default via 10.0.2.53 dev wan2 table 102", *rules])
        said = findings()
        netns.ip_batch([rule.replace(" add ", " del ") for rule in rules])
        subprocess.run(["nft", "flush", "ruleset"], check=True)
    server = "the server 203.0.113.1 does not answer through wan1"
    assert said == [f"line WAN1: {server} to queries that are marked by mwan3"]
