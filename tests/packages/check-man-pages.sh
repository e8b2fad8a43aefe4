#!/usr/bin/env bash
# The manual pages are clean roff, and name every verb, option and exit code of the programs.
#     check-man-pages.sh MAN_FOLDER MIRELSNAP EMULATOR
set -euo pipefail
folder=$1 mirelsnap=$2 emulator=$3
wrong=0
complain() { echo "FAILED: $*" >&2; wrong=1; }

# What this machine's administrator adds to every page is not looked at.
. "$(dirname "$0")/../../cmake/own-folder.sh"
make_own_folder man
trap remove_own_folder EXIT
export GROFF_TMAC_PATH=$own_folder
touch "$GROFF_TMAC_PATH/man.local" "$GROFF_TMAC_PATH/mdoc.local"

for page in "$folder"/*.[1-9]; do
  said=$(groff -t -man -Tutf8 -ww -z "$page" 2>&1)
  [ -z "$said" ] || complain "groff on $page: $said"
  said=$(LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
  [ -z "$said" ] || complain "man on $page: $said"
done

# A page as plain text, with the hyphens that the terminal is given as they are typed.
text_of() { LC_ALL=C.UTF-8 MANWIDTH=1000 man -l "$1" | col -bx | sed 's/[‐−]/-/g'; }
options_of() { grep -oE '^ *(-[a-zA-Z],)?--[a-z-]+' <<<"$1" | grep -oE -- '--[a-z-]+' | sort -u; }
check_options() {
  local option
  for option in $(options_of "$2"); do
    grep -q -e "$option" <<<"$3" || complain "$1: $option is not in the manual page"
  done
}

page=$(text_of "$folder/mirelsnap.1")
help=$("$mirelsnap" --help)
check_options mirelsnap "$help" "$page"
verbs=$(sed -n '/^Verbs:/,$p' <<<"$help" | grep -oE '^  [a-z][a-z-]+' | sort -u || true)
[ -n "$verbs" ] || complain "mirelsnap --help names no verb"
for verb in $verbs; do
  grep -qE "^ +mirelsnap $verb( |$)" <<<"$page" || complain "mirelsnap(1) does not show: mirelsnap $verb"
  help=$("$mirelsnap" "$verb" --help)
  check_options "mirelsnap $verb" "$help" "$page"
  # 128 + N is said in words.
  for code in $(sed -n '/^\(The exit\|Exit\) code/,$p' <<<"$help" | grep -oE '\b1[0-9][0-9]\b' | grep -vx 128 | sort -u); do
    grep -qE "^ +$code " <<<"$page" || complain "mirelsnap $verb: exit code $code is not in the manual page"
  done
done
check_options mirelsnap-emulator "$("$emulator" --help)" "$(text_of "$folder/mirelsnap-emulator.1")"
exit $wrong
