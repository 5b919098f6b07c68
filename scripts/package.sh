#!/usr/bin/env bash
# Builds the Debian packages into build/package/ and has lintian look at them.
#
#   scripts/package.sh           libpeltexinstalld1, libpeltexinstalld-dev, peltexctl
#   scripts/package.sh --try     also installs, uses and purges them in a fresh Debian 12
#
# DEBFULLNAME and DEBEMAIL say whose packages they are; by default the last commit's author's.
. "$(dirname "$0")/lib.sh"
cd "$project"

packages=build/package

case "${1:-}" in
    --try | "") ;;
    *) fail "unknown option: $1" ;;
esac

need_packages $packages_build $packages_package
rm -rf "$packages"
export DEB_BUILD_MAINT_OPTIONS=hardening=+all SOURCE_DATE_EPOCH
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
author=$(git log -1 --format=%an) mail=$(git log -1 --format=%ae)
CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
    LDFLAGS=$(dpkg-buildflags --get LDFLAGS) \
    cmake --preset package -DPELTEX_PACKAGE_DATE="$(git log -1 --format=%cD)" \
    -DCPACK_PACKAGE_CONTACT="${DEBFULLNAME:-$author} <${DEBEMAIL:-$mail}>" \
    >/dev/null
build package package
ls -l "$packages"/*.deb

# What it may not say: that these are packages for Debian itself; that CPack also calls ldconfig
# in scripts of its own; and that the sources name no licence yet.
lintian --allow-root --fail-on error,warning --suppress-tags \
    initial-upload-closes-no-bugs,maintscript-calls-ldconfig,no-copyright-file "$packages"/*.deb

[ "${1:-}" = --try ] || exit 0
tar -c "$packages"/*.deb scripts/lib.sh scripts/try_packages.sh tests/client/embed/embed.cpp |
    scripts/debian.sh --include man-db,pkg-config,g++ bookworm scripts/try_packages.sh
