#!/bin/sh
# test-version.sh PACKAGE VERSION: what the installed package says of its version.
# Only dnsproxyctl tells one; the daemon takes no arguments and would serve.

case $1 in
    dnsproxyctl) dnsproxyctl --version | grep -qxF "dnsproxyctl $2" ;;
    dnsproxyd) [ -x /usr/sbin/dnsproxyd ] ;;
    *) exit 0 ;;
esac
