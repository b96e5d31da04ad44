#!/bin/sh
# shellcheck shell=dash disable=SC1090 # the file is named at run time
# The readers of the configuration store: a package's text, run as commands, as a router's own do it.

config_load() {
    CONFIG_SECTIONS=
    sh -n "/etc/config/$1" 2>/dev/null && . "/etc/config/$1"
}

config() {
    CONFIG_COUNT=$((CONFIG_COUNT + 1))
    CONFIG_SECTION=${2:-cfg$CONFIG_COUNT}
    CONFIG_SECTIONS="$CONFIG_SECTIONS $CONFIG_SECTION"
    option TYPE "$1"
}

option() { eval "CONFIG_${CONFIG_SECTION}_$1=\$2"; }
list() { eval "CONFIG_${CONFIG_SECTION}_$1=\"\${CONFIG_${CONFIG_SECTION}_$1:+\$CONFIG_${CONFIG_SECTION}_$1 }\$2\""; }
config_get() { eval "$1=\${CONFIG_${2}_$3:-\$4}"; }

config_get_bool() {
    config_get "$@"
    eval "case \$$1 in 1 | on | true | yes | enabled) $1=1 ;; *) $1=0 ;; esac"
}

config_foreach() {
    local section type
    for section in $CONFIG_SECTIONS; do
        config_get type "$section" TYPE
        [ "$type" != "$2" ] || "$1" "$section"
    done
}
