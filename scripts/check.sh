#!/usr/bin/env bash
# Looks at the sources without running them: format, lint, exported symbols, where programs look for
# libraries, that every list of the library's sources names the same files, that folders stand on those
# below them, and that the tests stay small beside what they test.
#
#   scripts/check.sh [format|tidy|exports|runpath|sources|arrows|tests]...      all of them by default
. "$(dirname "$0")/lib.sh"
cd "$project"

# The folders of the library and what each may include besides itself, from the top down.
library="
service   handlers task base bounded platform
handlers  fileops brief tar task base bounded platform
fileops   brief task base bounded platform
brief     base bounded platform
tar       base bounded platform
task      base bounded platform
base      bounded platform
bounded
"
# What is built around it. tests/support is the vocabulary of all tests.
around="
platform
tools          platform bounded base brief tar
tests/support  service handlers fileops brief tar task base bounded platform
tests          tests/support service handlers fileops brief tar task base bounded platform
bench          service handlers fileops brief tar task base bounded platform
"

# folders LIST: their names.
folders() { awk 'NF { print $1 }' <<<"$1"; }

# sources FOLDER...: the C++ files below them.
sources() {
    local folder patterns=()
    for folder; do patterns+=("$folder/**.h" "$folder/**.cpp"); done
    git ls-files -co --exclude-standard -- "${patterns[@]}" | sort -u
}

check_format() {
    need_packages $packages_lint
    sources $(folders "$library$around") | xargs clang-format --dry-run --Werror
}

# One process per file: what the analyzer believes of one must not depend on the others. Backwards,
# so that what takes longest, the tools, comes first.
check_tidy() {
    need_packages $packages_build $packages_clang $packages_lint
    cmake --preset asan >/dev/null
    local linted
    linted=$(folders "$library$around" | grep -vE '^(tests|bench)')
    sources $linted | grep '\.cpp$' | sort -r |
        xargs -P "$(nproc)" -n 1 clang-tidy -p build/asan --quiet \
            --header-filter="/($(paste -sd '|' <<<"$linted"))/" 2>/dev/null
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
    local tree pattern
    tree=$(sources $(folders "$library") | grep '\.cpp$')
    pattern="($(folders "$library" | paste -sd '|'))/[a-z0-9_]+\.cpp"
    sed 's/#.*//' CMakeLists.txt |
        sed -n '/^add_library(peltex_core/,/)/p; /^add_library(peltex_bounded/p; /^add_library(peltexinstalld /p' |
        grep -oE "$pattern" | compare_sources CMakeLists.txt "$tree"
    sed 's,//.*,,' Android.bp | grep -oE "\"$pattern\"" | tr -d '"' |
        compare_sources Android.bp "$tree"
}

# The library includes its own files in quotes by their whole path, the platform's in angle brackets.
# The client and the platform layer have roots of their own, where quoted paths are looked for first.
check_arrows() {
    local bad
    bad=$(git ls-files -co --exclude-standard | grep -E '\.(c|cc|cpp|h|hpp|inc)$' |
        grep -vE "^($(folders "$library$around" | paste -sd '|'))/.*\.(cpp|h)$" || true)
    [ -z "$bad" ] || fail "these sources are in no folder of the table, or have another ending:"$'\n'"$bad"
    bad=$(sources $(folders "$library$around") | xargs grep -nE '^[[:space:]]*#[[:space:]]*include' |
        awk -v table="$library$around" -v library="$library" '
            # folder_of(PATH): the longest folder of the table that PATH is in.
            function folder_of(path, folder, found) {
                for (folder in below)
                    if (index(path, folder "/") == 1 && length(folder) > length(found)) found = folder
                return found
            }
            BEGIN {
                rows = split(table, row, "\n")
                for (i = 1; i <= rows; ++i) {
                    split(row[i], name, " ")
                    if (name[1] != "") below[name[1]] = " " row[i] " "
                }
            }
            {
                match($0, /["<][^">]+[">]/)
                path = substr($0, RSTART + 1, RLENGTH - 2)
                quoted = substr($0, RSTART, 1) == "\""
                from = folder_of($0)
                to = folder_of(path)
                root = from == "tools" ? "tools/peltexctl/" : from == "platform" ? "platform/" : ""
                if (quoted && root != "" && (getline < (root path)) >= 0) next
                if (path ~ /\.\./ || (to != "" && index(below[from], " " to " ") == 0) ||
                    (to == "" && quoted && index(library, "\n" from " "))) print
            }')
    [ -z "$bad" ] || fail "these includes lead to folders that theirs does not stand on:"$'\n'"$bad"
    check_circles
}

# No folder of the table may lead back to itself, and no file: tsort names the circle.
check_circles() {
    local circle
    circle=$(awk '{ for (i = 2; i <= NF; ++i) print $1, $i }' <<<"$library" | tsort 2>&1 >/dev/null) || true
    [ -z "$circle" ] || fail "the table leads back to:"$'\n'"$circle"
    circle=$(sources $(folders "$library") |
        xargs grep -oE '^#include "[^"]+"' | sed -E 's/:#include "/ /; s/"$//; s/\.(h|cpp) / /; s/\.h$//' |
        awk '$1 != $2' | tsort 2>&1 >/dev/null) || true
    [ -z "$circle" ] || fail "these files include each other:"$'\n'"$circle"
}

# lines PATTERN...: those that are not blank, in the kinds of files that somebody has to read as code.
lines() {
    git ls-files -co --exclude-standard -- "$@" | grep -E '\.(h|cpp|py|sh|dict)$' | sort -u |
        { xargs -r -d '\n' cat || :; } 2>/dev/null | grep -c .
}

# The most lines of tests that 100 of everything else may have.
most_tests=33

check_tests() {
    local tests product
    tests=$(lines tests) product=$(lines . ':!tests')
    printf '%d lines of tests for %d of everything else: %d per 100\n' "$tests" "$product" \
        $((100 * tests / product))
    [ $((100 * tests)) -le $((most_tests * product)) ] ||
        fail "tests take at most $most_tests lines per 100"
}

[ $# -gt 0 ] || set -- format sources arrows tests exports runpath tidy
for check in "$@"; do
    printf 'check %s\n' "$check"
    "check_$check"
done
