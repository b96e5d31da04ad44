"""Programs: of the build that the daemon under test comes from, and of the router, which the lab does not have."""

import os
from pathlib import Path

from lab import daemon, files


def path(relative: str) -> str:
    """A file of that build, by its path in the build folder: `tools/dnsproxyctl`."""
    return str(Path(daemon.binary()).resolve().parent.parent / relative)


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
