# Sourced by ./check and ./demo: Debian's packages that the project builds, runs and tests with.

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libmount-dev uuid-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev)
RUN_PACKAGES=(kmod mount util-linux e2fsprogs xfsprogs)
TEST_PACKAGES=("${RUN_PACKAGES[@]}" procps sqlite3 clang libclang-rt-dev
  binutils bsdextrautils debian-archive-keyring debootstrap dpkg-dev file groff man-db python3 systemd)

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
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
