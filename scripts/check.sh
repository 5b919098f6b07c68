#!/usr/bin/env bash
# Looks at the sources without running them: format, lint, exported symbols, where programs look for
# libraries, and that every list of the library's sources names the same files.
#
#   scripts/check.sh [format|tidy|exports|runpath|sources]...      all of them by default
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

# An empty element of the path is the working directory of whoever runs the program.
check_runpath() {
    need_packages $packages_build
    build release
    local installed path
    installed=$(mktemp -d)
    cmake --install build/release --prefix "$installed" >/dev/null
    find build/release "$installed" -maxdepth 3 -type f \( -name peltexctl -o -name 'lib*.so*' \) \
        -exec readelf -d {} + | sed -nE 's/.*R(UN)?PATH.*\[(.*)\]/\2/p' >"$installed/paths"
    path=$(grep -vE '^\$ORIGIN[^:]*(:\$ORIGIN[^:]*)*$' "$installed/paths" || :)
    [ -s "$installed/paths" ] && [ -z "$path" ] || fail "a program looks for libraries in: $path"
    rm -r "$installed"
}

# compare_sources FILE TREE: the sources that FILE names, on standard input, with those there are.
compare_sources() {
    local difference
    difference=$(sort | diff - <(printf '%s\n' "$2")) ||
        fail "$1 names other sources than there are:"$'\n'"$difference"
}

check_sources() {
    local tree
    tree=$(git ls-files -co --exclude-standard -- service fileops brief tar bounded |
        grep '\.cpp$' | sort)
    sed 's/#.*//' CMakeLists.txt |
        sed -n '/^add_library(peltex_core/,/)/p; /^add_library(peltex_bounded/p; /^add_library(peltexinstalld /p' |
        grep -oE '[a-z]+/[a-z0-9_]+\.cpp' | compare_sources CMakeLists.txt "$tree"
    sed 's,//.*,,' Android.bp | grep -oE '"(service|fileops|brief|tar|bounded)/[a-z0-9_]+\.cpp"' |
        tr -d '"' | compare_sources Android.bp "$tree"
}

[ $# -gt 0 ] || set -- format sources exports runpath tidy
for check in "$@"; do
    printf 'check %s\n' "$check"
    "check_$check"
done
