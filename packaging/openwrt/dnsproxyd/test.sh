#!/bin/sh
# test.sh PACKAGE VERSION: whether the installed package works, in a container that is no router.

# Serving needs a network; answering dnsproxyctl only the port, which nobody holds in a container.
daemon_answers() {
    local pid left=10 status=1
    dnsproxyd >/dev/null &
    pid=$!
    while [ "$left" -gt 0 ] && [ ! -p /var/run/nmpipe/dnsproxypublicrecvpipe ]; do
        sleep 1
        left=$((left - 1))
    done
    if kill -0 "$pid"; then
        dnsproxyctl list && status=0
        kill "$pid"
    fi
    return "$status"
}

case $1 in
    dnsproxyctl)
        dnsproxyctl --help >/dev/null || exit 1
        dnsproxyctl list 2>/dev/null
        [ $? -eq 3 ] # nobody answers
        ;;
    dnsproxyd) sh -n /etc/init.d/dnsproxyd && sh -n /usr/lib/dnsproxyd/lines.sh && daemon_answers ;;
    libdnsproxy-client*) [ -e /usr/lib/libdnsproxy-client.so.1 ] ;;
    *) exit 0 ;;
esac
