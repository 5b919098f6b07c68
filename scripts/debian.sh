#!/usr/bin/env bash
# Runs a command as root in a fresh Debian, which is in memory and gone when the command ends.
#
#   scripts/debian.sh [--include PACKAGE,...] SUITE COMMAND [ARGUMENT...] <ARCHIVE
#
# SUITE (bookworm, trixie) is downloaded from $DEBIAN_MIRROR: what every Debian has, with apt, and the
# PACKAGEs. The command starts in /project, where the tar archive on standard input is unpacked, and sees
# nothing of this machine but its network. Exit status: the command's.
. "$(dirname "$0")/lib.sh"

if [ -z "${PELTEX_DEBIAN_ROOT:-}" ]; then
    # Unquoted: the list is words.
    need_packages $packages_debian </dev/null
    root=$(mktemp -d)
    trap 'rmdir "$root" 2>/dev/null || true' EXIT  # the command's status is what counts
    as_root env PELTEX_DEBIAN_ROOT="$root" ${DEBIAN_MIRROR:+DEBIAN_MIRROR="$DEBIAN_MIRROR"} \
        unshare --mount --propagation private -- bash "$project/scripts/debian.sh" "$@"
    exit
fi

root=$PELTEX_DEBIAN_ROOT
include=
[ "$1" != --include ] || { include=--include=$2 && shift 2; }
suite=$1
shift

mount -t tmpfs -o mode=755 tmpfs "$root"
debootstrap --variant=minbase ${include:+"$include"} "$suite" "$root" \
    "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" </dev/null >/dev/null
mount -t proc proc "$root/proc"
mount -t devpts -o newinstance devpts "$root/dev/pts"
mkdir "$root/project"
tar -x -C "$root/project"
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb \
    chroot "$root" bash -c 'cd /project && exec "$@"' bash "$@" </dev/null
