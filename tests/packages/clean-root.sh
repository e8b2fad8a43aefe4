#!/usr/bin/env bash
# Builds the packages from a build tree, installs them into a clean Debian, compiles an outside agent there against what
# they brought, and backs a volume up with it under the emulator.
#
#     clean-root.sh BUILD_FOLDER AGENT_FOLDER
#
# As root, on Debian, with its archive in reach. All that is made (the clean Debian, mounts, loop devices, processes) lives in
# a mount and a process namespace of this script, on a file system in memory: it goes when they go, however the script ends.
set -euo pipefail

if [ "${1:-}" != --inside ]; then
  build=$(realpath "$1") agent=$(realpath "$2")
  if [ "$(id -u)" -ne 0 ]; then echo "needs root: it makes a file system and a clean Debian" >&2; exit 1; fi
  exec unshare --mount --pid --fork --kill-child=KILL --mount-proc --propagation private "$0" --inside "$build" "$agent"
fi
build=$2 agent=$3
here=$(dirname "$(realpath "$0")")

fail() { echo "FAILED: $*" >&2; exit 1; }
step() { printf '%4s s  %s\n' "$SECONDS" "$*"; }
# Runs a command that says nothing unless it fails.
quietly() {
  local what=$1; shift
  "$@" >/mnt/said 2>&1 || { tail -n 40 /mnt/said >&2; fail "$what: $*"; }
}

mount -t tmpfs -o mode=0755,size=4g packages /mnt
umask 022

step "building the packages"
mkdir /mnt/packages
(cd "$build" && quietly "the packages cannot be built" cpack -G DEB -B /mnt/packages)
cd /mnt
for package in libmirelsnap1 libmirelsnap-dev mirelsnap; do
  ls packages/"${package}"_*_amd64.deb >/dev/null || fail "$package was not built"
  "$here/check-package.sh" packages/"${package}"_*_amd64.deb
done

# The archive that this machine's apt takes this Debian from.
. /etc/os-release
mirror=$(apt-get indextargets --format '$(CODENAME) $(SITE)' "Created-By: Packages" |
  awk -v codename="$VERSION_CODENAME" '$1 == codename { print $2; exit }')
[ -n "$mirror" ] || fail "apt's sources name no archive of $VERSION_CODENAME; is apt-get update due?"

step "laying a clean $VERSION_CODENAME"
http_proxy=$(apt-config shell proxy Acquire::http::Proxy | sed -n "s/^proxy='\(.*\)'$/\1/p")
if [ -n "$http_proxy" ]; then export http_proxy; else unset http_proxy; fi
quietly "debootstrap" debootstrap --variant=minbase "$VERSION_CODENAME" /mnt/root "$mirror"
# How this machine's apt reaches the archive.
apt-config dump | grep -E '^Acquire::(http|https|Check-[A-Za-z-]+)(::| )' >root/etc/apt/apt.conf.d/50this-machine || true
printf '#!/bin/sh\nexit 101\n' >root/usr/sbin/policy-rc.d
chmod 755 root/usr/sbin/policy-rc.d
mount -t proc proc root/proc
mount -t sysfs -o ro sysfs root/sys
mount -t tmpfs -o mode=0755 dev root/dev
for node in 'null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0' 'loop-control 10 237'; do
  read -r name major minor <<<"$node"
  mknod -m 666 "root/dev/$name" c "$major" "$minor"
done
ln -s /proc/self/fd root/dev/fd
mkdir root/dev/pts root/dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 devpts root/dev/pts
ln -s pts/ptmx root/dev/ptmx

in_root() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive HOME=/root chroot /mnt/root "$@"; }

step "installing the packages, a compiler, cmake and pkg-config by apt"
mkdir root/packages
cp packages/*.deb root/packages/
quietly "apt's lists" in_root apt-get update -qq
quietly "apt refuses the packages" in_root sh -c 'apt-get install -y -qq --no-install-recommends /packages/*.deb g++ cmake make pkg-config'
for package in libmirelsnap1 libmirelsnap-dev mirelsnap; do
  [ "$(in_root dpkg-query -W -f '${db:Status-Status}' "$package")" = installed ] || fail "$package is not installed"
done
[ -L root/etc/systemd/system/multi-user.target.wants/mirelsnap-reconcile.service ] || fail "the unit is not enabled"
quietly "files of the packages were changed" in_root dpkg --verify libmirelsnap1 libmirelsnap-dev mirelsnap

step "compiling the agent with pkg-config and with find_package"
cp -r "$agent" root/agent
cp "$here/in-root.sh" root/in-root.sh
quietly "the agent does not compile" in_root sh /in-root.sh compile

step "backing a volume up with each of them, under the emulator"
for program in /agent/by-pkg-config /agent/build/agent /agent/build/agent-static; do
  quietly "the agent $program" in_root sh /in-root.sh back-up "$program"
done

step "removing the packages"
quietly "apt cannot remove the packages" in_root apt-get purge -y -qq mirelsnap libmirelsnap-dev libmirelsnap1
left=$(in_root find /etc /usr /var /run -xdev -name '*mirelsnap*' -not -path '/var/lib/dpkg/*' | head)
[ -z "$left" ] || fail "the packages leave behind: $left"
step "all of it works"
