#!/usr/bin/env bash
# Makes a folder equal to volumes at one instant, copying what changed: rsync.sh FOLDER VOLUME...
# FOLDER may be on another machine, as rsync names it: HOST:FOLDER.
set -euo pipefail
if [ $# -lt 2 ]; then
  echo "usage: $0 FOLDER VOLUME..." >&2
  exit 2
fi
export folder=$1
volumes=("${@:2}")

# --modify-window=-1: a file that was written again within the second, with the same size, is a changed one, too.
backup() {
  exec rsync --archive --hard-links --acls --xattrs --sparse --numeric-ids --modify-window=-1 --delete \
    --exclude=.verrelocarea "$MIRELSNAP_BASE/" "$folder/"
}
export -f backup

exec mirelsnap run "${volumes[@]/#/--volume=}" -- bash -euc backup
