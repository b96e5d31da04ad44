"""dnsproxyctl against the running daemon."""

import json
import subprocess

import programs
import pytest

from lab import files, plan
from lab.daemon import Daemon

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
    for command in ("list", "addrs", "get", "set", "add", "put", "del", "delall"):
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
