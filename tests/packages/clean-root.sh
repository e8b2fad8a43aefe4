#!/usr/bin/env bash
# Builds the packages from a build tree, installs them into a clean Debian, compiles outside agents there against what they
# brought, and backs a volume up with each under the emulator.
#
#     clean-root.sh BUILD_FOLDER AGENT_FOLDER...
#
# An agent without a CMakeLists.txt of its own is built with the first one's.
#
# As root, on Debian; no archive is needed. All that is made (the clean Debian, mounts, loop devices, processes) lives in a
# mount and a process namespace of this script, on a file system in memory: it goes when they go, however the script ends.
# Nothing of the machine's is mounted there.
set -euo pipefail

if [ "${1:-}" != --inside ]; then
  if [ $# -lt 2 ]; then echo "usage: clean-root.sh BUILD_FOLDER AGENT_FOLDER..." >&2; exit 2; fi
  if [ "$(id -u)" -ne 0 ]; then echo "needs root: it makes a file system and a clean Debian" >&2; exit 1; fi
  exec unshare --mount --pid --fork --kill-child=KILL --mount-proc --propagation private "$0" --inside "$@"
fi
shift
here=$(dirname "$(realpath "$0")")
build=$(realpath "$1")
mapfile -t agents < <(realpath "${@:2}")
cmake_lists=${agents[0]}/CMakeLists.txt

fail() { echo "FAILED: $*" >&2; exit 1; }
step() { printf '%4s s  %s\n' "$SECONDS" "$*"; }
# Runs a command that says nothing unless it fails.
quietly() {
  local what=$1; shift
  "$@" >/mnt/said 2>&1 || { tail -n 40 /mnt/said >&2; fail "$what: $*"; }
}

umask 022
mount -t tmpfs -o mode=0755,size=1500m packages /mnt
mkdir /mnt/tmp /mnt/packages
export TMPDIR=/mnt/tmp

step "building the packages"
(cd "$build" && quietly "the packages cannot be built" cpack -G DEB -B /mnt/packages)
cd /mnt
packages=(libmirelsnap1 libmirelsnap-dev mirelsnap mirelsnap-dkms)
for package in "${packages[@]}"; do
  ls packages/"${package}"_*.deb >/dev/null || fail "$package was not built"
  "$here/check-package.sh" packages/"${package}"_*.deb
done

step "laying a clean Debian with a compiler, cmake and pkg-config"
quietly "no clean Debian" "$here/lay-root.py" root packages/*.deb g++ cmake make pkg-config e2fsprogs mount util-linux \
  linux-headers-cloud-amd64
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
seq 0 255 | xargs -I@ mknod root/dev/loop@ b 7 @

in_root() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive HOME=/root chroot /mnt/root "$@"; }

# The other packages' scripts give files to users and groups.
quietly "base-passwd" in_root dpkg --force-depends --configure base-passwd
quietly "the clean Debian" in_root dpkg --configure --pending

step "installing the packages by apt"
mkdir root/packages
cp packages/*.deb root/packages/
quietly "apt refuses the packages" in_root sh -c 'apt-get install -y -qq --no-install-recommends /packages/*.deb'
for package in "${packages[@]}"; do
  [ "$(in_root dpkg-query -W -f '${db:Status-Status}' "$package")" = installed ] || fail "$package is not installed"
done
[ -L root/etc/systemd/system/multi-user.target.wants/mirelsnap-reconcile.service ] || fail "the unit is not enabled"
quietly "files of the packages were changed" in_root dpkg --verify "${packages[@]}"

step "building the driver by DKMS"
release=$(basename "$(ls -d root/lib/modules/*/)")
quietly "the driver does not build" in_root dkms install -m mirelsnap -v "$(in_root dpkg-query -W -f '${Version}' mirelsnap | sed 's/-.*//')" -k "$release"
[ "$(in_root modinfo -k "$release" -F license mirelsnap)" = GPL ] || fail "modprobe would not find the driver"

cp "$here/in-root.sh" root/in-root.sh
mkdir root/agents
for agent in "${agents[@]}"; do
  name=$(basename "$(dirname "$agent")")-$(basename "$agent")
  step "compiling $name with pkg-config and with find_package, backing a volume up with each"
  cp -r "$agent" "root/agents/$name"
  [ -e "root/agents/$name/CMakeLists.txt" ] || cp "$cmake_lists" "root/agents/$name/"
  quietly "$name does not compile" in_root sh /in-root.sh compile "/agents/$name"
  for program in by-pkg-config build/agent build/agent-static; do
    quietly "$name/$program" in_root sh /in-root.sh back-up "/agents/$name/$program"
  done
done

step "removing the packages"
quietly "apt cannot remove the packages" in_root apt-get purge -y -qq "${packages[@]}"
left=$(in_root find /etc /usr /var /run -xdev -name '*mirelsnap*' -not -path '/var/lib/dpkg/*' | head)
[ -z "$left" ] || fail "the packages leave behind: $left"
step "all of it works"
