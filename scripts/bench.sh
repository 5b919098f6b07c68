#!/usr/bin/env bash
# Compares the library with other programs for the same jobs, in a throw-away root in memory.
#
#   scripts/bench.sh [OPTION...]         the options of bench/compare; --help lists them
#   scripts/bench.sh --write             everything, and writes the figures into README.md and docs/
. "$(dirname "$0")/lib.sh"

# Unquoted: the lists are words.
need_packages $packages_build $packages_bench
cd "$project"
cmake --preset release -DPELTEX_BENCHMARKS=ON >/dev/null
build release benchmarks

results=$project/build/release/bench
mkdir -p "$results"
compare() {
    scripts/sandbox.sh --write "$results" -- \
        python3 -B bench/compare --build "$project/build/release" "$@"
}

if [ "${1:-}" = --write ]; then
    shift
    need_packages $packages_plots
    compare "$@" --json "$results/rows.json"
    compare "$@" --curve --json "$results/curve.json"
    # The system's own interpreter: the one that has the packages.
    /usr/bin/python3 -B bench/report.py "$results/rows.json" "$results/curve.json"
else
    compare "$@"
fi
