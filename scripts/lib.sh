# What the scripts share: where the project is, packages, root. Sourced, not run.

set -euo pipefail

# Somebody's shell may export them. Where `cd` goes, what `tar` writes, how `ls` shows names and where
# `cmake --install` puts files is ours to say, also in what the scripts start.
unset CDPATH TAR_OPTIONS QUOTING_STYLE DESTDIR

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What building and testing with each preset takes on Debian 12 and 13.
packages_build="g++ cmake ninja-build libgtest-dev libcli11-dev nlohmann-json3-dev libfmt-dev
    nettle-dev python3 python3-seccomp libarchive-tools tar pkg-config groff-base"
packages_clang="clang libclang-rt-dev llvm"
packages_bench="libbenchmark-dev libarchive-tools toybox busybox rsync"
packages_libcxx="libc++-dev libc++abi-dev googletest"
packages_aarch64="g++-aarch64-linux-gnu qemu-user googletest"
packages_plots="python3-matplotlib"
packages_package="git dpkg-dev lintian"
packages_debian="debootstrap"
packages_lint="git clang-format clang-tidy"

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# as_root COMMAND...: runs it as root, by sudo when we are not.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -- "$@"
    else
        fail "this needs root: run it as root, or install sudo"
    fi
}

# need_packages NAME...: installs those that are missing, or says which when it may not.
need_packages() {
    command -v dpkg-query >/dev/null || return 0
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f '${Status}' "$name" 2>/dev/null | grep -q 'ok installed' || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        fail "these packages are missing, ask your administrator for them: ${missing[*]}"
    fi
    printf 'Installing %s\n' "${missing[*]}"
    # A machine that has just started may be at its own updates.
    as_root env DEBIAN_FRONTEND=noninteractive sh -c '
        install() {
            apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "$@" >/dev/null
        }
        install "$@" 2>/dev/null || { apt-get update >/dev/null && install "$@"; }
        ' sh "${missing[@]}" ||
        fail "these packages could not be installed: ${missing[*]}"
}

# build PRESET [TARGET...]: configures where needed and builds, quietly unless it fails.
build() {
    local preset=$1 log
    shift
    log=$(mktemp)
    if ! { (cd "$project" && cmake --preset "$preset" &&
            cmake --build --preset "$preset" ${1:+--target "$@"}) >"$log" 2>&1; }; then
        cat "$log" >&2
        rm -f "$log"
        fail "the $preset build failed"
    fi
    rm -f "$log"
}
