#!/usr/bin/env bash
# Runs random commands of many clients against the library, in a throw-away root: tests/soak/soak.cpp
# says what is looked for.
#
#   scripts/soak.sh [--preset release|tsan|asan] [--tasks N] [--seed S]
. "$(dirname "$0")/lib.sh"

preset=release tasks=10000 seed=1
while [ $# -gt 0 ]; do
    case "$1" in
        --preset) preset=${2:?which preset} ;;
        --tasks) tasks=${2:?how many} ;;
        --seed) seed=${2:?which seed} ;;
        *) fail "unknown option: $1" ;;
    esac
    shift 2
done
case "$preset" in
    release) packages=$packages_build ;;
    asan | tsan) packages="$packages_build $packages_clang" ;;
    *) fail "no such preset: $preset" ;;
esac
# Unquoted: the lists are words.
need_packages $packages
build "$preset" soak
exec "$project/scripts/sandbox.sh" -- "build/$preset/soak" "$tasks" "$seed"
