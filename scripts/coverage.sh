#!/usr/bin/env bash
# Line and branch coverage of the library on Linux.
#
# Builds the preset linux-coverage (gcc --coverage, -O0), runs the Linux test
# suite once (every test binary, the tool's tests and the corpus replays; not
# the stress programs, not the second whole-binary runs, which add nothing),
# then prints the coverage of the library's own sources (src/ only: not the
# tests, the tool or the fuzz targets) per family, portable code and POSIX
# back-end apart, and the total.
#
#   coverage.sh [--no-build] [--report-only] [--html] [-- ctest arguments...]
#
#   --no-build     run the tests and report on the build as it stands
#   --report-only  report on the counters of the last run (no build, no tests)
#   --html         also write build/linux-coverage/coverage/index.html
#
# The summary also lands in build/linux-coverage/coverage/summary.txt and the
# per-file figures in build/linux-coverage/coverage/files.json.
#
# The Windows back-ends (src/*/win32) are not compiled on Linux and are not
# counted; the table says how many files that leaves out.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
preset=linux-coverage
bdir=$root/build/$preset
out=$bdir/coverage

build=1 run=1 html=0
ctest_args=()
while [ $# -gt 0 ]; do
  case $1 in
    --no-build) build=0 ;;
    --report-only) build=0 run=0 ;;
    --html) html=1 ;;
    --) shift; ctest_args=("$@"); break ;;
    *) echo "coverage.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

bash scripts/install-deps.sh --coverage
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$root} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
jobs=${JOBS:-$(nproc)}

if [ $build = 1 ]; then
  cmake --preset $preset >/dev/null
  cmake --build --preset $preset -j "$jobs"
fi

rc=0
if [ $run = 1 ]; then
  # Counters of an earlier run would be added to this one's.
  find "$bdir" -name '*.gcda' -delete
  start=$(date +%s)
  ctest --preset $preset -j "$jobs" -LE '^(stress|wine|whole)$' "${ctest_args[@]}" || rc=$?
  echo "coverage: tests ran for $(( $(date +%s) - start )) s"
  [ $rc = 0 ] || echo "coverage: some tests failed (ctest status $rc); the figures cover what ran" >&2
fi

mkdir -p "$out"
# gcov writes its intermediate files into the current folder: not the tree.
cd "$out"
# Branches that only the exception machinery takes (a throw's unwinding
# edges) and those the compiler proves unreachable are left out: no test can
# take them and they would only blur the figure.
gcovr_args=(--root "$root" --filter "$root/src/" --exclude "$root/src/.*/win32/"
  --exclude-throw-branches --exclude-unreachable-branches -j "$jobs" "$bdir")
gcovr "${gcovr_args[@]}" --json-summary "$out/files.json" --json-summary-pretty
if [ $html = 1 ]; then
  gcovr "${gcovr_args[@]}" --html-details "$out/index.html"
fi

python3 - "$out/files.json" "$root/src" <<'EOF' | tee "$out/summary.txt"
import json, os, sys
data = json.load(open(sys.argv[1]))
src = sys.argv[2]

def pct(c, t):
    return f"{100.0 * c / t:5.1f} %" if t else "    -  "

rows = {}
for f in data["files"]:
    name = f["filename"]
    if name.startswith("src/"):
        name = name[4:]
    parts = name.split("/")
    family = parts[0] if len(parts) > 1 else "(top)"
    part = parts[1] if len(parts) > 2 else "portable"
    for key in ((family, None), (family, part), ("total", None)):
        r = rows.setdefault(key, [0, 0, 0, 0, 0])
        r[0] += f["line_total"]; r[1] += f["line_covered"]
        r[2] += f["branch_total"]; r[3] += f["branch_covered"]; r[4] += 1

head = f"{'family':<20} {'files':>5} {'lines':>7} {'missed':>7} {'line cov':>9} {'branches':>9} {'missed':>7} {'branch cov':>10}"
print(head)
print("-" * len(head))

def line(label, r):
    print(f"{label:<20} {r[4]:>5} {r[0]:>7} {r[0]-r[1]:>7} {pct(r[1], r[0]):>9} {r[2]:>9} {r[2]-r[3]:>7} {pct(r[3], r[2]):>10}")

families = sorted({k[0] for k in rows if k[0] != "total"})
for fam in families:
    line(fam, rows[(fam, None)])
    parts = sorted(k[1] for k in rows if k[0] == fam and k[1] is not None)
    if len(parts) > 1:
        for p in parts:
            line(f"  {p}", rows[(fam, p)])
print("-" * len(head))
line("total", rows[("total", None)])

win = []
for d, _, files in os.walk(src):
    if os.path.basename(d) == "win32":
        win += [f for f in files if f.endswith((".cpp", ".h"))]
print(f"\nNot counted: the Windows back-ends (src/*/win32, {len(win)} files) are not compiled on Linux.")
print("Branches taken only by exception unwinding, or proved unreachable by the compiler, are left out.")
EOF
exit $rc
