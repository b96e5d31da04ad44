"""dnsproxyctl against the running daemon."""

import contextlib
import json
import os
import socket
import subprocess
from pathlib import Path

import programs
import pytest

from lab import files, plan
from lab.broker import Broker
from lab.daemon import Daemon
from lab.upstream import silent

RULES = [{"name": "lan", "service_if": "LAN"}]
OLD = plan.LINES[1].addresses
DONE, REFUSED, USAGE, UNREACHABLE = range(4)


def ctl(command: str, **options) -> subprocess.CompletedProcess:
    """Runs the program with the words of a command line."""
    program = programs.path("tools/dnsproxyctl")
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
    return subprocess.run([program, *command.split()], text=True, check=False, timeout=30, **options)


def answer(command: str):
    """The JSON document of a command that must be done."""
    result = ctl(f"--json {command}")
    assert (result.returncode, result.stderr) == (DONE, ""), command
    return json.loads(result.stdout)


def refused(command: str, status: int, error: str) -> None:
    result = ctl(command)
    assert (result.returncode, result.stdout) == (status, ""), command
    assert result.stderr.splitlines()[0] == f"dnsproxyctl: {error}", command


def servers_of(ifname: str) -> tuple[str | None, ...]:
    found = answer(f"get {ifname}")
    assert found.keys() == {"interface", "ipv4", "ipv6"} and found["interface"] == ifname
    return (*found["ipv4"], *found["ipv6"])


@pytest.fixture
def daemon(start):
    return start(RULES, files.resolv_of_lines(1, 2))


def test_lists(daemon):
    assert answer("list") == {
        "interfaces": [
            {"device": plan.LINES[n].device, "ipv4": list(plan.LINES[n].addresses[:2])} for n in (1, 2)
        ]
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
    for command in (f"put NOPE {A}", "list -i NOPE", "--interface=NOPE addrs", "delall -i NOPE", "delall NOPE"):
        refused(command, REFUSED, "NOPE: cannot be mapped to a device (-9002)")
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
        ("", "a command is missing"),
        ("lists", "no such command: lists"),
        ("list WAN1", "list: too many arguments"),
        ("status WAN1", "status: too many arguments"),
        ("delall WAN1 WAN2", "delall: too many arguments"),
        ("delall -i WAN1 WAN1", "delall: the interface is given twice"),
        ("get", "get: the interface is missing"),
        ("get WAN1 WAN2", "get: too many arguments"),
        ("get -i WAN1 WAN1", "get: the interface is given twice"),
        ("del 1234567890123456", "1234567890123456: longer than 15 characters"),
        ("add WAN1", "add: a server is missing"),
        ("put WAN1", "put: a server is missing"),
        (f"set WAN1 {A} 10.0.1", "10.0.1: not an IPv4 or IPv6 address"),
        ("set WAN1 fe80::1%wan1", "fe80::1%wan1: not an IPv4 or IPv6 address"),
        (f"set WAN1 {A} {A} {A}", f"{A}: more than two IPv4 servers"),
        (f"set WAN1 {X} {X} {X}", f"{X}: more than two IPv6 servers"),
        (f"set WAN1 {A} {A} {X} {X} {X}", "too many arguments"),
    ):
        refused(command, USAGE, error)
    for command in ("--nonsense", "list -i"):
        assert ctl(command).returncode == USAGE, command
    assert daemon.output() == before


def test_help_and_version_need_no_daemon(lab):
    result = ctl("list --help")
    assert (result.returncode, result.stderr) == (DONE, "")
    for command in ("list", "addrs", "get", "set", "add", "put", "del", "delall", "status", "check"):
        assert f"\n  {command}" in result.stdout
    result = ctl("-V")
    assert result.returncode == DONE and result.stdout.startswith("dnsproxyctl ")


def test_no_daemon(lab):
    for command in ("list", "addrs -j", "get WAN1", f"set WAN1 {A} {B} {X}", "delall"):
        refused(command, UNREACHABLE, "the daemon cannot be reached (-9001)")
    files.write_rules(RULES)
    with Daemon():
        assert ctl("list").returncode == DONE
    refused("list", UNREACHABLE, "the daemon cannot be reached (-9001)")


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
        yield bus
        assert daemon.alive()


def findings() -> list[str]:
    """What the doctor says, without the remedies."""
    result = ctl("check")
    if result.stdout == "nothing found\n":
        assert result.returncode == DONE
        return []
    assert result.returncode == REFUSED
    return [line.split("; ")[0] for line in result.stdout.splitlines()]


def test_status(router, client):
    for _ in range(3):
        assert client("g1").ask() is not None
    assert router.call("dnsproxy", "update_if", {"name": "", "dev": "wan2", "status": "off"})[0] == 0
    assert answer(f"add WAN3 {A}") == {"result": 0}
    status = answer("status")
    assert status["serving"] and {each["name"] for each in status["port53"].values()} == {"dnsproxyd"}
    rows = [
        ("wan1", "WAN1", "on", 0, list(OLD[:2]), list(OLD[2:])),
        ("wan2", "WAN2", "off", 3, list(plan.LINES[2].addresses[:2]), list(plan.LINES[2].addresses[2:])),
        ("wan3", None, "on", 0, [A], None),
    ]
    assert [tuple(line.values()) for line in status["lines"]] == rows
    assert ctl("status").stdout.splitlines()[-2:] == [
        "wan2            WAN2            off    3        10.0.2.53 10.0.2.54 fd00:a:2::53 fd00:a:2::54",
        f"wan3            -               on     0        {A} (IPv6 unknown)",
    ]


def test_status_reads_uses_from_the_log(lab):
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1))
    head = "echo Mon daemon.info dnsproxyd[1]: "
    programs.install("/sbin/logread", f"{head}ifname:wan1 ifindex:0.\n{head}The useCount:7\n")
    with Daemon(stdout=subprocess.DEVNULL):
        (line,) = answer("status")["lines"]
    assert (line["uses"], line["state"]) == (7, None), "no bus"
    os.unlink("/sbin/logread")


def test_status_without_daemon(lab):
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
    "spelling": (lambda: rules({"force_if": "On"}), "rule lan: force_if 'On' has no effect"),
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
        with Daemon(serving=False):
            status = ctl("status")
            assert (status.returncode, status.stdout.splitlines()[0]) == (REFUSED, "serving: no")
            assert findings() == [holder]
    assert findings() == ["dnsproxyd is not running"]
    files.write_resolv({"WAN1": []})
    assert findings()[1:] == ["no line has a DNS server"]
