#!/usr/bin/env bash
# Builds one preset and runs its tests in a throw-away root.
#
#   scripts/test.sh [PRESET] [CTEST ARGUMENT...]      PRESET: release (default), debug, asan, tsan,
#                                                     clang-libcxx, aarch64
#
# PELTEX_TARGETS names what to build, all by default; then ask for tests that need no more.
# Without ctest arguments the everyday tests run. Two labels are asked for by name: "realtime" waits
# as long as a client may, "large" writes gigabytes (-L 'realtime|large').
. "$(dirname "$0")/lib.sh"

preset=release
case "${1:-}" in
    release | debug | asan | tsan | clang-libcxx | aarch64) preset=$1 && shift ;;
esac

packages=$packages_build
case "$preset" in
    asan | tsan) packages="$packages $packages_clang" ;;
    clang-libcxx) packages="$packages $packages_clang $packages_libcxx" ;;
    aarch64) packages="$packages $packages_aarch64" ;;
esac
[ $# -gt 0 ] || set -- -LE 'realtime|large'
# Unquoted: the lists are words.
need_packages $packages

build "$preset" ${PELTEX_TARGETS:-}
# The program ends with threads that wait; the sanitizer would give them a second, each time.
export TSAN_OPTIONS="atexit_sleep_ms=0${TSAN_OPTIONS:+:$TSAN_OPTIONS}"
exec "$project/scripts/sandbox.sh" --write "$project/build/$preset" -- \
    ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j "$(nproc)" "$@"
