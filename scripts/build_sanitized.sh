#!/usr/bin/env bash
# Configures and builds the sanitized folder (default build-asan): clang 15 with
# AddressSanitizer and UndefinedBehaviorSanitizer on everything, plus the fuzz
# targets. Extra arguments name the targets to build (default: all).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${NERVA_SANITIZE_BUILD_DIR:-$root/build-asan}
jobs=$(nproc 2>/dev/null || echo 2)

bash "$root/scripts/deps.sh"
# -O1 with line tables keeps reports readable and the build quick on 2 cores.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DCMAKE_C_COMPILER=clang-15 -DCMAKE_CXX_COMPILER=clang++-15 \
  -DNERVA_SANITIZE=ON -DNERVA_BUILD_FUZZERS=ON -DNERVA_BUILD_BENCHMARKS=OFF \
  -DNERVA_TORCH=OFF >/dev/null
targets=()
for t in "$@"; do targets+=(--target "$t"); done
cmake --build "$build" -j "$jobs" "${targets[@]}"
