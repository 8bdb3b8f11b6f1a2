#!/bin/sh
# Installs the build tree into a temporary prefix, then builds and runs a C
# program against it twice: through pkg-config and through find_package.
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(ls -d "$tmp"/prefix/lib*/pkgconfig | head -n1 | xargs dirname)

PKG_CONFIG_PATH="$libdir/pkgconfig" cc -std=c99 -o "$tmp/pc" "$src/tests/abi/c_api.c" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs libtrel)
LD_LIBRARY_PATH="$libdir" "$tmp/pc"

cmake -S "$src/tests/abi/consumer" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
LD_LIBRARY_PATH="$libdir" "$tmp/consumer/consumer"
echo "install: ok"
