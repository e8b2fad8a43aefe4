#!/usr/bin/env bash
# Copies a running PostgreSQL cluster as it is at one instant, without stopping it: postgresql.sh DATA_DIRECTORY COPY
# Data directory, write-ahead log and tablespaces may lie on any number of volumes: all are in one set. COPY is a new
# directory. Start a server on COPY/data; it recovers as it would after a power failure.
# Run CHECKPOINT after CREATE TABLESPACE: a recovery that replays it links the copy to the live tablespace.
set -euo pipefail
if [ $# -ne 2 ]; then
  echo "usage: $0 DATA_DIRECTORY COPY" >&2
  exit 2
fi
shopt -s nullglob
data=$(realpath -e "$1")
wal=$(realpath -e "$data/pg_wal")
tablespaces=("$data"/pg_tblspc/*)
volumes=()
for folder in "$data" "$wal" "${tablespaces[@]}"; do
  volumes+=("--volume=$(stat --format=%m "$(realpath -e "$folder")")")
done
copy=$(realpath "$2")
export data wal copy

# The write-ahead log and the tablespaces become part of the copy; its links never lead to the live ones.
backup() {
  trap 'exit 143' TERM # after the current command has ended: it reads the snapshots
  mkdir "$copy" "$copy/tablespaces"
  chown --reference="$data" "$copy" "$copy/tablespaces"
  chmod 700 "$copy" "$copy/tablespaces"
  cp -a "$MIRELSNAP_BASE$data" "$copy/data"
  rm -f "$copy/data/postmaster.pid" "$copy/data/postmaster.opts"
  if [ -h "$copy/data/pg_wal" ]; then
    rm "$copy/data/pg_wal"
    cp -a "$MIRELSNAP_BASE$wal" "$copy/data/pg_wal"
  fi
  for link in "$copy"/data/pg_tblspc/*; do
    [ -h "$link" ] || continue
    cp -a "$MIRELSNAP_BASE$(realpath -m "$link")" "$copy/tablespaces/${link##*/}"
    ln -sfn "$copy/tablespaces/${link##*/}" "$link"
  done
  sync --file-system "$copy"
}
export -f backup

exec mirelsnap run "${volumes[@]}" -- bash -euc backup
