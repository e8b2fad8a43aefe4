#!/bin/sh
# What happens inside the clean root: in-root.sh compile | back-up PROGRAM.
set -eu

compile() {
  cd /agent
  # shellcheck disable=SC2046 -- the options are words
  g++ -std=c++17 -Wall -Wextra -o by-pkg-config agent.cpp $(pkg-config --cflags --libs mirelsnap)
  cmake -S . -B build
  cmake --build build
  ldd by-pkg-config | grep 'libmirelsnap.so.1 => /'
  ldd build/agent | grep 'libmirelsnap.so.1 => /'
  ! ldd build/agent-static | grep libmirelsnap
  mirelsnap --version
  mirelsnap-emulator --help >/dev/null
}

fail() { echo "$*" >&2; exit 1; }

# A loop device of an image, with a node of its own. Another process may take the free device first: asked again then.
attach() {
  for attempt in 1 2 3 4 5 6 7 8 9 10; do
    loop=$(losetup -f 2>/dev/null || true)
    [ -n "$loop" ] || { loop=$(losetup -f 2>&1 | grep -o '/dev/loop[0-9]*' | head -n 1); }
    [ -b "$loop" ] || mknod "$loop" b 7 "${loop#/dev/loop}"
    if losetup "$loop" "$1" 2>/dev/null; then return; fi
  done
  fail "no free loop device"
}

back_up() {
  agent=$1
  truncate -s 64M /volume.img
  mkfs.ext4 -q /volume.img
  mkdir -p /srv /backup
  attach /volume.img
  mount "$loop" /srv
  # The device goes with its mount.
  losetup -d "$loop"
  echo old >/srv/letter
  cat >/back-up-command <<'COMMAND'
set -e
echo new >/srv/letter
grep old /run/agent/srv/letter
! touch /run/agent/srv/letter 2>/dev/null
cp -a /run/agent/srv/letter /backup/letter
COMMAND
  mirelsnap-emulator -- "$agent" "$loop" /srv /run/agent 'sh /back-up-command' || fail "it ends with $?"
  [ "$(cat /backup/letter)" = old ] || fail "the backup does not hold the instant of the snapshot"
  [ "$(cat /srv/letter)" = new ] || fail "the live file did not change"
  [ -z "$(find /srv -name .verrelocarea)" ] || fail "relocation files are left"
  [ ! -e /run/agent ] || fail "its base is left"
  ! grep -E '/run/agent|/dev/snap' /proc/mounts || fail "mounts are left"
  umount /srv
  rm -r /backup /volume.img /back-up-command
}

case $1 in
  compile) compile ;;
  back-up) back_up "$2" ;;
esac
