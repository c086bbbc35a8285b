#!/usr/bin/env bash
# Builds liblocal and its tool, then runs the tool's tour.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset linux -DLL_TESTS=OFF >/dev/null
cmake --build --preset linux -j "$(nproc)" --target llocal
./build/linux/bin/llocal tour
