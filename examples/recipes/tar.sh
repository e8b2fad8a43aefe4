#!/usr/bin/env bash
# Backs up volumes into one archive, as they are at one instant: tar.sh ARCHIVE VOLUME...
# The suffix of ARCHIVE selects the compression (.tar, .tar.gz, .tar.zst, ...).
set -euo pipefail
if [ $# -lt 2 ]; then
  echo "usage: $0 ARCHIVE VOLUME..." >&2
  exit 2
fi
export archive=$1
volumes=("${@:2}")

# The snapshot does not change, so the archive can be compared with it before it is removed.
backup() {
  trap 'exit 143' TERM # after the current command has ended: it reads the snapshots
  tar --create --file "$archive" --auto-compress --directory "$MIRELSNAP_BASE" \
    --xattrs --acls --numeric-owner --sparse --exclude=.verrelocarea .
  tar --compare --file "$archive" --directory "$MIRELSNAP_BASE" --xattrs --acls
}
export -f backup

exec mirelsnap run "${volumes[@]/#/--volume=}" -- bash -euc backup
