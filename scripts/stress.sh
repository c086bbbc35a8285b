#!/usr/bin/env bash
# Builds the stress programs and runs them (ctest label "stress"): the
# threaded one under ThreadSanitizer (preset linux-tsan), the children and
# shared-memory ones in the plain build (preset linux).
#
#   scripts/stress.sh            the full run: 64 threads for 5 minutes,
#                                2000 children, 4 processes counting for a
#                                minute
#   scripts/stress.sh --short    the same programs in well under a minute
#   --seconds N                  the threaded run's duration instead
#   --windows                    the Windows build (preset windows) under
#                                Wine instead, with a tenth of the children
#
# Each program stops by itself and prints what it did; the run fails when
# one of them reports a failure, a sanitizer report, or a descriptor count
# that differs before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

threads_secs=300 ids_secs=30 children=2000 children_secs=600 shmem_secs=60 rounds=2000000000 windows=0
while [ $# -gt 0 ]; do
  case $1 in
    --short) threads_secs=12 ids_secs=3 children=2000 children_secs=20 shmem_secs=4 rounds=5000000 ;;
    --seconds) threads_secs=$2; shift ;;
    --windows) windows=1 ;;
    *) echo "usage: $0 [--short] [--seconds N] [--windows]" >&2; exit 2 ;;
  esac
  shift
done

export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=1
jobs=${STRESS_JOBS:-2}
step() { printf '\n=== %s ===\n' "$*"; }

if [ $windows = 1 ]; then
  step "windows: build the stress programs"
  cmake --preset windows >/dev/null
  cmake --build --preset windows -j "$jobs" --target stress_threads stress_children stress_shmem
  threads_dir=build/windows process_dir=build/windows children=$((children / 10))
  export WINEPREFIX=$PWD/build/windows/wineprefix WINEDEBUG=-all LANG=C.UTF-8
  unset TZ DISPLAY
  WINESERVER=/usr/lib/wine/wineserver
  [ -x $WINESERVER ] || WINESERVER=$(command -v wineserver || echo wineserver)
  export WINESERVER
  # The prefix is booted before the first program is timed.
  cmake/wine-run.sh cmd /c exit >/dev/null 2>&1 || true
  trap '"$WINESERVER" -k 2>/dev/null || true' EXIT
else
  step "linux-tsan: build the threaded stress program"
  cmake --preset linux-tsan -DLL_TOOLS=OFF >/dev/null
  cmake --build --preset linux-tsan -j "$jobs" --target stress_threads
  step "linux: build the process stress programs"
  cmake --preset linux >/dev/null
  cmake --build --preset linux -j "$jobs" --target stress_threads stress_children stress_shmem
  threads_dir=build/linux-tsan process_dir=build/linux
fi

rc=0
logs=build/stress-logs; [ $windows = 0 ] || logs=build/stress-logs-windows
mkdir -p $logs
# run <build folder> <test> [NAME=value...]: the test's own lines are shown,
# its whole output kept in build/stress-logs/<test>.log.
run() {
  local dir=$1 name=$2
  shift 2
  if env "$@" ctest --test-dir "$dir" -L stress -R "^stress\.$name\$" --output-on-failure -V >"$logs/$name.log" 2>&1; then
    grep -E '^[0-9]+: (stress_|FAIL)' "$logs/$name.log" | sed 's/^[0-9]*: //'
  else
    rc=1
    grep -E '^[0-9]+: ' "$logs/$name.log" | sed 's/^[0-9]*: //' | tail -40
    echo "stress.$name FAILED (see $logs/$name.log)"
  fi
}
step "threads: 64 for $threads_secs s"
run $threads_dir threads LL_STRESS_SECONDS=$threads_secs TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
step "identifiers: 16 threads for $ids_secs s"
run $process_dir ids LL_STRESS_SECONDS=$ids_secs
step "children: $children across 8 threads (at most $children_secs s)"
run $process_dir children LL_STRESS_CHILDREN=$children LL_STRESS_SECONDS=$children_secs
step "shared memory: 4 processes for at most $shmem_secs s"
run $process_dir shmem LL_STRESS_SECONDS=$shmem_secs LL_STRESS_ROUNDS=$rounds

if [ $rc = 0 ]; then step "stress: all passed"; else step "stress: FAILED"; fi
exit $rc
