#!/usr/bin/env bash
# The interface check catches a break: the committed baseline against copies
# of itself altered the way a careless change would alter the library.
#   check_abi_test.sh <source-root>
set -uo pipefail
root=$1
check=$root/scripts/check-abi.sh
shopt -s nullglob
base=("$root"/abi/liblocal.so.*.abi)
[ ${#base[@]} = 1 ] || { echo "abi-test: FAIL expected one baseline, found ${#base[@]}"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fn="qzbitmap_clr_all"
drop_fn="/<elf-symbol name='$fn'/d; /<function-decl name='$fn'/,/<\/function-decl>/d"
fails=0
# name | expected status | sed script for the baseline copy | for the current copy | expected text
while IFS='|' read -r name want old new text; do
  [ -n "$name" ] || continue
  sed "${old:-p;d}" "${base[0]}" > "$work/old.abi"
  sed "${new:-p;d}" "${base[0]}" > "$work/new.abi"
  out=$(bash "$check" --compare "$work/old.abi" "$work/new.abi" 2>&1)
  got=$?
  if [ "$got" != "$want" ] || ! grep -q -- "$text" <<< "$out"; then
    echo "abi-test: FAIL $name: status $got (want $want), output:"
    printf '%s\n' "$out" | head -n 20
    fails=$((fails + 1))
  fi
done <<CASES
unchanged|0|||unchanged
function removed|1||$drop_fn|1 removed
variable removed|1||/<elf-symbol name='Debug'/d; /<var-decl name='Debug'.*elf-symbol-id/d|1 removed
parameter added|1||/<function-decl name='$fn'/,/<\/function-decl>/{/<parameter /p}|changed
structure grown, member moved|1||/<class-decl name='qzbitmap'/,/<\/class-decl>/{s/layout-offset-in-bits='192'/layout-offset-in-bits='256'/;s/size-in-bits='256'/size-in-bits='320'/}|changed
function added|0|$drop_fn||compatible additions
new SONAME, old baseline|1||1s/soname='[^']*'/soname='liblocal.so.99'/|new baseline
CASES
[ $fails = 0 ] || exit 1
echo "abi-test: ok"
