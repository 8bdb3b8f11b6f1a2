#!/bin/sh
# Sample system wrapper of the demo device: says what it was asked to do, and
# implements the two filters that crash reports pipe their logs through.
verb="$1"
[ $# -gt 0 ] && shift
case "$verb" in
sensitive-data-filter)
    # Masks the value after anything named like a password, key or secret.
    sed -E 's/((pass(word|wd)?|psk|secret|token|key)[A-Za-z0-9_.-]*[=:] *)[^ ,;]+/\1********/Ig'
    ;;
systemcfg-sensitive-data-filter)
    # Masks the values of system.cfg keys naming a password, key or secret.
    sed -E 's/^([^=]*(pass|psk|secret|token|key)[^=]*=).*/\1********/I'
    ;;
"")
    echo "usage: syswrapper.sh VERB [ARG...]" >&2
    exit 2
    ;;
*)
    echo "syswrapper: $verb${*:+ $*}"
    ;;
esac
