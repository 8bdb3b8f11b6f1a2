#!/usr/bin/env bash
# The generated man page and bash completion against the tool's own help:
# every command that `trel [COMMAND...] --help` lists, at every level, has its
# section in the man page and completes, and so does every option; the man
# page formats without warnings and states the exit statuses.
# Usage: check_docs.sh TOOL MAN_PAGE COMPLETION
set -u
tool=$1
man=$2
completion=$3
failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# From the text of `trel PATH --help`: the subcommand names, the option
# names (with REQUIRED, the required ones only), one a line; the arguments of
# the usage line.
help_commands() { sed -n '/^Subcommands:$/,/^$/p' <<<"$1" | awk 'NR > 1 && NF { print $1 }'; }
help_options() {
  sed -n '/^Options:$/,/^$/p' <<<"$1" | awk -v req="${2:-}" '/^  -/ && (req == "" || / REQUIRED/) { print $1 }' |
    tr ',' '\n'
}
help_arguments() {
  sed -n "s/^Usage: [^ ]* $2 *//p" <<<"$1" | sed 's/\[OPTIONS\]//; s/SUBCOMMAND//' | xargs
}

# The man page's section for PATH: from its ".SS" line to the next heading.
man_section() {
  local head
  if [ -z "$1" ]; then
    sed -n '/^\.SH GLOBAL OPTIONS/,/^\.SH COMMANDS/p' "$man"
  else
    head=".SS \"trel $(printf '%s' "$1" | sed 's/-/\\-/g')"
    awk -v head="$head" 'index($0, head) == 1 && (length($0) == length(head) || substr($0, length(head) + 1, 1) ~ /[ "]/) { on = 1; print; next }
      on && /^\.S[SH] / { exit } on { print }' "$man"
  fi
}

# Completion candidates for the words after "trel" (the last one is being
# completed), one a line.
# shellcheck source=/dev/null
source "$completion" || fail "cannot source $completion"
complete_words() {
  COMP_WORDS=(trel "$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _trel
  printf '%s\n' "${COMPREPLY[@]}"
}

unescape() { sed 's/\\-/-/g'; }
root_help=$($tool --help)
if [ -z "$(help_commands "$root_help")" ]; then
  fail "trel --help lists no command"
fi
# The page's name line (whatis) and version are the tool's.
name=$(sed -n '/^\.SH NAME$/{n;p;}' "$man")
[ "$name" = "trel \- $(head -n1 <<<"$root_help" | sed 's/^trel: //')" ] || fail "man page: NAME is '$name'"
version=$($tool version | sed 's/ (.*//')
grep -qxF ".TH TREL 1 \"\" \"$version\" \"User Commands\"" "$man" || fail "man page: .TH lacks '$version'"

commands=0
queue=("")
while [ ${#queue[@]} -gt 0 ]; do
  path=${queue[0]}
  queue=("${queue[@]:1}")
  # shellcheck disable=SC2086
  help=$($tool $path --help)
  section=$(man_section "$path")
  [ -n "$section" ] || fail "man page: no section for 'trel $path'"
  if [ -n "$path" ]; then
    # The synopsis names the arguments the usage line names.
    synopsis=$(head -n1 <<<"$section" | unescape | sed "s/^\.SS \"trel $path//; s/\"\$//; s/\[OPTIONS\]//; s/COMMAND\$//" | xargs)
    [ "$synopsis" = "$(help_arguments "$help" "$path")" ] ||
      fail "man page: 'trel $path' takes '$synopsis', the help says '$(help_arguments "$help" "$path")'"
  fi
  for opt in $(help_options "$help" REQUIRED); do
    grep -A1 -F -- "\fB$(printf '%s' "$opt" | sed 's/-/\\-/g')" <<<"$section" | tail -n1 | grep -q '(required)$' ||
      fail "man page: 'trel $path $opt' is not marked required"
  done
  # shellcheck disable=SC2086
  words=($path)
  for sub in $(help_commands "$help"); do
    commands=$((commands + 1))
    queue+=("${path:+$path }$sub")
    complete_words "${words[@]}" "" | grep -qxF -- "$sub" ||
      fail "completion: 'trel $path <TAB>' lacks $sub"
  done
  for opt in $(help_options "$help"); do
    case $opt in -h | --help) [ -n "$path" ] && continue ;; esac
    grep -qF -- "$(printf '%s' "$opt" | sed 's/-/\\-/g')" <<<"$section" ||
      fail "man page: 'trel $path' section lacks $opt"
    complete_words "${words[@]}" "$opt" | grep -qxF -- "$opt" ||
      fail "completion: 'trel $path $opt<TAB>' does not offer it"
  done
done

# Cases the tree walk above does not reach: option values, values skipped
# while finding the command, global options after a command, nothing hidden.
check_completion() {
  local want=$1
  shift
  local got
  got=$(complete_words "$@" | sort | paste -sd' ')
  [ "$got" = "$want" ] || fail "completion: 'trel $*<TAB>' gives '$got', not '$want'"
}
check_completion "int32 int32-dec int64" cfg get --type in
check_completion "str" cfg get --type st
check_completion "cfg" --root / --log-level 8 cf
check_completion "encode" --json base64 en
check_completion "--syslog" cfg get --sys
check_completion "" --man
check_completion "" cfg get KEY

# The man page: formats cleanly, exit statuses 0, 1 and 2, no hidden option.
if command -v groff >/dev/null; then
  warnings=$(groff -man -ww -z "$man" 2>&1)
  [ -z "$warnings" ] || fail "groff: $warnings"
else
  echo "note: groff not found, the man page's formatting is not checked"
fi
for status in 0 1 2; do
  sed -n '/^\.SH EXIT STATUS/,/^\.SH /p' "$man" | grep -qx "\.B $status" ||
    fail "man page: exit status $status not described"
done
grep -q 'man\\-page\|bash\\-completion' "$man" && fail "man page: lists a hidden option"

echo "$commands commands checked"
if [ $failures -ne 0 ]; then
  echo "docs: $failures failures"
  exit 1
fi
echo "docs: ok"
