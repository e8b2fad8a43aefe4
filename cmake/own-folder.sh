# Sourced by scripts that need a directory for a while. What they remove with all that it holds is what they made here,
# and nothing else: no function takes a path.

# Makes a directory below /tmp, $own_folder, with NAME in its name: make_own_folder NAME
make_own_folder() {
  own_folder=$(mktemp -d "/tmp/mirelsnap-$1.XXXXXX") && own_folder_is=$(stat -c %d:%i "$own_folder")
}

# Removes it; the second time there is nothing to do. Refused when another directory stands there, or something is mounted
# in it.
remove_own_folder() {
  [ -n "${own_folder_is:-}" ] || return 0
  if [ "$(stat -c %d:%i "$own_folder" 2>/dev/null)" != "$own_folder_is" ]; then
    echo "$own_folder: not removed: it is not the directory that was made" >&2
    return 1
  fi
  if grep -qE " $own_folder[/ ]" /proc/self/mountinfo; then
    echo "$own_folder: not removed: something is mounted in it" >&2
    return 1
  fi
  rm -rf --one-file-system "$own_folder"
  own_folder_is=
}
