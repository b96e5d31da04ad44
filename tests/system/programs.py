"""The programs of the build that the daemon under test comes from."""

from pathlib import Path

from lab import daemon


def path(relative: str) -> str:
    """A file of that build, by its path in the build folder: `tools/dnsproxyctl`."""
    return str(Path(daemon.binary()).resolve().parent.parent / relative)
