#!/usr/bin/env bash
# Builds the release packages from the source tree and prints where they are:
#   the Debian package   (preset linux,   build/package-linux)
#   the Windows zip      (preset windows, build/package-windows)
#   the 32-bit zip       (preset windows32, with --win32)
# The package builds are folders of their own, configured without the tests,
# so the development builds under build/<preset> are left alone. The packages
# are collected in build/packages.
#   scripts/package.sh [--win32] [--check]
#     --check  runs the install check on each package afterwards (unpacks it,
#              builds a program against it, runs it; the zip under Wine)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
win32=0 check=0
for a in "$@"; do
  case $a in
    --win32) win32=1 ;;
    --check) check=1 ;;
    *) echo "usage: scripts/package.sh [--win32] [--check]" >&2; exit 2 ;;
  esac
done
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$src")} CCACHE_NOHASHDIR=1
jobs=${JOBS:-2}
out=$src/build/packages
mkdir -p "$out"

presets="linux windows"
[ $win32 = 1 ] && presets="$presets windows32"
for p in $presets; do
  dir=$src/build/package-$p
  start=$SECONDS
  echo "== $p: configure and build ($dir)"
  cmake --preset "$p" -B "$dir" -DLL_TESTS=OFF -DLL_BENCH=OFF >/dev/null
  cmake --build "$dir" -j "$jobs" >/dev/null
  (cd "$dir" && cpack -B "$out" >"$dir/cpack.log" 2>&1) || { cat "$dir/cpack.log"; exit 1; }
  rm -rf "$out/_CPack_Packages"
  echo "   done in $((SECONDS - start)) s"
done

version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$src/build/package-linux/CPackConfig.cmake")
if [ $check = 1 ]; then
  # The check makes its own package from the same build folder.
  cc_of() { sed -n 's/^set(CMAKE_C_COMPILER "\(.*\)")$/\1/p' "$src"/build/package-$1/CMakeFiles/*/CMakeCCompiler.cmake; }
  bash tests/install/check_install.sh deb "$src/build/package-linux" "$src" "$(cc_of linux)" "$version"
  # The Wine prefix of the development build (made on first use).
  WINEPREFIX=${WINEPREFIX:-$src/build/windows/wineprefix} WINEDEBUG=-all LANG=C.UTF-8 \
    bash tests/install/check_install.sh zip "$src/build/package-windows" "$src" "$(cc_of windows)" "$version"
fi

echo "== packages of liblocal $version in $out"
for f in "$out"/liblocal*"$version"*.deb "$out"/liblocal*"$version"*.zip; do
  [ -f "$f" ] || continue
  printf '%s  %s bytes  sha256 %s\n' "$f" "$(stat -c %s "$f")" "$(cut -d' ' -f1 "$f.sha256")"
done
