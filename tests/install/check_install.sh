#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a small program
# against it twice: through the CMake package and through pkg-config.
#   check_install.sh <build-dir> <source-dir> <c-compiler>
set -euo pipefail
build=$1 src=$2 cc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/ | head -1)
test -L "$libdir/liblocal.so.1" || { echo "install: FAIL no liblocal.so.1"; exit 1; }
soname=$(objdump -p "$libdir/liblocal.so.1" | awk '/SONAME/{print $2}')
[ "$soname" = liblocal.so.1 ] || { echo "install: FAIL soname $soname"; exit 1; }

cmake -S "$src/tests/install/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
if command -v pkg-config >/dev/null; then
  # shellcheck disable=SC2046
  "$cc" -o "$work/pc-consumer" "$src/tests/install/consumer/main.c" $(pkg-config --cflags --libs liblocal)
  LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"
fi
echo "install: ok"
