#!/usr/bin/env bash
# The scripts' removal removes the directory that it made, and refuses everything else.
#     check-own-folder.sh OWN_FOLDER_SH
# What could be removed wrongly lies in a /tmp of this script's own.
set -uo pipefail
if [ "${1:-}" != --inside ]; then
  exec unshare --mount --propagation private "$0" --inside "$@"
fi
. "$2"
mount -t tmpfs tmp /tmp || exit 1
wrong=0
complain() { echo "FAILED: $*" >&2; wrong=1; }
expect_refused() {
  local said
  said=$(remove_own_folder 2>&1) && complain "$2: it is not refused"
  [ "$said" = "$own_folder: not removed: $1" ] || complain "$2: it says: $said"
}

make_own_folder test || complain "no directory"
made=$own_folder
[ -d "$made" ] && [[ $made == /tmp/mirelsnap-test.* ]] || complain "it makes $made"
mkdir -p "$made/a/b"
remove_own_folder || complain "it does not remove what it made"
[ ! -e "$made" ] || complain "$made is left"
mkdir "$made"
remove_own_folder || complain "the second removal fails"
[ -d "$made" ] || complain "it removes twice"

make_own_folder test
made=$own_folder
mkdir "$made/kept" "$made/bound" /tmp/other
own_folder=/tmp/other
expect_refused "it is not the directory that was made" "another path"
own_folder=
expect_refused "it is not the directory that was made" "no path"
own_folder=/tmp/link
ln -s "$made" /tmp/link
expect_refused "it is not the directory that was made" "a link"
own_folder=$made
mount --bind /tmp/other "$made/bound"
expect_refused "something is mounted in it" "a mount below"
umount "$made/bound"
mount --bind "$made" "$made"
expect_refused "something is mounted in it" "a mount on it"
umount "$made"
mv "$made" /tmp/moved
ln -s /tmp/moved "$made"
expect_refused "it is not the directory that was made" "a link in its place"
[ -d /tmp/other ] && [ -d /tmp/moved/kept ] || complain "what is refused is removed"
exit $wrong
