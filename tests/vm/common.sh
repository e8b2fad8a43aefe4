# Sourced by the scripts here: where things are, and what is taken from Debian.
#
# KERNEL        6.1
# VM_CACHE      what is fetched and built, build/vm

set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
project=$(cd "$here/../.." && pwd)
cache=$(realpath -m "${VM_CACHE:-$project/build/vm}")
series=${KERNEL:-6.1}
kernel=$cache/$series             # image, modules and headers, unpacked
built=$cache/built-$series        # the driver, the guest's programs, the initramfs

HOST_PACKAGES=(qemu-system-x86 busybox-static cpio kmod make gcc g++ libgtest-dev
  e2fsprogs xfsprogs dosfstools dmsetup)

# The kernel's release, "6.1.0-13-cloud-amd64".
release() { ls "$kernel/lib/modules"; }
headers() { echo "$kernel/usr/src/linux-headers-$(release)"; }
