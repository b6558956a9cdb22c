#!/usr/bin/env bash
# run_binary.sh BINARY RESULTS: runs a whole test binary in one process (one
# OpenCL session, every device program built once) and has it record each
# case's result in RESULTS (see gtest_main.cc). When the process dies inside a
# case, that case is recorded as crashed with the end of the output, and the
# binary runs again for the cases that have no result yet. The exit status of
# the last run goes to RESULTS.exit. The per-case verdicts are CTest's other
# tests (check_case.sh), so this one fails only when the binary cannot run.
set -uo pipefail
binary=$1
results=$2
mkdir -p "$(dirname "$results")"
rm -f "$results" "$results.exit" "$results.log"
filter='*'
while :; do
  NERVA_TEST_RESULTS=$results "$binary" --gtest_brief=1 --gtest_filter="$filter" 2>&1 |
    tee "$results.part"
  rc=${PIPESTATUS[0]}
  cat "$results.part" >> "$results.log"
  [ -e "$results" ] || { echo "$binary recorded nothing (exit $rc)"; exit 1; }
  grep -q $'^\tEND\t' "$results" && break
  # The case that started and never ended is where the process died.
  crashed=$(awk -F'\t' '$2 == "START" { open[$1] = 1 }
    $2 ~ /^(PASS|FAIL|SKIP|CRASH)$/ { delete open[$1] }
    END { for (name in open) print name }' "$results")
  if [ -z "$crashed" ]; then
    echo "$binary stopped outside any test case (exit $rc)"
    break
  fi
  tail -n 200 "$results.part" | awk -v name="$crashed" '{ print name "\tMSG\t" $0 }' >> "$results"
  printf '%s\tCRASH\t\n' "$crashed" >> "$results"
  echo "=== $crashed died (exit $rc); running the cases that are left"
  filter=-$(awk -F'\t' '$2 ~ /^(PASS|FAIL|SKIP|CRASH)$/ { print $1 }' "$results" | paste -sd:)
done
rm -f "$results.part"
echo "$rc" > "$results.exit"
exit 0
