#!/usr/bin/env bash
# Makes the build's package with cpack, checks what it holds, unpacks it into
# a scratch folder and builds a small program against the unpacked files
# twice: through the CMake package and through pkg-config. Both programs run
# from the package's program folder, where the library's catalog must be
# found, and the packaged tool must run where it was unpacked.
#   check_install.sh deb <build-dir> <source-dir> <c-compiler> <version>
#   check_install.sh zip <build-dir> <source-dir> <c-compiler> <version>
# The zip's programs run under Wine (cmake/wine-run.sh, the build's prefix).
# Exit status 77: a tool the check needs is missing (the test is skipped).
set -euo pipefail
kind=$1 build=$2 src=$3 cc=$4 version=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install: FAIL $*"; exit 1; }
need() { command -v "$1" >/dev/null || { echo "install: skipped, no $1"; exit 77; }; }
need cpack

(cd "$build" && cpack -B "$work/pkg" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }

# Every public header of the source tree is in the package, under include/.
expected_headers() { (cd "$src/include" && find . -type f | sed "s|^\./|$1/include/|"); }

# The package's files and links ($work/files: paths inside the package,
# directories left out) must be exactly the expected ones ($work/want).
check_list() {
  sort "$work/files" >"$work/got"
  sort "$work/want" >"$work/want.sorted"
  if ! diff -u "$work/want.sorted" "$work/got" >"$work/list.diff"; then
    cat "$work/list.diff"
    fail "package contents differ from the expected list"
  fi
}

if [ "$kind" = deb ]; then
  need dpkg-deb
  arch=$(dpkg --print-architecture 2>/dev/null || echo amd64)
  deb="$work/pkg/liblocal_${version}_${arch}.deb"
  [ -f "$deb" ] || fail "no package $(basename "$deb") ($(ls "$work/pkg"))"
  (cd "$work/pkg" && sha256sum -c --quiet "$(basename "$deb").sha256") || fail "checksum file"

  # Control fields.
  field() { dpkg-deb -f "$deb" "$1"; }
  [ "$(field Package)" = liblocal ] || fail "Package: $(field Package)"
  [ "$(field Version)" = "$version" ] || fail "Version: $(field Version)"
  [ "$(field Architecture)" = "$arch" ] || fail "Architecture: $(field Architecture)"
  [ -n "$(field Maintainer)" ] && [ -n "$(field Description)" ] || fail "no Maintainer or Description"
  depends=$(field Depends)
  for d in libc6 libstdc++6; do
    case ", $depends" in *", $d"*) ;; *) fail "Depends lacks $d: $depends" ;; esac
  done
  dpkg-deb -e "$deb" "$work/control"
  grep -qx "liblocal 1 liblocal (>= $version)" "$work/control/shlibs" || fail "shlibs: $(cat "$work/control/shlibs")"

  # Contents: exactly these files and links, nothing from the tests.
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {sub(/^\.\//, "", $6); print $6 ($7 == "->" ? " -> " $8 : "")}' >"$work/files"
  {
    expected_headers usr
    printf '%s\n' "usr/lib/liblocal.so.$version" "usr/lib/liblocal.so.1 -> liblocal.so.$version" \
      "usr/lib/liblocal.so -> liblocal.so.1" usr/lib/pkgconfig/liblocal.pc usr/bin/llocal \
      usr/bin/en_US/baystowr.cat
    grep '^usr/lib/cmake/liblocal/liblocal.*\.cmake$' "$work/files"
  } >"$work/want"
  for f in Config ConfigVersion Targets; do
    grep -qx "usr/lib/cmake/liblocal/liblocal$f.cmake" "$work/files" || fail "no liblocal$f.cmake"
  done
  check_list

  dpkg-deb -x "$deb" "$work/root"
  prefix="$work/root/usr"
  soname=$(objdump -p "$prefix/lib/liblocal.so.1" | awk '/SONAME/{print $2}')
  [ "$soname" = liblocal.so.1 ] || fail "soname $soname"
  # run <program>: a program in the unpacked package.
  run() { LD_LIBRARY_PATH="$prefix/lib" "$@"; }
  cmake_extra=()
  exe=
else
  need unzip
  zip="$work/pkg/liblocal-${version}-win64.zip"
  [ -f "$zip" ] || fail "no package $(basename "$zip") ($(ls "$work/pkg"))"
  (cd "$work/pkg" && sha256sum -c --quiet "$(basename "$zip").sha256") || fail "checksum file"
  top="liblocal-${version}-win64"
  unzip -Z1 "$zip" | grep -v '/$' | sed "s|^$top/||" >"$work/files"
  {
    expected_headers .
    printf '%s\n' bin/liblocal.dll lib/liblocal.dll.a bin/en_US/baystowr.dll bin/llocal.exe \
      lib/pkgconfig/liblocal.pc
    grep '^lib/cmake/liblocal/liblocal.*\.cmake$' "$work/files"
  } | sed 's|^\./||' >"$work/want"
  for f in Config ConfigVersion Targets; do
    grep -qx "lib/cmake/liblocal/liblocal$f.cmake" "$work/files" || fail "no liblocal$f.cmake"
  done
  check_list

  mkdir "$work/root"
  unzip -q "$zip" -d "$work/root"
  prefix="$work/root/$top"
  # The DLL carries the event log's message table itself.
  x86_64-w64-mingw32-objdump -h "$prefix/bin/liblocal.dll" | grep -q '\.rsrc' || fail "DLL without resources"
  export WINEPREFIX=${WINEPREFIX:-$build/wineprefix}
  # run <program> [args...]: under Wine, without carriage returns.
  run() { "$src/cmake/wine-run.sh" "$@" | tr -d '\r'; }
  cmake_extra=(-DCMAKE_SYSTEM_NAME=Windows -DCMAKE_EXE_LINKER_FLAGS=-static-libgcc)
  exe=.exe
fi

# Through the CMake package, found from the unpacked folder only.
cmake -S "$src/tests/install/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" "${cmake_extra[@]}" >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; fail "consumer configure"; }
found=$(sed -n 's/^liblocal_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$(cd "$found" && pwd -P)" = "$(cd "$prefix/lib/cmake/liblocal" && pwd -P)" ] || fail "CMake package found at $found"
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "consumer build"; }
cp "$work/cmake-build/consumer$exe" "$prefix/bin/"

# Through pkg-config, with the unpacked .pc as the only one it sees.
if command -v pkg-config >/dev/null; then
  export PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig" PKG_CONFIG_PATH=
  pc_prefix=$(pkg-config --variable=prefix liblocal)
  [ "$(cd "$pc_prefix" && pwd -P)" = "$(cd "$prefix" && pwd -P)" ] || fail "pkg-config prefix $pc_prefix"
  [ "$(pkg-config --modversion liblocal)" = "$version" ] || fail "pkg-config version"
  # shellcheck disable=SC2046
  "$cc" -o "$prefix/bin/pc-consumer$exe" "$src/tests/install/consumer/main.c" \
    $(pkg-config --cflags --libs liblocal) ${exe:+-static-libgcc}
  consumers="consumer pc-consumer"
else
  echo "install: pkg-config missing, its build is not checked"
  consumers=consumer
fi

# Without a locale file no catalog is opened; with one naming en_US the
# packaged catalog is found beside the program.
for c in $consumers; do
  out=$(run "$prefix/bin/$c$exe") || fail "$c exited $?"
  echo "$out"
  case $out in *"catalog none"*) ;; *) fail "$c: catalog without a locale file" ;; esac
done
mkdir -p "$prefix/gls"
echo en_US >"$prefix/gls/GL_LANG"
for c in $consumers; do
  out=$(run "$prefix/bin/$c$exe") || fail "$c exited $?"
  case $out in *"catalog open"*) ;; *) fail "$c: packaged catalog not found: $out" ;; esac
done

# The tool runs where it was unpacked (no library path given) and works.
printf 'liblocal package check\n' >"$work/sample"
want=$(cd "$work" && cksum sample)
if [ "$kind" = deb ]; then
  got=$(cd "$work" && env -u LD_LIBRARY_PATH "$prefix/bin/llocal" cksum sample)
else
  got=$(cd "$work" && run "$prefix/bin/llocal.exe" cksum sample)
fi
[ "$got" = "$want" ] || fail "llocal cksum: '$got', expected '$want'"
echo "install: ok ($kind, $(wc -l <"$work/files") files)"
