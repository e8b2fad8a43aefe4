#!/usr/bin/env bash
# Backs volumes up into a Borg repository, at one instant: borg.sh VOLUME...
# BORG_REPO and BORG_PASSPHRASE or BORG_PASSCOMMAND say which, as always; `borg init` makes it, once.
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

# One base for all times: by their paths borg knows the files again, and reads only those that changed.
exec mirelsnap run --base /run/mirelsnap-borg "${@/#/--volume=}" -- bash -euc backup
