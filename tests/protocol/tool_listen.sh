#!/usr/bin/env bash
# trel proto listen in a private network namespace: a datagram sent to
# 127.0.0.1:48000 is printed with its method and sender.  Exit 77 (skipped)
# without the rights for a namespace.
set -u
trel=$1
examples=$2
if [ "${TREL_IN_NETNS:-}" != 1 ]; then
  unshare -n true 2>/dev/null || exit 77
  TREL_IN_NETNS=1 exec unshare -n "$0" "$@"
fi
ip link set lo up || exit 77
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/var/run" "$root/proc/trelhal"
cp "$examples/device/var/run/trel_protocol.info" "$root/var/run/"
cp "$examples/device/proc/trelhal/system.info" "$root/proc/trelhal/"
key=$(sed -n 's/^morna.key=//p' "$root/var/run/trel_protocol.info")
printf 'hello from the tool' | "$trel" --root "$root" proto encode --key "$key" --method 6 --type 3 >"$root/dg" || exit 1
"$trel" --root "$root" proto listen --count 1 >"$root/out" &
pid=$!
# Resend until the listener has taken one message (at most 5 s).
for _ in $(seq 50); do
  kill -0 $pid 2>/dev/null || break
  cat "$root/dg" >/dev/udp/127.0.0.1/48000
  sleep 0.1
done
kill $pid 2>/dev/null
wait $pid
cat "$root/out"
