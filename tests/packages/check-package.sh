#!/usr/bin/env bash
# Looks a package over before anything is installed: check-package.sh FILE.deb
set -euo pipefail
deb=$(realpath "$1")
name=$(dpkg-deb -f "$deb" Package)
wrong() { echo "FAILED: $name: $*" >&2; exit 1; }

for field in Version Architecture Maintainer Section Priority Description Installed-Size; do
  [ -n "$(dpkg-deb -f "$deb" "$field")" ] || wrong "no field $field"
done
version=$(dpkg-deb -f "$deb" Version)
depends=$(dpkg-deb -f "$deb" Depends)
[ "$name" != libmirelsnap-dev ] || [[ ", $depends, " == *", libmirelsnap1 (= $version), "* ]] || wrong "it needs: $depends"

. "$(dirname "$0")/../../cmake/own-folder.sh"
make_own_folder package
trap remove_own_folder EXIT
dpkg-deb -R "$deb" "$own_folder"
cd "$own_folder"

# Everybody's checksums, and nobody's files but root's.
(md5sum --quiet --check DEBIAN/md5sums) || wrong "a checksum differs"
[ "$(find . -path ./DEBIAN -prune -o -type f -print | wc -l)" = "$(wc -l <DEBIAN/md5sums)" ] || wrong "a file has no checksum"
strangers=$(dpkg-deb --fsys-tarfile "$deb" | tar -tv --numeric-owner | awk '$2 != "0/0"')
[ -z "$strangers" ] || wrong "not root's: $strangers"

# Folders and programs 755, everything else 644; no extra bits.
odd=$(find usr -type d -not -perm 755 -o -type f -path 'usr/bin/*' -not -perm 755 -o -type f -not -path 'usr/bin/*' -not -perm 644)
[ -z "$odd" ] || wrong "permissions: $odd"
for script in postinst prerm postrm; do
  [ ! -e "DEBIAN/$script" ] || { [ -x "DEBIAN/$script" ] && sh -n "DEBIAN/$script"; } || wrong "$script"
done
outside=$(find . -mindepth 1 -maxdepth 1 -not -name DEBIAN -not -name usr)
[ -z "$outside" ] || wrong "outside of /usr: $outside"

# Whoever has what its programs load is named as needed.
needed=$(tr ',' '\n' <<<"$depends" | awk '{ print $1 }')
loaded=$(find usr -type f \( -path 'usr/bin/*' -o -name '*.so.*' \) -exec objdump -p {} + | awk '/NEEDED/ { print $2 }' | sort -u)
for library in $loaded; do
  owner=$(dpkg-query -S "*/$library" | cut -d: -f1) || wrong "it loads $library, which no package has"
  grep -qxFf <(echo "$owner") <<<"$needed" || wrong "it loads $library of" $owner "and needs only:" $needed
done

# What every package carries.
[ -s "usr/share/doc/$name/copyright" ] || wrong "no copyright"
gzip -t "usr/share/doc/$name/changelog.Debian.gz" || wrong "no changelog"

case $name in
  libmirelsnap1)
    library=$(find usr/lib -name 'libmirelsnap.so.1.*' -type f)
    [ -n "$library" ] || wrong "no library"
    [ "$(objdump -p "$library" | awk '/SONAME/ { print $2 }')" = libmirelsnap.so.1 ] || wrong "another SONAME"
    [ "$(readlink "$(dirname "$library")/libmirelsnap.so.1")" = "$(basename "$library")" ] || wrong "the SONAME's link"
    ! objdump -p "$library" | grep -E 'RPATH|RUNPATH' || wrong "a path of the build is in the library"
    ! objdump -h "$library" | grep '\.debug_info' || wrong "the library is not stripped"
    grep -qx 'activate-noawait ldconfig' DEBIAN/triggers || wrong "the loader's cache is not renewed"
    grep -q '^libmirelsnap 1 libmirelsnap1' DEBIAN/shlibs || wrong "no shlibs"
    ;;
  libmirelsnap-dev)
    [ "$(readlink usr/lib/*/libmirelsnap.so)" = libmirelsnap.so.1 ] || wrong "no link for the compiler"
    [ -f "$(echo usr/lib/*/libmirelsnap.a)" ] || wrong "no static library"
    for header in SnapshotEngine DriverInterface VolumeRecords; do
      [ -f usr/include/mirelsnap/$header.h ] || wrong "no $header.h"
    done
    ;;
  mirelsnap-dkms)
    folder=usr/src/mirelsnap-${version%-*}
    for file in Makefile Kbuild main.c protocol.h dkms.conf; do [ -f "$folder/$file" ] || wrong "no /$folder/$file"; done
    odd=$(find "$folder" -type f -not -name '*.[ch]' -not -name Makefile -not -name Kbuild -not -name dkms.conf)
    [ -z "$odd" ] || wrong "what is built is shipped: $odd"
    ;;
  mirelsnap)
    for file in bin/mirelsnap bin/mirelsnap-emulator lib/systemd/system/mirelsnap-reconcile.service \
      share/man/man1/mirelsnap.1.gz share/man/man1/mirelsnap-emulator.1.gz share/bash-completion/completions/mirelsnap; do
      [ -f "usr/$file" ] || wrong "no /usr/$file"
    done
    ;;
esac
