#!/usr/bin/env bash
# Builds liblocal and runs every test: Linux (plain, then ASan+UBSan, then the
# threaded tests under TSan), then the Windows build under Wine, then the
# 32-bit Windows build (compiled only: no 32-bit Wine here).
set -euo pipefail
cd "$(dirname "$0")/.."
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.ccache}
jobs=$(nproc)

# Each step prints its name; the time the previous one took is printed when
# the next begins, and a table of all of them at the end.
started=$SECONDS step_name='' step_start=$SECONDS timings=''
step() {
  if [ -n "$step_name" ]; then
    timings+=$(printf '%6ds  %s' $((SECONDS - step_start)) "$step_name")$'\n'
    printf '=== (%s: %ds) ===\n' "$step_name" $((SECONDS - step_start))
  fi
  step_name=$* step_start=$SECONDS
  printf '\n=== %s ===\n' "$*"
}

step "install what the build and the tests need"
bash scripts/install-deps.sh --windows

for preset in linux linux-asan; do
  step "$preset: build"
  cmake --preset $preset >/dev/null
  cmake --build --preset $preset -j "$jobs"
  if [ "$preset" = linux ]; then
    step "linux: interface check (ABI baseline)"
    bash scripts/check-abi.sh
  fi
  step "$preset: test"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --preset $preset -j "$jobs"
done

step "linux-tsan: build and run the threaded tests"
cmake --preset linux-tsan -DLL_TOOLS=OFF >/dev/null
cmake --build --preset linux-tsan -j "$jobs" --target test_proc test_frame test_net test_cluster
TSAN_OPTIONS=halt_on_error=1 ctest --preset linux-tsan -j "$jobs" -L 'proc|frame|net|cluster'

step "stress: the short run (threads under TSan, children, shared memory)"
bash scripts/stress.sh --short

step "windows: build"
cmake --preset windows >/dev/null
cmake --build --preset windows -j "$jobs"
step "windows: test under Wine"
export WINEPREFIX=$PWD/build/windows/wineprefix WINEDEBUG=-all LANG=C.UTF-8
WINESERVER=/usr/lib/wine/wineserver
[ -x $WINESERVER ] || WINESERVER=$(command -v wineserver || echo wineserver)
export WINESERVER
unset TZ DISPLAY
# Drives for the file-system table's tests: M: and N: on one folder, O: a
# CD-ROM, added to a booted prefix. Wine shows only the drives that existed
# when its server started, so the server starts again afterwards.
cmake/wine-run.sh reg add 'HKLM\Software\Wine\Drives' /v o: /d cdrom /f >/dev/null 2>&1 || true
mkdir -p "$WINEPREFIX/fstab-m" "$WINEPREFIX/fstab-o"
printf 1234abcd > "$WINEPREFIX/fstab-m/.windows-serial"
for l in m n; do ln -sfn ../fstab-m "$WINEPREFIX/dosdevices/$l:"; done
ln -sfn ../fstab-o "$WINEPREFIX/dosdevices/o:"
"$WINESERVER" -k 2>/dev/null || true
# Start a program once and let the prefix settle: right after a boot Wine's
# service manager may still go down once, which a service test started in
# that window would take for a failure.
cmake/wine-run.sh cmd /c exit >/dev/null 2>&1 || true
sleep 10
rc=0
# Under Wine a program now and then cannot start or does not end (seen about
# once in three full runs, a different test each time, never twice in a
# row): a test that fails is run once more, and a real fault fails both times.
ctest --preset windows -j "$jobs" --repeat until-pass:2 || rc=$?
"$WINESERVER" -k 2>/dev/null || true
[ $rc = 0 ] || exit $rc

step "windows32: build only (the library, the tool, the catalog and the zip)"
cmake --preset windows32 >/dev/null
cmake --build --preset windows32 -j "$jobs" --target liblocal llocal ll_catalog_en_US
(cd build/windows32 && cpack >/dev/null)

step "all tests passed"
printf '\nTime per step:\n%s%6ds  total\n' "$timings" $((SECONDS - started))
