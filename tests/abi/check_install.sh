#!/bin/sh
# Installs the build tree into a temporary prefix, then builds and runs a C
# program against it twice: through pkg-config and through find_package.
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
# A cross build also sets CC (the cross compiler with its sysroot), TREL_RUN
# (the emulator command that runs the programs), TREL_PC_LIBDIR (the target's
# pkg-config directories) and TREL_CMAKE_ARGS (its toolchain settings).
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
# lib, lib64 or a multiarch lib/<triplet>, as configured.
libdir=$(dirname "$(dirname "$(find "$tmp/prefix" -name libtrel.pc | head -n1)")")

if [ -n "${TREL_PC_LIBDIR:-}" ]; then
  export PKG_CONFIG_LIBDIR="$libdir/pkgconfig:$TREL_PC_LIBDIR"
else
  export PKG_CONFIG_PATH="$libdir/pkgconfig"
fi
# shellcheck disable=SC2046,SC2086
${CC:-cc} -std=c99 -o "$tmp/pc" "$src/tests/abi/c_api.c" $(pkg-config --cflags --libs libtrel)
# shellcheck disable=SC2086
LD_LIBRARY_PATH="$libdir" ${TREL_RUN:-} "$tmp/pc"

# shellcheck disable=SC2086
CC=${CC:-cc} cmake -S "$src/tests/abi/consumer" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -Dlibtrel_DIR="$libdir/cmake/libtrel" ${TREL_CMAKE_ARGS:-} >/dev/null
cmake --build "$tmp/consumer" >/dev/null
# shellcheck disable=SC2086
LD_LIBRARY_PATH="$libdir" ${TREL_RUN:-} "$tmp/consumer/consumer"
echo "install: ok"
