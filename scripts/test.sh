#!/usr/bin/env bash
# Builds nerva with its tests and runs the whole suite (every GoogleTest case
# is its own CTest test); prints the suite's wall time.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${NERVA_BUILD_DIR:-$root/build}
jobs=$(nproc 2>/dev/null || echo 2)

bash "$root/scripts/deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j "$jobs"
bash "$root/scripts/run_tests.sh" "$build"
