#!/usr/bin/env bash
# Installs a build and uses it as others do, from wherever it was moved to: by the program, by a client
# that CMake finds it for, by one that pkg-config does.
#
#   test_installed.sh BUILD COMPILER [FLAG...]
set -euo pipefail

build=$1
shift
sources=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$work/staged" >/dev/null
mv "$work/staged" "$prefix"
libraries=$(dirname "$(find "$prefix" -name libpeltexinstalld.so)")

mkdir -p "$work/device/data/app"
echo hello >"$work/device/data/app/file"
"$prefix/bin/peltexctl" --data "$work/device" backup tar /data/data/app /data/data/backup
"$prefix/bin/peltexctl" --data "$work/device" restore tar /data/data/backup/app.tar /data/data/back
cmp "$work/device/data/app/file" "$work/device/data/back/file"

cmake -G Ninja -S "$sources" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$1" \
    -DCMAKE_CXX_FLAGS="${*:2}" >/dev/null
cmake --build "$work/by-cmake" >/dev/null

mkdir "$work/by-pkg-config"
# Unquoted: what it prints are words.
"$@" -std=c++17 "$sources/embed.cpp" -o "$work/by-pkg-config/embed" -Wl,-rpath,"$libraries" \
    $(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs peltexinstalld)

mkdir -p /data/data/embed  # what other tests change meanwhile would fail a brief
for client in by-cmake by-pkg-config; do
    "$work/$client/embed" "get_brief dir /data/data/embed /data/data/embed/$client default 0"
done
