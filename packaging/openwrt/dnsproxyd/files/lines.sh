#!/bin/sh
# shellcheck shell=dash
#
# lines.sh start|update
#
# Shows the daemon this router's lines as netifd and mwan3 see them: /tmp/resolv.conf.auto and /tmp/online/state
# for one that starts, dnsproxyctl and the bus for one that runs. "update" does nothing before the init script's
# "start". On a router with zone functions of its own these files are the vendor's, and nothing is done.
#
# A line is a device. netifd can have several networks on one (wan, wan6), and the daemon takes a device once, so
# their servers go together under the first one's name. A network counts while it is up, has DNS servers, and has
# a default route or stands in the list "line" of /etc/config/dns.
#
# A line whose networks are all down is taken out of the daemon, and its device is off for when it is put in by hand.
#
# mwan3 tests networks, the daemon wants to know about devices: a line is off when mwan3 has disconnected a network
# on it and connected none. Of a line that is on, the disconnected networks' servers are left out. A line that is
# off keeps its IPv4 servers, for rules that force it and for when all are off; its IPv6 servers, for which the
# daemon does not look at the state, are left out while another line is on.
#
# In /var/run/dnsproxyd: "lines" (NAME DEVICE on|off SERVER... per line, as last shown), "devices" (NETWORK DEVICE
# of all that a network was up on, the latest first), "mwan3/NETWORK" (connected or disconnected).

RUN=/var/run/dnsproxyd

# shellcheck source=/dev/null
. /lib/functions.sh

# ask INTERFACE PATH: what netifd says of an interface.
ask() { jsonfilter -s "$dump" -e "@.interface[@.interface='$1']$2"; }

# NETWORK DEVICE of every network that is up.
networks() {
    local name device
    for name in $(jsonfilter -s "$dump" -e '@.interface[@.up=true].interface'); do
        device=$(ask "$name" .l3_device)
        [ -z "$device" ] || echo "$name" "$device"
    done
}

is_line() {
    if [ -n "$chosen" ]; then
        case " $chosen " in *" $1 "*) return 0 ;; *) return 1 ;; esac
    fi
    [ -n "$(ask "$1" '.route[@.mask=0].target')" ]
}

# Of the networks: NAME DEVICE MARK SERVER...
candidates() {
    local name device mark
    while read -r name device; do
        is_line "$name" || continue
        mark=-
        [ ! -e "$RUN/mwan3/$name" ] || read -r mark <"$RUN/mwan3/$name"
        # shellcheck disable=SC2046 # one line of all servers
        echo "$name" "$device" "$mark" $(ask "$name" "['dns-server'][*]")
    done
}

# Of the candidates: the lines.
lines() {
    awk '
        NF > 3 {
            row[++rows] = $0
            if (!($2 in name)) {
                device[++devices] = $2
                name[$2] = length($1) > 15 ? $2 : $1
            }
            if ($3 == "connected") connected[$2]
            if ($3 == "disconnected") disconnected[$2]
        }
        END {
            for (i = 1; i <= devices; i++) {
                d = device[i]
                on[d] = (d in connected) || !(d in disconnected)
                if (on[d]) some_on = 1
            }
            for (i = 1; i <= rows; i++) {
                n = split(row[i], word)
                d = word[2]
                if (on[d] && word[3] == "disconnected") continue
                for (k = 4; k <= n; k++) {
                    sub(/%.*/, "", word[k])
                    v6 = index(word[k], ":") > 0
                    if (v6 && !on[d] && some_on) continue
                    if (seen[d, word[k]]++ || count[d, v6]++ >= 2) continue
                    servers[d] = servers[d] " " word[k]
                }
            }
            for (i = 1; i <= devices; i++) {
                d = device[i]
                if (d in servers) print name[d], d, (on[d] ? "on" : "off") servers[d]
            }
        }'
}

# NAME DEVICE on|off of the lines, and of the devices whose networks are down.
states() {
    awk '
        FILENAME == ARGV[1] { print $1, $2, $3; shown[$2]; next }
        FILENAME == ARGV[2] { shown[$2]; next }
        !($2 in shown) { print $1, $2, "off"; shown[$2] }' "$RUN/lines" "$RUN/networks" "$RUN/devices"
}

# differences OLD NEW: what to tell dnsproxyctl. The daemon maps each name to the device that the network has by
# then, so a line that has gone goes by its device where its name now belongs to another line.
differences() {
    awk '
        { servers = $0; sub(/^[^ ]+ [^ ]+ [^ ]+/, "", servers) }
        FILENAME == ARGV[1] { old[$2] = servers; name[$2] = $1; next }
        {
            if (($2 in name) && old[$2] != servers) print "del", $1
            if (!($2 in name) || old[$2] != servers) print "put", $1 servers
            delete name[$2]
            taken[$1]
        }
        END { for (device in name) print "del", (name[device] in taken) ? device : name[device] }' "$1" "$2"
}

# replace FILE: by standard input, at once.
replace() { cat >"$1.new" && mv "$1.new" "$1"; }

write_files() {
    mkdir -p /tmp/online
    awk '{ print "#Interface " $1; for (i = 4; i <= NF; i++) print "nameserver " $i }' "$RUN/lines" |
        replace /tmp/resolv.conf.auto
    states | awk '{ print $2 "=" $3 }' | replace /tmp/online/state
}

tell_daemon() {
    local words said
    differences "$1" "$2" | while read -r words; do
        # shellcheck disable=SC2086 # the words of a command line
        said=$(dnsproxyctl $words 2>&1 </dev/null)
        case $? in
            0) ;;
            3) break ;; # it does not run, and will read the files
            *) logger -t dnsproxyd -p daemon.warn "dnsproxyctl $words: $said" ;;
        esac
    done
}

tell_bus() {
    local name device state
    states | while read -r name device state; do
        ubus call dnsproxy update_if "{\"name\":\"$name\",\"dev\":\"$device\",\"status\":\"$state\"}" </dev/null
    done >/dev/null 2>&1
}

main() {
    local bridge chosen dump before="$RUN/lines.before"
    [ "$1" = start ] || [ -e "$RUN/lines" ] || return 0
    config_load dns
    config_get_bool bridge main bridge 1
    config_get chosen main line
    [ "$bridge" -eq 1 ] || return 0
    [ "$(readlink /lib/zone/zone_api.sh)" = /usr/lib/dnsproxyd/zone_api.sh ] || return 0

    # One at a time; each sees the state that the last event left.
    mkdir -p "$RUN"
    exec 9>"$RUN/lock"
    flock 9
    dump=$(ubus call network.interface dump 2>/dev/null)
    touch "$RUN/lines" "$RUN/devices"
    cp "$RUN/lines" "$before"
    networks >"$RUN/networks"
    awk '!seen[$0]++' "$RUN/networks" "$RUN/devices" | replace "$RUN/devices"
    candidates <"$RUN/networks" | lines | replace "$RUN/lines"
    # The files come first: a daemon that does not hear what follows has yet to read them.
    write_files
    tell_daemon "$before" "$RUN/lines"
    tell_bus
}

main "$@"
