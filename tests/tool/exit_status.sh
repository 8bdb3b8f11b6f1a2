#!/bin/sh
# Exit statuses of the trel tool when an operation fails or the usage is
# wrong: one row per case with the status wanted, the pattern its single
# "trel: " line on standard error must match (nothing for status 2, whose
# message comes from the option parser) and the arguments.  A failure prints
# nothing on standard output.  A crash or a loader error gives another status,
# so it never passes for the failure expected.
set -u
trel=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/dir"
printf 'Zm9v!' >"$tmp/junk"
printf 'Zm9v=' >"$tmp/overpad"
printf 'secret\n' >"$tmp/secret"
key=00112233445566778899aabbccddeeff
dir=$tmp/dir
isdir="cannot read $dir: Is a directory"
failed=0

row() {
  want=$1 pattern=$2
  shift 2
  "$trel" "$@" >"$tmp/out" 2>"$tmp/err" </dev/null
  got=$?
  lines=$(grep -c '^trel: ' "$tmp/err")
  ok=1
  [ "$got" -eq "$want" ] || ok=0
  case $want in
    0) [ "$lines" -eq 0 ] || ok=0 ;;
    1) { [ "$lines" -eq 1 ] && grep -q "^trel: $pattern\$" "$tmp/err" && [ ! -s "$tmp/out" ]; } || ok=0 ;;
    *) { [ -s "$tmp/err" ] && [ ! -s "$tmp/out" ]; } || ok=0 ;;
  esac
  if [ $ok -eq 0 ]; then
    echo "FAIL: trel $*: status $got, want $want '$pattern'; stderr:"
    cat "$tmp/err"
    failed=1
  fi
}

# Input that is a directory or missing.
row 1 "$isdir" sha256 "$dir"
row 1 "cannot read $tmp/absent: No such file or directory" sha256 "$tmp/absent"
row 1 "$isdir" base64 encode "$dir"
row 1 "$isdir" base64 decode "$dir"
row 1 "$dir: Is a directory" hexdump "$dir"
row 1 "$isdir" aes encrypt --key $key --iv $key "$dir"
row 1 "$isdir" proto encode --key $key --method 1 --type 2 "$dir"
row 1 "$isdir" proto decode --key $key "$dir"
row 1 "$isdir" cfg --file "$dir" print
row 1 "$isdir" cfg diff "$dir" "$tmp/secret"
row 0 "" cfg diff "$tmp/secret" "$tmp/overpad"
row 1 "$isdir" http post http://127.0.0.1:1/ --json "$dir"
row 1 "$isdir" ipc send "$tmp/no-socket" 1 "$dir"
# Text that is not Base64.
row 1 "not Base64 at offset 4" base64 decode "$tmp/junk"
row 1 "not Base64 at offset 4" base64 decode "$tmp/overpad"
# Commands that fail, a command cut short by --max that does not.
row 1 "'exit 3' exited with status 3" run -- 'exit 3'
row 0 "" run --max 5 -- 'yes | head -c 1000000'
row 1 "no system-wrapper script to run" --root "$dir" syswrapper apply
# Only http and https.
row 1 "GET file://$tmp/secret: libcurl error 1 (--log-level 8 shows details)" \
  http get "file://$tmp/secret"
# Bad usage.
row 2 "" sha256 --no-such-option
row 2 "" no-such-command

[ $failed -eq 0 ] && echo "tool exit statuses: ok"
exit $failed
