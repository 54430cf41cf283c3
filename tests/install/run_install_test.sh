#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the installed files, then builds a
# small C program against the installation twice (through pkg-config, and through a CMake
# project calling find_package(kavo 1.2 REQUIRED)) and compares what each one converts with
# the installed command's output. When the static library was built (-DKAVO_STATIC=ON), the
# CMake project links kavo::kavo_static too.
#
# usage: run_install_test.sh BUILD_DIR MP3_FIXTURE    (CC and CFLAGS as the build used them)
set -euo pipefail
build=$1
fixture=$2
here=$(cd "$(dirname "$0")" && pwd)
cc=${CC:-cc}
read -r -a cflags <<<"${CFLAGS:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/kavo include/kavo/kavo.h lib/libkavo.so.1.2.0 lib/pkgconfig/kavo.pc \
         lib/cmake/kavo/kavoConfig.cmake lib/cmake/kavo/kavoConfigVersion.cmake; do
  [ -f "$prefix/$f" ] || fail "$f is not installed"
done
[ ! -f "$build/kavo.1" ] || cmp -s "$build/kavo.1" "$prefix/share/man/man1/kavo.1" ||
  fail "share/man/man1/kavo.1 is not installed"
[ "$(readlink "$prefix/lib/libkavo.so.1")" = libkavo.so.1.2.0 ] || fail "libkavo.so.1 link"
[ "$(readlink "$prefix/lib/libkavo.so")" = libkavo.so.1 ] || fail "libkavo.so link"
readelf -d "$prefix/lib/libkavo.so.1.2.0" | grep -q 'SONAME.*\[libkavo\.so\.1\]' || fail "SONAME"
# The library exports kavo and the conversion API, all functions, and nothing else.
exports=$(nm -D --defined-only "$prefix/lib/libkavo.so.1.2.0" | awk '{ print $2 " " $3 }' | sort | tr '\n' ' ')
[ "$exports" = "T kavo T kavo_convert T kavo_convert_file T kavo_convert_memory T kavo_status_text " ] || fail "exports: $exports"

cd "$work"
"$prefix/bin/kavo" convert "$fixture" expected.adpcm >log 2>&1 || { cat log >&2; fail "kavo convert failed"; }
[ -s expected.adpcm ] || fail "the installed command wrote nothing"

# check NAME PROGRAM: PROGRAM converts the fixture; its output must equal the command's.
check() {
  mkdir "run_$1"
  (cd "run_$1" && "$2" "$fixture" out.adpcm >log 2>&1) || { cat "run_$1/log" >&2; fail "$1: the program failed"; }
  cmp -s expected.adpcm "run_$1/out.adpcm" || fail "$1: the output differs from kavo convert's"
  echo "install test: $1 ok"
}

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
read -r -a pc_flags <<<"$(pkg-config --cflags --libs kavo)"
"$cc" "${cflags[@]}" -o pkgconfig_consumer "$here/consumer.c" "${pc_flags[@]}"
readelf -d pkgconfig_consumer | grep -q 'NEEDED.*\[libkavo\.so\.1\]' ||
  fail "pkg-config: the program does not depend on libkavo.so.1"
LD_LIBRARY_PATH=$prefix/lib check pkg-config "$work/pkgconfig_consumer"

variants=(OFF)
[ -f "$prefix/lib/libkavo.a" ] && variants+=(ON)
for static in "${variants[@]}"; do
  cmake -S "$here" -B "cmake_$static" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
        -DCMAKE_C_FLAGS="${CFLAGS:-}" -DLINK_STATIC="$static" >/dev/null
  cmake --build "cmake_$static" >/dev/null
  check "find_package_static_$static" "$work/cmake_$static/consumer"
done
