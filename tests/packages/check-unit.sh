#!/usr/bin/env bash
# systemd takes the unit as it is, and what it starts is a verb of the program.
#     check-unit.sh UNIT MIRELSNAP
set -euo pipefail
unit=$1 mirelsnap=$2
. "$(dirname "$0")/../../cmake/own-folder.sh"
make_own_folder unit
trap remove_own_folder EXIT
command=$(sed -n 's/^ExecStart=//p' "$unit")
read -r program verb rest <<<"$command"
[ "$program" = mirelsnap ] || { echo "FAILED: it starts $program" >&2; exit 1; }
# shellcheck disable=SC2086 -- options are words
"$mirelsnap" "$verb" $rest --help >/dev/null || { echo "FAILED: mirelsnap has no $verb" >&2; exit 1; }
# As installed, but with the program of this build and without the manual page, which is not installed yet.
sed -e "s#^ExecStart=mirelsnap#ExecStart=$mirelsnap#" -e '/^Documentation=/d' "$unit" >"$own_folder/$(basename "$unit")"
said=$(systemd-analyze verify --man=no "$own_folder/$(basename "$unit")" 2>&1) || { echo "FAILED: $said" >&2; exit 1; }
[ -z "$said" ] || { echo "FAILED: $said" >&2; exit 1; }
