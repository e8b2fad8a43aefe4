# Sourced by ./check and ./demo: Debian's packages that the project builds, runs and tests with.

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libmount-dev uuid-dev libcli11-dev nlohmann-json3-dev
  libexpected-dev libgtest-dev libgmock-dev libbenchmark-dev)
RUN_PACKAGES=(kmod mount util-linux e2fsprogs xfsprogs)
TEST_PACKAGES=("${RUN_PACKAGES[@]}" btrfs-progs procps sqlite3 clang libclang-rt-dev
  binutils bsdextrautils dpkg-dev file groff-base make man-db python3 systemd
  rsync restic borgbackup postgresql strace dkms linux-headers-cloud-amd64)
# For the tests of the driver in a virtual machine, which unpack more from the archive and do not install it.
VM_PACKAGES=("${TEST_PACKAGES[@]}" qemu-system-x86 busybox-static cpio gcc libgtest-dev dosfstools dmsetup)

# Installs those of the named packages that are not there.
install_missing() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "These packages are missing, and installing them needs root: ${missing[*]}" >&2
    return 1
  fi
  echo "Installing ${missing[*]} ..."
  apt-get update -qq
  without_database_cluster apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Runs a command that installs packages. Debian's PostgreSQL makes a cluster and starts it when it first comes: not here,
# the tests make their own and no service of the machine's.
without_database_cluster() {
  local folder=/etc/postgresql-common/createcluster.d result=0
  mkdir -p "$folder"
  echo "create_main_cluster = false" >"$folder/mirelsnap-tests.conf"
  DEBIAN_FRONTEND=noninteractive "$@" || result=$?
  rm "$folder/mirelsnap-tests.conf"
  rmdir -p --ignore-fail-on-non-empty "$folder"
  return $result
}
