#!/usr/bin/env bash
# Installs what is missing, builds and installs nerva into build/install,
# then builds the main example against the installed package and runs it
# (installed libraries and consumers find their libraries without LD_LIBRARY_PATH).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${NERVA_BUILD_DIR:-$root/build}
jobs=$(nproc 2>/dev/null || echo 2)

bash "$root/scripts/deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j "$jobs"
cmake --install "$build" --prefix "$build/install" >/dev/null
cmake -S "$root/examples" -B "$build/examples" -DCMAKE_PREFIX_PATH="$build/install" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build/examples" -j "$jobs"
"$build/examples/nerva_example"
