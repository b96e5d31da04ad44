"""What is shipped: how large it is, what it needs, how it is hardened."""

import subprocess
from pathlib import Path

import pytest

from lab import daemon, files
from lab.daemon import Daemon
from lab.router import Lab
from tests.system import programs

KIB = 1024


def output(*argv: str) -> str:
    return subprocess.run(argv, check=True, capture_output=True, text=True).stdout


@pytest.fixture(scope="module", autouse=True)
def not_instrumented():
    symbols = output("readelf", "--syms", "--wide", daemon.binary())
    if "__asan_init" in symbols or "__tsan_init" in symbols:
        pytest.skip("an instrumented build is not what is shipped")


@pytest.fixture(params=["src/dnsproxyd", "tools/dnsproxyctl", "src/libdnsproxy-client.so"])
def binary(request) -> str:
    return programs.path(request.param)


def test_needs_nothing_but_the_c_library(binary):
    needed = [
        line.split("[")[1].rstrip("]") for line in output("readelf", "-d", binary).splitlines() if "(NEEDED)" in line
    ]
    assert needed == ["libc.so.6"]
    assert "_ZSt" not in output("readelf", "--syms", "--wide", binary), "parts of the C++ library's run time"


def test_is_hardened(binary):
    headers = output("readelf", "--headers", "--dynamic", "--syms", "--wide", binary)
    assert "DYN (" in headers, "position independent"
    assert "GNU_RELRO" in headers and "BIND_NOW" in headers, "full RELRO"
    stack = next(line for line in headers.splitlines() if "GNU_STACK" in line)
    assert "RWE" not in stack
    if "ctl" not in binary and not binary.endswith(".so"):
        assert "__stack_chk_fail" in headers
        assert "_chk@" in headers, "fortified calls"


def test_is_small(tmp_path):
    stripped = tmp_path / "dnsproxyd"
    subprocess.run(["strip", "-o", stripped, daemon.binary()], check=True)
    assert Path(stripped).stat().st_size < 100 * KIB


def test_is_small_when_idle():
    with Lab():
        files.write_zone_api()
        files.write_rules([{"name": "lan", "service_if": "LAN"}, {"name": "guest", "service_if": "GUEST"}])
        files.write_resolv(files.resolv_of_lines(1, 2, 3))
        with Daemon() as running:
            assert running.rss_kib() < 4 * KIB
