#!/usr/bin/env bash
# Backs up volumes into a restic repository, as they are at one instant: restic.sh VOLUME...
# RESTIC_REPOSITORY and RESTIC_PASSWORD_FILE name it, as usual. Create it once with `restic init`.
set -euo pipefail
if [ $# -lt 1 ]; then
  echo "usage: RESTIC_REPOSITORY=... RESTIC_PASSWORD_FILE=... $0 VOLUME..." >&2
  exit 2
fi

backup() {
  cd "$MIRELSNAP_BASE"
  exec restic backup --exclude=.verrelocarea .
}
export -f backup

# Always the same base: restic finds the previous backup by its path and reads only what has changed since.
exec mirelsnap run --base /run/mirelsnap-restic "${@/#/--volume=}" -- bash -euc backup
