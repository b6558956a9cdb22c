#!/usr/bin/env bash
# Builds the sanitized folder (see build_sanitized.sh) and runs the whole
# suite there with leak checking on. Any finding fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${NERVA_SANITIZE_BUILD_DIR:-$root/build-asan}

bash "$root/scripts/build_sanitized.sh"
source "$root/scripts/sanitizer_env.sh"
bash "$root/scripts/run_tests.sh" "$build"
