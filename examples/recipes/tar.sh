#!/usr/bin/env bash
# Backs volumes up into one archive, at one instant: tar.sh ARCHIVE VOLUME...
# The archive's name decides how it is compressed (.tar, .tar.gz, .tar.zst, ...).
set -euo pipefail
if [ $# -lt 2 ]; then
  echo "usage: $0 ARCHIVE VOLUME..." >&2
  exit 2
fi
export archive=$1
volumes=("${@:2}")

# The snapshot stands still: what was written is compared with what it was read from before the snapshot goes.
backup() {
  trap 'exit 143' TERM # when what runs now has ended: it reads the snapshots
  tar --create --file "$archive" --auto-compress --directory "$MIRELSNAP_BASE" \
    --xattrs --acls --numeric-owner --sparse --exclude=.verrelocarea .
  tar --compare --file "$archive" --directory "$MIRELSNAP_BASE" --xattrs --acls
}
export -f backup

exec mirelsnap run "${volumes[@]/#/--volume=}" -- bash -euc backup
