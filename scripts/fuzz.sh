#!/usr/bin/env bash
# Runs the fuzz targets for a fixed time each, starting from their checked-in
# seed corpora: bash scripts/fuzz.sh [seconds per target] [target ...]
# (default 30 s, every fuzz/*_fuzzer.cc). New inputs go to
# build-asan/fuzz/work/<target>, findings to build-asan/fuzz/<target>-crash-*.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${NERVA_SANITIZE_BUILD_DIR:-$root/build-asan}
seconds=${1:-30}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in "$root"/fuzz/*_fuzzer.cc; do targets+=("$(basename "$src" .cc)"); done
fi

bash "$root/scripts/build_sanitized.sh" "${targets[@]}"
source "$root/scripts/sanitizer_env.sh"
failed=()
for name in "${targets[@]}"; do
  work="$build/fuzz/work/$name"
  mkdir -p "$work"
  echo "== $name: ${seconds} s"
  "$build/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz/$name-" "$work" "$root/fuzz/corpus/$name" ||
    failed+=("$name")
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "Fuzz findings in: ${failed[*]} (inputs saved as $build/fuzz/<target>-crash-*)"
  exit 1
fi
echo "Fuzz targets ran ${seconds} s each without a finding"
