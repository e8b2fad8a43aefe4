#!/bin/sh
# What happens inside the clean root: in-root.sh compile FOLDER | back-up PROGRAM.
set -eu

fail() { echo "$*" >&2; exit 1; }

compile() {
  cd "$1"
  # shellcheck disable=SC2046 # the options are words
  g++ -std=c++17 -Wall -Wextra -o by-pkg-config agent.cpp $(pkg-config --cflags --libs mirelsnap)
  cmake -S . -B build
  cmake --build build
  ldd by-pkg-config | grep 'libmirelsnap.so.1 => /'
  ldd build/agent | grep 'libmirelsnap.so.1 => /'
  ! ldd build/agent-static | grep libmirelsnap
}

# Runs the agent with a command, and holds it to what it has to answer: 0, or something else.
agent_answers() {
  expected=$1 command=$2
  result=0
  mirelsnap-emulator -- "$agent" "$device" /srv /run/agent "$command" || result=$?
  case $expected in
    success) [ $result -eq 0 ] || fail "it ends with $result" ;;
    failure) [ $result -ne 0 ] || fail "it does not tell that the command failed" ;;
  esac
  [ -z "$(find /srv -name .verrelocarea)" ] || fail "relocation files are left"
  [ ! -e /run/agent ] || fail "its base is left"
  ! grep -E '/run/agent|/dev/snap' /proc/mounts || fail "mounts are left"
}

back_up() {
  agent=$1
  truncate -s 64M /volume.img
  mkfs.ext4 -q /volume.img
  mkdir -p /srv /backup
  # The device goes with its mount.
  mount -o loop /volume.img /srv
  device=$(findmnt -no SOURCE /srv)
  echo old >/srv/letter
  cat >/back-up-command <<'COMMAND'
set -e
echo new >/srv/letter
grep old /run/agent/srv/letter
! touch /run/agent/srv/letter 2>/dev/null
cp -a /run/agent/srv/letter /backup/letter
COMMAND
  agent_answers success 'sh /back-up-command'
  [ "$(cat /backup/letter)" = old ] || fail "the backup does not hold the instant of the snapshot"
  [ "$(cat /srv/letter)" = new ] || fail "the live file did not change"
  agent_answers failure 'exit 3'
  agent_answers failure 'kill -TERM $PPID'
  umount /srv
  rm /backup/letter /volume.img /back-up-command
  rmdir /backup
}

case $1 in
  compile) compile "$2" ;;
  back-up) back_up "$2" ;;
esac
