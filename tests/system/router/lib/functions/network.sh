#!/bin/sh
# shellcheck shell=dash
# The one function of a router's own that is used.

network_get_device() {
    local found
    found=$(ubus call network.interface dump | jsonfilter -e "@.interface[@.interface='$2'].l3_device")
    eval "$1=\$found"
    [ -n "$found" ]
}
