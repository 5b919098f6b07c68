#!/usr/bin/env bash
# Looks at the sources without running them: format, lint, exported symbols, and that every list of
# the library's sources names the same files.
#
#   scripts/check.sh [format|tidy|exports|sources]...      all of them by default
. "$(dirname "$0")/lib.sh"
cd "$project"

sources() {
    git ls-files -co --exclude-standard -- \
        '*.cpp' '*.h' | grep -E '^(service|fileops|brief|tar|bounded|platform|tools|tests|bench|fuzz)/'
}

check_format() {
    need_packages $packages_lint
    sources | xargs clang-format --dry-run --Werror
}

# One process per file: what the analyzer believes of one must not depend on the others.
check_tidy() {
    need_packages $packages_build $packages_clang $packages_lint
    cmake --preset asan >/dev/null
    sources | grep -E '^(service|fileops|brief|tar|bounded|platform|tools)/.*\.cpp$' |
        xargs -P "$(nproc)" -n 1 clang-tidy -p build/asan --quiet 2>/dev/null
}

check_exports() {
    need_packages $packages_build
    build release
    local exported
    exported=$(nm -D --defined-only build/release/libpeltexinstalld.so | awk '{print $3}' | sort | xargs)
    [ "$exported" = "executeBackupTask finishBackupSession startBackupSession" ] ||
        fail "the library exports: $exported"
}

check_sources() {
    local cmake bp tree
    cmake=$(sed -n '/^add_library(peltex_core/,/)/p; /^add_library(peltex_bounded/p; /^add_library(peltexinstalld /p' \
        CMakeLists.txt | grep -oE '[a-z]+/[a-z0-9_]+\.cpp' | sort)
    bp=$(grep -oE '"(service|fileops|brief|tar|bounded)/[a-z0-9_]+\.cpp"' Android.bp | tr -d '"' | sort)
    tree=$(git ls-files -co --exclude-standard -- service fileops brief tar bounded |
        grep '\.cpp$' | sort)
    [ "$cmake" = "$tree" ] || fail "CMakeLists.txt names other sources than there are"
    [ "$bp" = "$tree" ] || fail "Android.bp names other sources than there are"
}

[ $# -gt 0 ] || set -- format sources exports tidy
for check in "$@"; do
    printf 'check %s\n' "$check"
    "check_$check"
done
