#!/usr/bin/env bash
# Backs up volumes into a Borg repository, as they are at one instant: borg.sh VOLUME...
# BORG_REPO and BORG_PASSPHRASE or BORG_PASSCOMMAND name it, as usual. Create it once with `borg init`.
set -euo pipefail
if [ $# -lt 1 ]; then
  echo "usage: BORG_REPO=... BORG_PASSCOMMAND=... $0 VOLUME..." >&2
  exit 2
fi

backup() {
  cd "$MIRELSNAP_BASE"
  exec borg create --numeric-ids --exclude 'sh:**/.verrelocarea' '::{hostname}-{now}' .
}
export -f backup

# Always the same base: Borg recognizes files by their paths and reads only those that have changed.
exec mirelsnap run --base /run/mirelsnap-borg "${@/#/--volume=}" -- bash -euc backup
