#!/usr/bin/env bash
# Builds the Debian packages into build/package/ and has lintian look at them.
#
#   scripts/package.sh           libpeltexinstalld1, libpeltexinstalld-dev, peltexctl
#   scripts/package.sh --try     also installs, uses and purges them in a fresh Debian 12, which is
#                                in memory and downloaded from $DEBIAN_MIRROR
#
# DEBFULLNAME and DEBEMAIL say whose packages they are; by default the last commit's author's.
. "$(dirname "$0")/lib.sh"
cd "$project"

mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
packages=build/package

# try_packages ROOT: in a mount namespace of its own, as root.
try_packages() {
    local root=$1
    mount -t tmpfs -o mode=755 tmpfs "$root"
    debootstrap --variant=minbase --include=man-db,pkg-config,g++ bookworm "$root" "$mirror" >/dev/null
    mount -t proc proc "$root/proc"
    mount -t devpts -o newinstance devpts "$root/dev/pts"
    mkdir "$root/packages"
    cp "$packages"/*.deb scripts/try_packages.sh tests/embed/embed.cpp "$root/packages"
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive chroot "$root" bash /packages/try_packages.sh
}

case "${1:-}" in
    inside) try_packages "$2" && exit ;;
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
root=$(mktemp -d)
trap 'rmdir "$root" 2>/dev/null || true' EXIT
as_root env DEBIAN_MIRROR="$mirror" unshare --mount --propagation private -- \
    scripts/package.sh inside "$root"
