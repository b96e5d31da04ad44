"""Programs: of the build that the daemon under test comes from, and of the router, which the lab does not have."""

import os
from pathlib import Path

import pytest

from lab import daemon, files


def path(relative: str) -> str:
    """A file of that build, by its path in the build folder: `tools/dnsproxyctl`."""
    return str(Path(daemon.binary()).resolve().parent.parent / relative)


def with_clock(clock: str | None = None) -> dict[str, str]:
    """The environment of a program with a clock of tests/system/test_clock.c."""
    library = path("tests/test_clock.so")
    if not os.path.exists(library) or not daemon.binary().endswith("/dnsproxyd"):
        pytest.skip("this build's programs take no library of the machine's")
    options = "verify_asan_link_order=0:" + os.environ.get("ASAN_OPTIONS", "")
    return {"LD_PRELOAD": library, "ASAN_OPTIONS": options} | ({"CLOCK": clock} if clock else {})


def install(path: str, script: str) -> None:
    """Makes a program of the router."""
    files.write(path, "#!/bin/sh\n" + script)
    os.chmod(path, 0o755)


def install_ubus() -> None:
    """The bus's command line, as far as this project calls it."""
    install(
        "/usr/bin/ubus",
        'while getopts St:s: o; do [ "$o" = s ] && path=$OPTARG; done\nshift $((OPTIND - 1))\n'
        f'[ -S "$path" ] || exit 255\ncd {daemon.TOP} || exit\nreply=$(/usr/bin/python3 -m lab.broker "$path" "$@") || exit\n'
        '[ "$reply" = "{}" ] || echo "$reply" | sed "s/    /\t/g"\n',
    )
