# Sourced by the scripts here: where things are.
#
# KERNEL        6.1 or 6.12
# VM_CACHE      what is fetched and built, build/vm

set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
project=$(cd "$here/../.." && pwd)
cache=$(realpath -m "${VM_CACHE:-$project/build/vm}")
series=${KERNEL:-6.1}
kernel=$cache/$series             # image, modules and headers, unpacked
managers=$cache/managers          # the volume managers of the guest, unpacked
built=$cache/built-$series        # the driver, the guest's programs, the initramfs

# The kernel's release, "6.1.0-13-cloud-amd64".
release() { ls "$kernel/lib/modules"; }
headers() { echo "$kernel/usr/src/linux-headers-$(release)"; }
