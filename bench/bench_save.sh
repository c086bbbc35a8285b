#!/usr/bin/env bash
# Save and restore through llocal serve on loopback, against the same tree
# sent as `tar -cf - | gzip -1` and `tar -cf - | lz4 -1` through a loopback
# socket to a receiver that writes the stream to disk (and back for the
# restore). Wall time, page cache warm, one run each after a warm-up.
#
#   bash bench/bench_save.sh [LLOCAL] [TREE_MIB] [SMALL_FILES]
#
# Defaults: the first built llocal of build/linux-bench and build/linux,
# a 1024 MiB tree of mixed files, and 100 000 small files.
set -euo pipefail
cd "$(dirname "$0")/.."

llocal=${1:-}
if [ -z "$llocal" ]; then
  for b in build/linux-bench build/linux; do
    if [ -x "$b/bin/llocal" ]; then llocal=$PWD/$b/bin/llocal; break; fi
  done
fi
[ -n "$llocal" ] && [ -x "$llocal" ] || { echo "bench_save: build llocal first" >&2; exit 2; }
tree_mib=${2:-1024}
small=${3:-100000}
for t in tar gzip lz4 python3; do command -v $t >/dev/null || { echo "bench_save: $t is missing" >&2; exit 2; }; done

work=$(mktemp -d "${TMPDIR:-/tmp}/llocal-save-bench.XXXXXX")
server=
cleanup() { [ -n "$server" ] && kill "$server" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

# The mixed tree: text (compresses well), structured binary (somewhat) and
# random bytes (not at all), in files of 4 KiB to 16 MiB.
python3 - "$work/tree" "$tree_mib" <<'PY'
import os, random, sys
root, mib = sys.argv[1], int(sys.argv[2])
rnd = random.Random(1)
text = b"".join(b"line %06d: saving /home/user/documents/report-%04d.txt, %d bytes, finished\n" % (i, i % 977, i * 31) for i in range(20000))
total, n = 0, 0
while total < mib << 20:
    size = rnd.choice([4 << 10, 64 << 10, 1 << 20, 4 << 20, 16 << 20])
    kind = n % 5
    if kind < 2:
        data = (text * (size // len(text) + 1))[:size]
    elif kind < 4:
        data = bytes((i * 7 + (i >> 9)) & 0xff for i in range(min(size, 1 << 16))) * (size // (1 << 16) + 1)
        data = data[:size]
    else:
        data = os.urandom(size)
    d = os.path.join(root, "d%02d" % (n % 16))
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, "f%05d" % n), "wb") as f:
        f.write(data)
    total += size
    n += 1
PY
python3 - "$work/small" "$small" <<'PY'
import os, sys
root, count = sys.argv[1], int(sys.argv[2])
for i in range(count):
    d = os.path.join(root, "d%03d" % (i % 500))
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, "f%06d" % i), "wb") as f:
        f.write(b"small file %d\n" % i * (1 + i % 7))
PY
bytes=$(du -sb "$work/tree" | cut -f1)
cat $(find "$work/tree" -type f) >/dev/null  # warm the cache

# A receiver that writes what one connection sends to a file, and a sender
# that streams a file to the port: the peers' network leg.
cat >"$work/net.py" <<'PY'
import socket, sys
mode, port_file, path = sys.argv[1], sys.argv[2], sys.argv[3]
if mode == "recv":
    s = socket.socket(); s.bind(("127.0.0.1", 0)); s.listen(1)
    open(port_file, "w").write(str(s.getsockname()[1]))
    c, _ = s.accept()
    with open(path, "wb") as f:
        while True:
            b = c.recv(1 << 20)
            if not b: break
            f.write(b)
else:
    c = socket.create_connection(("127.0.0.1", int(open(port_file).read())))
    src = sys.stdin.buffer if path == "-" else open(path, "rb")
    while True:
        b = src.read(1 << 20)
        if not b: break
        c.sendall(b)
PY
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN{printf "%.3f", b - a}'; }
rate() { awk -v n="$1" -v s="$2" 'BEGIN{printf "%.1f", n / 1e6 / s}'; }

# The peer pipeline over the socket: tar | COMPRESSOR -> receiver -> file.
peer_save() {
  rm -f "$work/port" "$work/stream"
  python3 "$work/net.py" recv "$work/port" "$work/stream" & local r=$!
  while [ ! -s "$work/port" ]; do sleep 0.05; done
  local t0; t0=$(now)
  tar -C "$work" -cf - tree | $1 | python3 "$work/net.py" send "$work/port" -
  wait $r
  secs "$t0" "$(now)"
}
peer_restore() {
  rm -rf "$work/peer-back" "$work/port"; mkdir -p "$work/peer-back"
  python3 "$work/net.py" recv "$work/port" "$work/stream2" & local r=$!
  while [ ! -s "$work/port" ]; do sleep 0.05; done
  local t0; t0=$(now)
  python3 "$work/net.py" send "$work/port" "$work/stream"
  wait $r
  $1 <"$work/stream2" | tar -C "$work/peer-back" -xf -
  secs "$t0" "$(now)"
}

"$llocal" serve --store "$work/store" --listen 127.0.0.1:0 --port-file "$work/llport" >/dev/null &
server=$!
while [ ! -s "$work/llport" ]; do sleep 0.05; done
addr=127.0.0.1:$(cat "$work/llport")

ll_save() {
  local t0; t0=$(now)
  id=$("$llocal" save "$addr" "$1")
  secs "$t0" "$(now)"
}
ll_restore() {
  rm -rf "$work/ll-back"
  local t0; t0=$(now)
  "$llocal" restore "$addr" "$id" "$work/ll-back"
  secs "$t0" "$(now)"
}

ll_save "$work/tree" >/dev/null  # warm-up
t_ll=$(ll_save "$work/tree"); t_llr=$(ll_restore)
diff -r "$work/tree" "$work/ll-back/tree" >/dev/null || { echo "bench_save: restored tree differs" >&2; exit 1; }
t_gz=$(peer_save "gzip -1"); t_gzr=$(peer_restore "gzip -dc")
t_lz=$(peer_save "lz4 -1 -q"); t_lzr=$(peer_restore "lz4 -dc -q")

printf 'tree: %d MB in %d files\n' $((bytes / 1000000)) "$(find "$work/tree" -type f | wc -l)"
printf '%-34s %8s s %10s MB/s\n' "llocal save" "$t_ll" "$(rate "$bytes" "$t_ll")"
printf '%-34s %8s s %10s MB/s\n' "tar | gzip -1 -> socket" "$t_gz" "$(rate "$bytes" "$t_gz")"
printf '%-34s %8s s %10s MB/s\n' "tar | lz4 -1 -> socket" "$t_lz" "$(rate "$bytes" "$t_lz")"
printf '%-34s %8s s %10s MB/s\n' "llocal restore" "$t_llr" "$(rate "$bytes" "$t_llr")"
printf '%-34s %8s s %10s MB/s\n' "socket -> gzip -d | tar -x" "$t_gzr" "$(rate "$bytes" "$t_gzr")"
printf '%-34s %8s s %10s MB/s\n' "socket -> lz4 -d | tar -x" "$t_lzr" "$(rate "$bytes" "$t_lzr")"
awk -v a="$t_gz" -v b="$t_ll" 'BEGIN{printf "ratio llocal save      %.2fx the throughput of tar | gzip -1 (goal >= 2x)\n", a / b}'
awk -v a="$t_lz" -v b="$t_ll" 'BEGIN{printf "ratio llocal save      %.2fx the throughput of tar | lz4 -1\n", a / b}'
awk -v a="$t_gzr" -v b="$t_llr" 'BEGIN{printf "ratio llocal restore   %.2fx the throughput of gzip -d | tar -x (goal >= 2x)\n", a / b}'
awk -v a="$t_lzr" -v b="$t_llr" 'BEGIN{printf "ratio llocal restore   %.2fx the throughput of lz4 -d | tar -x\n", a / b}'

t_s=$(ll_save "$work/small")
small_bytes=$(du -sb "$work/small" | cut -f1)
printf 'small files: %d files saved in %s s: %.0f files/s, %s MB/s\n' "$small" "$t_s" \
  "$(awk -v n="$small" -v s="$t_s" 'BEGIN{print n / s}')" "$(rate "$small_bytes" "$t_s")"
