#!/usr/bin/env bash
# Builds the fuzz targets and runs them, each in a throw-away root of its own.
#
#   scripts/fuzz.sh [--seconds N | --runs N] [--keep DIR] [TARGET...]
#
# By default all targets of tests/fuzz/, 20 seconds each, from their seeds. With --keep, a run goes on
# where the last one with the same DIR ended. DIR/TARGET holds the grown corpus, the log, and as
# finding-* the inputs that failed; without --keep this is a temporary directory, which stays only
# when something failed. Exit status: 1 when something did.
. "$(dirname "$0")/lib.sh"
cd "$project"

limit=-max_total_time=20
keep=
targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds) limit=-max_total_time=$2 && shift 2 ;;
        --runs) limit=-runs=$2 && shift 2 ;;
        --keep) keep=$2 && shift 2 ;;
        -*) fail "unknown option: $1" ;;
        *) targets+=("$1") && shift ;;
    esac
done
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(basename -s _fuzzer.cpp tests/fuzz/*_fuzzer.cpp)
for target in "${targets[@]}"; do
    [ -f "tests/fuzz/${target}_fuzzer.cpp" ] || fail "no such target: $target"
done

need_packages $packages_build $packages_clang
build fuzz
[ -z "$keep" ] || mkdir -p "$keep"
results=$(readlink -f "${keep:-$(mktemp -d)}")

# options TARGET: its tests/fuzz/TARGET.options as arguments of libFuzzer.
options() {
    sed -n 's/^\([a-z_]*\) = /-\1=/p' "tests/fuzz/$1.options" | sed 's|^-dict=|&tests/fuzz/|'
}

# run TARGET: returns 0 unless it failed.
run() {
    local target=$1 dir=$results/$1
    mkdir -p "$dir/corpus"
    if scripts/sandbox.sh --write "$dir" -- bash -c '
        mkdir /tmp/seeds && build/fuzz/make_seeds /tmp/seeds || exit
        target=$1 dir=$2 && shift 2
        mkdir -p "/tmp/seeds/$target"
        [ ! -d "tests/fuzz/seeds/$target" ] || cp "tests/fuzz/seeds/$target"/* "/tmp/seeds/$target"
        exec "build/fuzz/${target}_fuzzer" -artifact_prefix="$dir/finding-" -timeout=120 \
            -print_final_stats=1 "$@" "$dir/corpus" "/tmp/seeds/$target"
        ' fuzz "$target" "$dir" "$limit" $(options "$target") >"$dir/log" 2>&1; then
        printf '%-12s %s runs, %s a second\n' "$target" $(sed -n \
            's/^stat::number_of_executed_units: *//p; s/^stat::average_exec_per_sec: *//p' "$dir/log")
        return 0
    fi
    printf '%-12s FAILED; the end of %s:\n' "$target" "$dir/log"
    tail -n 60 "$dir/log"
    return 1
}

# As many at a time as there are processors.
running=0 failed=0
for target in "${targets[@]}"; do
    if [ "$running" -ge "$(nproc)" ]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
    run "$target" &
    running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done

[ -n "$keep" ] || [ "$failed" -ne 0 ] || rm -rf "$results"
[ "$failed" -eq 0 ] || fail "see $results"
