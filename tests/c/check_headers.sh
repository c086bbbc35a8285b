#!/usr/bin/env bash
# Compiles the public headers with one compiler, strictly: every header of
# include/liblocal/ on its own (each must be self-contained) and all of them
# together through liblocal.h, in each language standard the compiler is
# given, with every warning an error.
#   check_headers.sh <include-dir> <compiler> c|c++ <std>...
# Prints "headers: ok" when everything compiled, "headers: FAIL ..." for
# each unit that did not, with the compiler's messages.
set -uo pipefail
inc=$1 cc=$2 lang=$3
shift 3
[ $# -gt 0 ] || { echo "headers: FAIL no language standard given"; exit 1; }

flags=(-fsyntax-only -Wall -Wextra -Werror -pedantic -Wundef -Wcast-qual -Wconversion
  -Wsign-conversion -Wredundant-decls -I"$inc")
if [ "$lang" = c ]; then
  # An empty parameter list is no prototype in C.
  flags+=(-Wstrict-prototypes -Wmissing-prototypes -x c)
else
  flags+=(-Wold-style-cast -Wzero-as-null-pointer-constant -x c++)
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
units=()
for h in "$inc"/liblocal/*.h; do
  n=$(basename "$h" .h)
  # Twice: the include guard must hold.
  printf '#include <liblocal/%s.h>\n#include <liblocal/%s.h>\n' "$n" "$n" > "$work/$n.src"
  units+=("$n")
done
printf '#include <liblocal.h>\n#include <liblocal.h>\n' > "$work/liblocal.src"
units+=(liblocal)

fails=0 ran=0
for std in "$@"; do
  for u in "${units[@]}"; do
    ran=$((ran + 1))
    if ! out=$("$cc" -std="$std" "${flags[@]}" "$work/$u.src" 2>&1); then
      echo "headers: FAIL $cc -std=$std $u"
      printf '%s\n' "$out" | head -n 20
      fails=$((fails + 1))
    fi
  done
done
[ $fails = 0 ] || exit 1
echo "headers: ok ($cc, $*: $ran units)"
