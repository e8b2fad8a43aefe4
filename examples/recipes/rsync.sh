#!/usr/bin/env bash
# Makes a directory identical to volumes as they are at one instant, copying what has changed: rsync.sh FOLDER VOLUME...
# FOLDER may be on another machine, in rsync's notation: HOST:FOLDER.
set -euo pipefail
if [ $# -lt 2 ]; then
  echo "usage: $0 FOLDER VOLUME..." >&2
  exit 2
fi
export folder=$1
volumes=("${@:2}")

# --modify-window=-1: a file that was rewritten within the same second, with the same size, has changed as well.
backup() {
  exec rsync --archive --hard-links --acls --xattrs --sparse --numeric-ids --modify-window=-1 --delete \
    --exclude=.verrelocarea "$MIRELSNAP_BASE/" "$folder/"
}
export -f backup

exec mirelsnap run "${volumes[@]/#/--volume=}" -- bash -euc backup
