#!/usr/bin/env bash
# Runs a Windows program of the build under Wine (the cross build's emulator).
# The Wine prefix lives in the build folder (<build>/wineprefix, next to
# <build>/bin); the prefix is booted on first use.
set -u
exe=$1
export WINEDEBUG=-all
# Wine's crash debugger would turn a crashing test into a pass. Wine's
# cluster library answers every program with a fake cluster: without it every
# test runs as it would on a host that is no cluster node (the cluster tests
# bring a test library of their own).
export WINEDLLOVERRIDES="winedbg.exe=d;clusapi=${WINEDLLOVERRIDES:+;$WINEDLLOVERRIDES}"
export LANG=C.UTF-8
unset DISPLAY TZ
if [ -z "${WINEPREFIX:-}" ]; then
  d=$(cd "$(dirname "$exe")" && pwd)
  export WINEPREFIX="$(dirname "$d")/wineprefix"
fi
# A 32-bit program under wine64 does nothing and exits 0: refuse it.
if [ -f "$exe" ]; then
  off=$(od -An -tu4 -j60 -N4 "$exe" | tr -d ' ')
  mach=$(od -An -tx2 -j$((off + 4)) -N2 "$exe" | tr -d ' ')
  if [ "$mach" = "014c" ]; then
    echo "wine-run: $exe is a 32-bit program; no 32-bit Wine here" >&2
    exit 125
  fi
fi
WINE=${WINE:-/usr/lib/wine/wine64}
[ -x "$WINE" ] || WINE=$(command -v wine64 || command -v wine)
mkdir -p "$WINEPREFIX"
# The prefix is booted once, detached, so that Wine's helper processes never
# hold a test's output open. The server is Wine's own, started by the first
# program and gone a few seconds after the last: a server kept up for the whole
# run keeps the service manager's state from one test program to the next,
# which the service tests do not expect.
(
  flock 9
  if ! [ -f "$WINEPREFIX/.ll-ready" ]; then
    "$WINE" wineboot -i </dev/null >/dev/null 2>&1 9>&-
    touch "$WINEPREFIX/.ll-ready"
  fi
) 9>"$WINEPREFIX.lock"
exec "$WINE" "$@"
