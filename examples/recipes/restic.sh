#!/usr/bin/env bash
# Backs volumes up into a restic repository, at one instant: restic.sh VOLUME...
# RESTIC_REPOSITORY and RESTIC_PASSWORD_FILE say which, as always; `restic init` makes it, once.
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

# One base for all times: by its path restic finds the backup before, and reads only what changed since.
exec mirelsnap run --base /run/mirelsnap-restic "${@/#/--volume=}" -- bash -euc backup
