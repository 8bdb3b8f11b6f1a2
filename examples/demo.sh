#!/usr/bin/env bash
# Shows what libtrel sees on a device snapshot.  Usage: demo.sh TREL DEVICE_DIR
set -uo pipefail
trel=$1
root=$2
run() {
  echo "\$ trel --root $root $*"
  "$trel" --root "$root" "$@"
  echo
}
run version
run read /proc/trelhal/system.info serialno
run --json read /proc/trelhal/system.info eth0.macaddr
run reduce-path /var/run/../tmp//system.cfg
run hexdump /var/run/ipready.br0
run board
run status eth0
run net bridge br0 --fdb
run net arp 192.0.2.30
run portal list
run portal vlan 20
run cfg get mgmt.vesk.env
run cfg section radio. --postfix .mode
run --json cfg get radio.1.channel --type int32
echo "\$ printf 'hello' | trel sha256 -"
printf 'hello' | "$trel" sha256 -
echo
run syswrapper reload
run ps --fds
run conntrack --top 5
run build-info
payload='{"event":"boot","uptime":12}'
echo "\$ echo '$payload' | trel --root $root trace envelope --namespace system --type boot -"
echo "$payload" | "$trel" --root "$root" trace envelope --namespace system --type boot -
echo
# Crash reports run oopsdump and the system wrapper's filters through the
# shell, which finds them on PATH (LIBTREL_ROOT roots files, not command
# names): the sample's own go first.
export PATH="$root/usr/bin:$root/usr/etc:$PATH"
run isolation list
log_cmd='oopsdump | syswrapper.sh sensitive-data-filter'
echo "\$ trel --root $root crash payload --log-cmd '$log_cmd'"
"$trel" --root "$root" crash payload --log-cmd "$log_cmd"
echo
