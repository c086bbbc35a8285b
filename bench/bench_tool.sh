#!/usr/bin/env bash
# Throughput of llocal pack/unpack next to lz4 and gzip -1 on the same input,
# and llocal cksum against coreutils cksum (whole-process time) on a file in
# the page cache.
#
#   bash bench/bench_tool.sh [LLOCAL] [PACK_MIB] [CKSUM_MIB]
#
# LLOCAL defaults to the first built one of build/linux-bench, build/linux and
# build/tool-linux; the sizes default to 256 MiB and 1024 MiB.
set -euo pipefail
cd "$(dirname "$0")/.."

llocal=${1:-}
if [ -z "$llocal" ]; then
  for b in build/linux-bench build/linux build/tool-linux; do
    if [ -x "$b/bin/llocal" ]; then llocal=$b/bin/llocal; break; fi
  done
fi
[ -n "$llocal" ] && [ -x "$llocal" ] || { echo "bench_tool: build llocal first" >&2; exit 2; }
pack_mib=${2:-256}
cksum_mib=${3:-1024}

work=$(mktemp -d "${TMPDIR:-/tmp}/llocal-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Seconds (best of three) that a shell command takes, its output discarded.
best() {
  local best_t=
  for _ in 1 2 3; do
    local t0 t1
    t0=$(date +%s.%N)
    eval "$1" >/dev/null
    t1=$(date +%s.%N)
    best_t=$(echo "$t0 $t1 ${best_t:-1e9}" | awk '{d = $2 - $1; print (d < $3 ? d : $3)}')
  done
  echo "$best_t"
}
mbs() { echo "$1 $2" | awk '{printf "%8.1f MB/s", $1 * 1048576 / 1e6 / $2}'; }

# A mixed input: headers, documentation and libraries of this system,
# doubled until it is large enough.
input=$work/input
want=$((pack_mib * 1048576))
tar cf - /usr/include /usr/share/doc /usr/lib/x86_64-linux-gnu 2>/dev/null | head -c $want > "$input" || true
[ -s "$input" ] || { echo "bench_tool: no input could be made" >&2; exit 1; }
while [ "$(stat -c %s "$input")" -lt $want ]; do
  cat "$input" "$input" | head -c $want > "$work/more"
  mv "$work/more" "$input"
done

echo "pack/unpack: $pack_mib MiB of system files (ratio = packed size / input size)"
printf '  %-14s %-13s %-13s %s\n' tool compress decompress ratio
# row NAME PACKED-FILE COMPRESS-COMMAND DECOMPRESS-COMMAND
row() {
  local ct dt size
  ct=$(best "$3")
  dt=$(best "$4")
  size=$(stat -c %s "$2")
  printf '  %-14s %s  %s  %5.3f\n' "$1" "$(mbs "$pack_mib" "$ct")" "$(mbs "$pack_mib" "$dt")" \
    "$(echo "$size $pack_mib" | awk '{print $1 / ($2 * 1048576)}')"
}
q() { printf '%q' "$1"; }
L=$(q "$llocal") I=$(q "$input") W=$(q "$work")
"$llocal" pack -f -o "$work/p.llp" "$input"
row "llocal pack" "$work/p.llp" "$L pack $I" "$L unpack $W/p.llp"
if command -v lz4 >/dev/null; then
  lz4 -q -1 -f "$input" "$work/p.lz4"
  row "lz4 -1" "$work/p.lz4" "lz4 -q -1 -c $I" "lz4 -q -d -c $W/p.lz4"
fi
gzip -1 -c "$input" > "$work/p.gz"
row "gzip -1" "$work/p.gz" "gzip -1 -c $I" "gzip -d -c $W/p.gz"

echo "cksum: $cksum_mib MiB in the page cache (whole-process time, best of three)"
big=$work/big
head -c $((cksum_mib * 1048576)) /dev/urandom > "$big"
cat "$big" > /dev/null
a=$("$llocal" cksum "$big" | cut -d' ' -f1-2)
b=$(cksum "$big" | cut -d' ' -f1-2)
[ "$a" = "$b" ] || { echo "bench_tool: cksum values differ: $a / $b" >&2; exit 1; }
tl=$(best "$L cksum $(q "$big")")
tc=$(best "cksum $(q "$big")")
printf '  llocal cksum   %6.3f s %s\n' "$tl" "$(mbs "$cksum_mib" "$tl")"
printf '  coreutils      %6.3f s %s\n' "$tc" "$(mbs "$cksum_mib" "$tc")"
echo "$tl $tc" | awk '{printf "  llocal / coreutils = %.2fx (goal: at most 1.20x)\n", $1 / $2}'
