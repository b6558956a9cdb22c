#!/usr/bin/env bash
# Runs the suite of an already built folder and prints its wall time.
set -euo pipefail
build=$1
start=$(date +%s)
status=0
ctest --test-dir "$build" --output-on-failure -j "$(nproc 2>/dev/null || echo 2)" || status=$?
echo "Test suite wall time: $(( $(date +%s) - start )) s ($build)"
exit $status
