#!/usr/bin/env bash
# Compares the library's real export table with the public headers.
#   check_exports.sh linux|windows <c-compiler> <include-dir> <library> <nm|objdump>
# Fails when a name the headers declare is not exported, and on Linux when the
# library exports a name that the C library also defines.
set -euo pipefail
mode=$1 cc=$2 inc=$3 lib=$4 tool=$5

declared=$(printf '#define LL_SCAN_EXPORTS 1\n#include <liblocal.h>\n' |
  "$cc" -E -P -DLL_SCAN_EXPORTS -I"$inc" -x c - |
  perl -0777 -ne '
    s/\s+/ /g;
    for my $d (split /;/) {
      next unless $d =~ /__ll_export__/;
      $d =~ s/^.*__ll_export__//;
      if ($d =~ /\(/) {
        # the identifier before the parameter list of the declarator
        $d =~ /([A-Za-z_]\w*)\s*\((?!\s*\*)/ and print "$1\n";
      } else {
        $d =~ s/\[[^\]]*\]//g;
        $d =~ /([A-Za-z_]\w*)\s*$/ and print "$1\n";
      }
    }' | sort -u)

if [ "$mode" = linux ]; then
  exported=$("$tool" -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' | sort -u)
else
  exported=$("$tool" -p "$lib" | awk '/\[Ordinal\/Name Pointer\] Table/{t=1;next} t&&/^[ \t]*\[/{print $NF} t&&/^$/{t=0}' | sort -u)
fi

fail=0
n=$(printf '%s\n' "$declared" | grep -c . || true)
missing=$(comm -23 <(printf '%s\n' "$declared") <(printf '%s\n' "$exported"))
if [ -n "$missing" ]; then
  echo "declared in the public headers but not exported:"; printf '  %s\n' $missing; fail=1
fi
if [ "$mode" = linux ]; then
  libc=$("$cc" -print-file-name=libc.so.6)
  libm=$("$cc" -print-file-name=libm.so.6)
  clash=$(comm -12 <(printf '%s\n' "$exported") \
    <( { "$tool" -D --defined-only "$libc"; "$tool" -D --defined-only "$libm"; } | awk '{print $NF}' | sed 's/@.*//' |
      grep -v -x -E '_init|_fini|_edata|_end|__bss_start' | sort -u))
  if [ -n "$clash" ]; then
    echo "exported names that the C library also defines (would interpose it):"; printf '  %s\n' $clash; fail=1
  fi
  cxx=$(printf '%s\n' "$exported" | grep -E '^_Z' || true)
  if [ -n "$cxx" ]; then echo "C++ symbols exported:"; printf '  %s\n' $cxx | head; fail=1; fi
fi
if [ $fail = 0 ]; then
  echo "exports: ok ($n declared names, all exported)"
else
  echo "exports: FAIL"; exit 1
fi
