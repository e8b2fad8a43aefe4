#!/usr/bin/env bash
# The completion knows every verb and option of the program, and completes devices, mount points and commands.
#     check-completion.sh COMPLETION MIRELSNAP
set -uo pipefail
# Mounted volumes as the completion sees them.
findmnt() {
  case "$*" in
    *SOURCE,TARGET*) printf '%s\n' '/dev/sda1 /' '/dev/sdb1 /srv/my\x20data' 'tmpfs /run' ;;
    *) printf '%s\n' /dev/sda1 /dev/sdb1 tmpfs ;;
  esac
}
compopt() { :; }
. "$1"
mirelsnap=$2
wrong=0

# What TAB offers behind these words.
offered() {
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
  _mirelsnap
  printf '%s\n' "${COMPREPLY[@]}"
}
expect() {
  local wanted=$1 got
  shift
  got=$(offered "$@" | sort | tr '\n' ' ')
  [ "$got" = "$wanted " ] || { echo "FAILED: '$*' offers '$got', not '$wanted'" >&2; wrong=1; }
}
expect_among() {
  local wanted=$1
  shift
  offered "$@" | grep -xF -e "$wanted" >/dev/null || { echo "FAILED: '$*' does not offer $wanted" >&2; wrong=1; }
}

verbs=$("$mirelsnap" --help | sed -n '/^Verbs:/,$p' | grep -oE '^  [a-z][a-z-]+')
[ -n "$verbs" ] || { echo 'FAILED: mirelsnap --help names no verb' >&2; wrong=1; }
for verb in $verbs; do
  expect_among "$verb" mirelsnap ''
  for option in $("$mirelsnap" "$verb" --help | grep -oE '^ *(-[a-zA-Z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+'); do
    expect_among "$option" mirelsnap "$verb" -
  done
done

expect 'run' mirelsnap ru
expect '/ /dev/sda1 /dev/sdb1 /srv/my\ data' mirelsnap plan ''
expect '/srv/my\ data' mirelsnap doctor /s
expect '/srv/my\ data' mirelsnap run --volume /s
expect '/dev/sdb1' mirelsnap changes /dev/sdb
expect '/ /srv/my\ data' mirelsnap run --bind ''
expect '/srv/my\ data' mirelsnap run --volume /dev/sdb1 : /s
expect '/ /srv/my\ data' mirelsnap run --volume /dev/sdb1 :
expect '/dev/sdb1' mirelsnap run --volume = /dev/sdb
expect '/ /srv/my\ data' mirelsnap run --bind =
expect '3' mirelsnap log-level 3
expect 'emerg err' mirelsnap log-level e
expect '' mirelsnap run --reloc-size ''
expect_among true mirelsnap run --volume / -- tru
exit $wrong
