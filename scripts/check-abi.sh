#!/usr/bin/env bash
# Checks the binary interface of liblocal.so against the baseline kept in
# abi/liblocal.so.<major>.abi.
#
#   check-abi.sh            build the library (preset linux; an up-to-date
#                           build is reused), describe its interface, compare
#   check-abi.sh --update   build the library in build/abi (preset linux,
#                           every object compiled there, no compiler cache),
#                           compare, and write the description as the new
#                           baseline (refused for an incompatible change
#                           unless the SONAME changed too)
#   check-abi.sh --compare <baseline.abi> <current.abi>
#                           compare two descriptions only
#
# The interface is what a caller can reach: the exported functions and
# variables with the types reachable from them (the test seams llt_* are left
# out, see abi/liblocal.abignore). The description leaves out what differs
# between machines: build paths, source locations, the order of type ids.
# The units appear in the order of their compiled source paths, so a
# baseline comes from a build whose objects were all compiled in one tree
# (a shared compiler cache mixes paths of other trees in): that is what
# --update builds, and what a fresh machine builds. The comparison itself
# does not depend on the order.
#
# Incompatible, and failing: an exported function or variable removed, or
# changed (its own type or any type it reaches: a member moved, resized,
# retyped, a structure grown), or the SONAME differing from the baseline's.
# Additions pass and are reported. Exit status 0 compatible, 1 incompatible,
# 2 the check itself could not run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
abidir=$root/abi
suppr=$abidir/liblocal.abignore

die() { echo "check-abi: $*" >&2; exit 2; }

# abixml of a shared library, restricted and made independent of the machine.
describe() { # <library> <out>
  local tmp=$2.tmp
  abidw --exported-interfaces-only --suppressions "$suppr" \
    --headers-dir "$root/include/liblocal" --header-file "$root/include/liblocal.h" \
    --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs \
    --type-id-style hash --out-file "$tmp" "$1" || die "abidw failed on $1"
  # The symbols of the dropped test seams, and build paths of the units.
  sed -E "/<elf-symbol name='llt_/d; s#(<abi-instr [^>]*path=')[^']*/(src|include)/#\1\2/#" \
    "$tmp" > "$2"
  rm -f "$tmp"
}

soname_of() { sed -n "1s/.* soname='\([^']*\)'.*/\1/p" "$1"; }

# Compares two descriptions; prints the differences and a verdict line.
# Returns 0 when compatible (additions at most), 1 when not.
compare() { # <baseline> <current>
  local old=$1 new=$2 report rc=0 so_old so_new
  so_old=$(soname_of "$old")
  so_new=$(soname_of "$new")
  [ -n "$so_new" ] || die "no SONAME in $new"
  if [ "$so_old" != "$so_new" ]; then
    echo "check-abi: FAIL the library is $so_new but the baseline describes $so_old:"
    echo "  a new SONAME comes with a new baseline (scripts/check-abi.sh --update)"
    return 1
  fi
  report=$(abidiff --suppressions "$suppr" --no-show-locs "$old" "$new") || rc=$?
  [ $((rc & 3)) = 0 ] || { printf '%s\n' "$report" >&2; die "abidiff could not compare $old and $new"; }
  [ -z "$report" ] || printf '%s\n' "$report"
  # Summary lines: "Functions changes summary: 1 Removed, 2 Changed (...), 0 Added ..."
  local counts
  counts=$(printf '%s\n' "$report" | awk '
    /changes summary:/ {
      for (i = 1; i < NF; ++i) {
        w = $(i + 1); sub(/,$/, "", w)
        if (w == "Removed") r += $i
        else if (w == "Changed") c += $i
        else if (w == "Added") a += $i
      }
    }
    END { printf "%d %d %d\n", r, c, a }')
  local removed changed added
  read -r removed changed added <<< "$counts"
  if [ $((rc & 8)) != 0 ] || [ "$removed" != 0 ] || [ "$changed" != 0 ]; then
    echo "check-abi: FAIL incompatible change to $so_new ($removed removed, $changed changed):"
    echo "  restore the interface, or raise the major version (SONAME) and refresh the"
    echo "  baseline with it: scripts/check-abi.sh --update"
    return 1
  fi
  if [ "$added" != 0 ] || [ $((rc & 4)) != 0 ]; then
    echo "check-abi: ok, compatible additions to $so_new ($added added);"
    echo "  record them in the baseline: scripts/check-abi.sh --update"
  else
    echo "check-abi: ok, $so_new unchanged"
  fi
  return 0
}

mode=check
case ${1:-} in
  --update) mode=update ;;
  --compare)
    [ $# = 3 ] || die "usage: check-abi.sh --compare <baseline.abi> <current.abi>"
    command -v abidiff >/dev/null || die "abidiff is missing (package abigail-tools)"
    rc=0; compare "$2" "$3" || rc=$?
    exit $rc ;;
  "") ;;
  *) die "usage: check-abi.sh [--update | --compare <baseline.abi> <current.abi>]" ;;
esac
command -v abidw >/dev/null || die "abidw is missing (package abigail-tools)"

start=$(date +%s)
cd "$root"
if [ $mode = check ]; then
  build=$root/build/linux
  [ -f "$build/CMakeCache.txt" ] || cmake --preset linux >/dev/null
  cmake --build --preset linux -j "$(nproc)" --target liblocal >/dev/null
else
  build=$root/build/abi
  export CCACHE_DISABLE=1
  [ -f "$build/CMakeCache.txt" ] ||
    cmake --preset linux -B "$build" -DLL_TESTS=OFF -DLL_TOOLS=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target liblocal >/dev/null
fi
lib=$build/lib/liblocal.so
[ -e "$lib" ] || die "no $lib after the build"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
describe "$lib" "$work/current.abi"
so=$(soname_of "$work/current.abi")

shopt -s nullglob
baselines=("$abidir"/liblocal.so.*.abi)
shopt -u nullglob
[ ${#baselines[@]} -le 1 ] || die "more than one baseline in abi/: ${baselines[*]##*/}"
baseline=${baselines[0]:-}

rc=0
if [ -n "$baseline" ]; then
  compare "$baseline" "$work/current.abi" || rc=$?
else
  echo "check-abi: FAIL no baseline in abi/ (scripts/check-abi.sh --update writes one)"
  rc=1
fi

if [ $mode = update ]; then
  if [ $rc != 0 ] && [ -n "$baseline" ] && [ "$(soname_of "$baseline")" = "$so" ]; then
    echo "check-abi: baseline NOT refreshed: an incompatible change needs a new SONAME"
    echo "  (raise the major version in the top CMakeLists.txt)"
    exit 1
  fi
  [ -z "$baseline" ] || [ "$baseline" = "$abidir/$so.abi" ] || rm -f "$baseline"
  cp "$work/current.abi" "$abidir/$so.abi"
  echo "check-abi: baseline abi/$so.abi written ($(grep -c '<elf-symbol ' "$abidir/$so.abi") symbols)"
  rc=0
fi
echo "check-abi: $(($(date +%s) - start)) s"
exit $rc
