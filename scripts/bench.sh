#!/usr/bin/env bash
# Compares the library with other programs for the same jobs, in a throw-away root in memory.
#
#   scripts/bench.sh [OPTION...]         the options of bench/compare; --help lists them
#   scripts/bench.sh --quick --only pack-small
. "$(dirname "$0")/lib.sh"

# Unquoted: the lists are words.
need_packages $packages_build $packages_bench
cd "$project"
cmake --preset release -DPELTEX_BENCHMARKS=ON >/dev/null
build release benchmarks
exec "$project/scripts/sandbox.sh" --write "$project/build/release" -- \
    python3 -B bench/compare --build "$project/build/release" "$@"
