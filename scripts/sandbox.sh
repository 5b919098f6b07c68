#!/usr/bin/env bash
# Runs a command as root in a throw-away root of its own.
#
#   scripts/sandbox.sh [--write DIR]... -- COMMAND [ARGUMENT...]
#
# The command sees this machine's programs and libraries and this checkout, all read only; what it
# may write is in memory and gone when it ends, but for the DIRs given (which have to be there).
# /data, /storage/emulated and /mnt/androidwritable hold empty directories. Mounts, processes and
# System V IPC are its own: nothing outside sees them, no signal or priority leaves, and what it has
# started ends with it. SIGTERM and SIGHUP are handed on to it. Exit status: the command's.
. "$(dirname "$0")/lib.sh"

if [ "$(id -u)" -ne 0 ]; then
    as_root "$project/scripts/sandbox.sh" "$@"
    exit
fi
if [ "${PELTEX_SANDBOX_STAGE:-}" != inside ]; then
    PELTEX_SANDBOX_STAGE=inside exec unshare --mount --propagation private -- \
        bash "$project/scripts/sandbox.sh" "$@"
fi

root=$(mktemp -d)
trap 'umount --lazy "$root"; rmdir "$root"' EXIT
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
for path in /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty /dev/pts; do
    [ ! -e "$path" ] || bind "$path"
done
ln -s /proc/self/fd "$root/dev/fd"
ln -s pts/ptmx "$root/dev/ptmx"
mkdir -p "$root"/{proc,tmp,run,var/tmp,root,dev/shm,data/data,data/misc/wifi,storage/emulated,mnt/androidwritable}
chmod 1777 "$root"/{tmp,var/tmp,dev/shm}
bind "$project" ro
while [ "${1:-}" = --write ]; do
    bind "$(readlink -f "$2")"
    shift 2
done
[ "${1:-}" != -- ] || shift
touch "$root/.throw-away-root"

# relay COMMAND...: runs it, hands signals on to what `receiver` names, and returns its status. Those of
# the terminal reach it without.
relay() {
    env --default-signal=INT,QUIT -- "$@" <&0 &
    child=$!
    trap 'kill -TERM $(receiver) 2>/dev/null' TERM
    trap 'kill -HUP $(receiver) 2>/dev/null' HUP
    trap : INT QUIT
    while kill -0 "$child" 2>/dev/null; do wait "$child" || :; done
    wait "$child"
}

# The first process of a namespace takes no signal that it has no handler for, so the command is the
# second. unshare takes none either while it waits for the first.
receiver() { cat "/proc/$child/task/$child/children" 2>/dev/null; }
relay setpriv --pdeathsig KILL \
    unshare --pid --ipc --fork --kill-child --mount-proc="$root/proc" -- \
    env -u PELTEX_SANDBOX_STAGE PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root TMPDIR=/tmp chroot "$root" bash -c "$(declare -f relay)"'
        receiver() { echo "$child"; }
        cd "$1" && shift && relay "$@"' bash "$project" "$@"
