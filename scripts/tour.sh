#!/usr/bin/env bash
# Builds liblocal and its tool, then runs the tool's tour.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
# The same configuration as the test script's (a cached LL_TESTS=OFF would
# outlive this script); only the tool and the library are built.
cmake --preset linux >/dev/null
cmake --build --preset linux -j "$(nproc)" --target llocal
./build/linux/bin/llocal tour
