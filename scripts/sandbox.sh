#!/usr/bin/env bash
# Runs a command as root in a throw-away root of its own.
#
#   scripts/sandbox.sh [--write DIR]... -- COMMAND [ARGUMENT...]
#
# The command sees this machine's programs and libraries and this checkout, all read only; what it
# may write is in memory and gone when it ends, but for the DIRs given (which have to be there).
# /data, /storage/emulated and /mnt/androidwritable are empty directories. Mounts are private:
# nothing outside sees them. Exit status: the command's.
. "$(dirname "$0")/lib.sh"

if [ "${PELTEX_SANDBOX_STAGE:-}" != inside ]; then
    root=$(mktemp -d)
    trap 'rmdir "$root" 2>/dev/null || true' EXIT  # the command's status is what counts
    as_root env PELTEX_SANDBOX_STAGE=inside PELTEX_SANDBOX_ROOT="$root" \
        unshare --mount --propagation private -- bash "$project/scripts/sandbox.sh" "$@"
    exit
fi

root=$PELTEX_SANDBOX_ROOT
mount -t tmpfs -o mode=755 tmpfs "$root"

# bind SOURCE [OPTION]: shows SOURCE at the same place of the new root.
bind() {
    if [ -d "$1" ]; then mkdir -p "$root$1"; else mkdir -p "$(dirname "$root$1")" && touch "$root$1"; fi
    mount --rbind "$1" "$root$1"
    [ -z "${2:-}" ] || mount -o "remount,bind,$2" "$root$1"
}

for path in /usr /bin /sbin /lib /lib32 /lib64 /libx32 /etc /opt; do
    if [ -L "$path" ]; then
        ln -s "$(readlink "$path")" "$root$path"
    elif [ -d "$path" ]; then
        bind "$path" ro
    fi
done
bind /proc
for path in /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty /dev/pts; do
    [ ! -e "$path" ] || bind "$path"
done
ln -s /proc/self/fd "$root/dev/fd"
ln -s pts/ptmx "$root/dev/ptmx"
mkdir -p "$root"/{tmp,run,var/tmp,root,dev/shm,data/data,storage/emulated,mnt/androidwritable}
chmod 1777 "$root"/{tmp,var/tmp,dev/shm}
bind "$project" ro
while [ "${1:-}" = --write ]; do
    bind "$(readlink -f "$2")"
    shift 2
done
[ "${1:-}" != -- ] || shift
touch "$root/.throw-away-root"

exec env -u PELTEX_SANDBOX_STAGE -u PELTEX_SANDBOX_ROOT \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TMPDIR=/tmp \
    chroot "$root" bash -c 'cd "$1" && shift && exec "$@"' bash "$project" "$@"
