#!/bin/bash
# tests/system/own_devices.sh: the sandbox of lab/enter has a /dev of its own. Nothing that a command makes there, a log
# socket for instance, is on the machine or in another sandbox, and the terminals and devices there can be used.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/../.."

mark=/dev/dnsproxyd-test.$$
trap 'rm -f "$mark"' EXIT
lab/enter -- touch "$mark"
if [[ -e $mark ]]; then
    echo "a sandbox made $mark on the machine" >&2
    exit 1
fi

lab/enter -- /usr/bin/python3 - <<'PYTHON'
import os, pty, socket

for path in ("/dev/log", "/dev/kmsg"):
    assert not os.path.exists(path), f"{path} is the machine's"
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind("/dev/log")
open("/dev/shm/file", "wb").close()

ours, theirs = pty.openpty()
assert os.path.samefile(os.ttyname(theirs), f"/dev/fd/{theirs}")
os.write(ours, b"word\n")
assert os.read(theirs, 10) == b"word\n"
for device, read in {"null": b"", "zero": b"\0", "full": b"\0", "random": None, "urandom": None}.items():
    with open(f"/dev/{device}", "rb", buffering=0) as source:
        assert read in (None, source.read(1)), device
PYTHON
