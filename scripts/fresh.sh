#!/usr/bin/env bash
# Runs both commands of the README in fresh Debian systems, on what is committed here.
#
#   scripts/fresh.sh [SUITE...]      bookworm and trixie by default
. "$(dirname "$0")/lib.sh"
cd "$project"

# Unquoted: the list is words.
need_packages git $packages_debian
[ $# -gt 0 ] || set -- bookworm trixie
for suite in "$@"; do
    # The whole output of what fails, the end of what does not.
    git archive HEAD | scripts/debian.sh "$suite" bash -c '
        printf "Debian %s\n" "$(cat /etc/debian_version)"
        for command in scripts/demo.sh scripts/test.sh; do
            printf "$ %s\n" "$command"
            "$command" >/tmp/output 2>&1 || { cat /tmp/output && exit 1; }
            tail -n 4 /tmp/output
        done'
done
