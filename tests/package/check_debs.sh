#!/usr/bin/env bash
# Checks the built packages as a user gets them: unpacks libtrel1,
# libtrel-dev and trel-tools into a scratch root (dpkg -x), builds a C99
# program against them through pkg-config and runs it, runs the packaged
# tool, and checks where each file lands and what each package depends on.
# For a foreign architecture the cross compiler and the emulator of
# scripts/cross do the building and running (TREL_SYSROOT names its sysroot).
# Usage: check_debs.sh DEB_DIR ARCH
set -u
debs=$1
arch=$2
src=$(cd "$(dirname "$0")/../.." && pwd)
failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
lib=usr/lib/$multiarch
for pkg in libtrel1 libtrel-dev trel-tools; do
  deb=$(ls "$debs/${pkg}_"*"_$arch.deb" 2>/dev/null | head -n1)
  if [ -z "$deb" ]; then
    fail "no $pkg package for $arch in $debs"
    continue
  fi
  dpkg -x "$deb" "$root"
  declare "files_${pkg//-/_}=$(dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's|^\./|/|')"
  declare "depends_${pkg//-/_}=$(dpkg-deb -f "$deb" Depends)"
done

# Where the files land: each package holds its own, at multiarch paths.
while read -r pkg path; do
  var=files_${pkg//-/_}
  grep -qxF "$path" <<<"${!var:-}" || fail "$pkg lacks $path"
done <<EOF
libtrel1 /$lib/libtrel.so.1
libtrel1 /$lib/libtrel.so.1.0.0
libtrel-dev /$lib/libtrel.so
libtrel-dev /$lib/pkgconfig/libtrel.pc
libtrel-dev /$lib/cmake/libtrel/libtrelConfig.cmake
libtrel-dev /usr/include/libtrel.h
libtrel-dev /usr/include/trel/core.h
trel-tools /usr/bin/trel
trel-tools /usr/share/man/man1/trel.1.gz
trel-tools /usr/share/bash-completion/completions/trel
EOF
grep -q '\.h$' <<<"${files_libtrel1:-}${files_trel_tools:-}" && fail "headers outside libtrel-dev"
grep -q 'libtrel\.so$' <<<"${files_libtrel1:-}" && fail "libtrel1 holds the development link"

# What they depend on: the C library and the libraries libtrel links, the
# development packages its pkg-config file requires, the exact library.
while read -r pkg want; do
  var=depends_${pkg//-/_}
  grep -qE "(^|, )$want" <<<"${!var:-}" || fail "$pkg does not depend on $want: ${!var:-}"
done <<'EOF'
libtrel1 libc6 \(>= 2\.[0-9]+\)
libtrel1 libcurl4 \(>= [0-9.]+\)
libtrel1 libjansson4 \(>= [0-9.]+\)
libtrel-dev libtrel1 \(= [0-9.]+-[0-9]+\)
libtrel-dev libjansson-dev
libtrel-dev libcurl4-openssl-dev \| libcurl-dev
trel-tools libtrel1 \(>= [0-9.]+\)
EOF

# The packaged library: a soname, no C++ runtime; its size and needs.
so=$root/$lib/libtrel.so.1
if [ -f "$so" ]; then
  dynamic=$(readelf -d "$so")
  grep -q 'SONAME.*\[libtrel\.so\.1\]' <<<"$dynamic" || fail "soname is not libtrel.so.1"
  grep -qE 'libstdc\+\+|libgcc_s' <<<"$dynamic" && fail "the library needs a C++ runtime"
  readelf -S "$so" | grep -q '\.debug_info' && fail "the library is not stripped"
  needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | paste -sd' ')
  echo "libtrel.so.1 ($arch): $(stat -L -c %s "$so") bytes stripped; NEEDED: $needed"
fi

# A program built through pkg-config against the unpacked packages, and the
# packaged tool, run as installed.
cc=cc
run=()
pc_dirs=$root/$lib/pkgconfig:/usr/lib/$multiarch/pkgconfig:/usr/share/pkgconfig
if [ "$arch" != "$(dpkg --print-architecture)" ]; then
  sysroot=${TREL_SYSROOT:?TREL_SYSROOT names the sysroot of scripts/cross}
  cc="$multiarch-gcc --sysroot=$sysroot"
  run=(qemu-"${multiarch%%-*}" -L "$sysroot")
  pc_dirs=$root/$lib/pkgconfig:$sysroot/$lib/pkgconfig:$sysroot/usr/share/pkgconfig
fi
if flags=$(PKG_CONFIG_LIBDIR=$pc_dirs pkg-config --cflags --libs libtrel); then
  # shellcheck disable=SC2086
  if $cc -std=c99 -pedantic -Werror -o "$root/c_api" "$src/tests/abi/c_api.c" $flags; then
    out=$(LD_LIBRARY_PATH=$root/$lib "${run[@]}" "$root/c_api" 2>&1) || fail "c_api: $out"
    [ "$out" = "c_api: ok" ] || fail "c_api printed: $out"
  else
    fail "c_api does not build against the packages"
  fi
else
  fail "pkg-config does not find libtrel in the packages"
fi
out=$(LD_LIBRARY_PATH=$root/$lib "${run[@]}" "$root/usr/bin/trel" version 2>&1)
grep -qE '^libtrel [^ ]+ \([0-9a-f]{40}\)$' <<<"$out" || fail "trel version printed: $out"
zcat "$root/usr/share/man/man1/trel.1.gz" 2>/dev/null | grep -q '^\.SH EXIT STATUS' ||
  fail "the man page has no exit statuses"
# shellcheck source=/dev/null
out=$(source "$root/usr/share/bash-completion/completions/trel" && COMP_WORDS=(trel cf) &&
  COMP_CWORD=1 && _trel && echo "${COMPREPLY[*]}")
[ "$out" = cfg ] || fail "the completion of 'trel cf' gives '$out'"

if [ $failures -ne 0 ]; then
  echo "packages ($arch): $failures failures"
  exit 1
fi
echo "packages ($arch): ok"
