#!/usr/bin/env bash
# crc() over a 1 GiB file in the page cache against coreutils cksum on the
# same file, as whole processes (best of 5 each, CPU time: user + system, as
# wall time on a shared machine measures the neighbours). Goal: ratio >= 1.0.
#   bench_crc_file.sh <build-dir>/bin/bench_digest [size-in-MiB]
set -euo pipefail
bin=$1 mib=${2:-1024}
f=$(mktemp "${TMPDIR:-/tmp}/bench_crc.XXXXXX")
trap 'rm -f "$f"' EXIT
head -c $((mib * 1048576)) /dev/urandom > "$f"
cat "$f" > /dev/null
best() {  # best CPU time in seconds of "$@"
  local b=999 t
  for _ in 1 2 3 4 5; do
    t=$( { /usr/bin/time -f "%U %S" "$@" > /dev/null; } 2>&1 | awk '{print $1 + $2}')
    b=$(echo "$t $b" | awk '{print ($1 < $2) ? $1 : $2}')
  done
  echo "$b"
}
ours=$("$bin" --crc-file "$f" | cut -d' ' -f1,2)
theirs=$(cksum "$f" | cut -d' ' -f1,2)
[ "$ours" = "$theirs" ] || { echo "crc() says '$ours', cksum says '$theirs'"; exit 1; }
t_ours=$(best "$bin" --crc-file "$f")
t_cksum=$(best cksum "$f")
echo "crc() ${t_ours}s, cksum ${t_cksum}s over ${mib} MiB"
awk -v a="$t_ours" -v b="$t_cksum" 'BEGIN { printf "ratio crc() %.2fx the speed of cksum (goal >= 1.0x)\n", (a > 0 ? b / a : 0) }'
